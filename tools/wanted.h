// The records that follow from the stored configuration by the daemon's own code, compared with the store.
#pragma once

#include <compare>
#include <map>
#include <string>
#include <vector>

#include "context.h"
#include "member.h"
#include "records.h"

namespace lspanctl {

// Where a record stands. Places are ordered by database, name of the message and packed key.
struct record_place {
  ko_store::hash_id hash;
  std::string key;
  bool operator==(const record_place &) const = default;
  std::strong_ordering operator<=>(const record_place &other) const;
};

using record_set = std::map<record_place, std::string>;  // to packed records

// One member and its outcome.
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
  bool daemon_listens = false;          // a daemon is there
};

// Reads the store and computes. Progress is shown.
wanted_state load_wanted(context &ctx);

enum class finding { right, missing, different, left_over };
inline constexpr size_t n_findings = 4;
const char *to_text(finding what);

// How `place` stands.
finding compare(const wanted_state &state, const record_place &place);

// Whether every record is right.
bool all_right(const wanted_state &state);

}  // namespace lspanctl
