// The configuration as a file, as session export writes it and session apply reads it.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "command.h"
#include "member.h"

namespace lspanctl {

// Whose members a file speaks of.
struct owner_choice {
  std::optional<std::string> owner;  // --owner; without: the tool's own
  bool all = false;                  // --all-owners

  std::string name() const { return owner.value_or(tool_owner); }
  bool includes(const member_key &key) const { return all || key.owner == name(); }
};
std::vector<argument> owner_arguments(owner_choice &whose);

struct configuration {
  std::map<member_key, member> members;                // of the owners chosen
  std::vector<member> others;                          // of all others; not in a file
  std::optional<std::map<uint32_t, uint32_t>> groups;  // the group of each interface; a file may say nothing of them
};

configuration load_configuration(context &ctx, store_client &store, const owner_choice &whose);

// The configuration in the file `path`. Throws refused, with the place in the file.
configuration read_session_file(const std::string &path, const owner_choice &whose, const interfaces &ports);

}  // namespace lspanctl
