// What the stored configuration asks for, as the daemon's code works it out, and how that compares with the store.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "context.h"
#include "member.h"
#include "records.h"

namespace lspanctl {

// Database, full name of the message, packed key.
struct record_place {
  uint32_t db;
  std::string message;
  std::string key;
  auto operator<=>(const record_place &) const = default;
};

using record_set = std::map<record_place, std::string>;  // to packed records

// One member, and what came of it.
struct member_outcome {
  member what;
  std::vector<record_place> touched;  // records that the daemon wrote or deleted for it
  int32_t status = 0;                 // the daemon's answer to it
  bool group_is_empty = false;        // it targets a group without interfaces
};

struct wanted_state {
  std::vector<member_outcome> members;  // in the order of their keys
  record_set wanted;                    // all records that a daemon started on this configuration leaves
  record_set stored;                    // those that there are: the daemon's, and the results written for it
  size_t bad = 0;                       // records that could not be used, each said on standard error
};

// Reads the store and computes. Progress is shown.
wanted_state load_wanted(context &ctx);

enum class finding { right, missing, different, left_over };

// How `place` stands.
finding compare(const wanted_state &state, const record_place &place);

}  // namespace lspanctl
