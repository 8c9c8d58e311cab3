// The configuration as a file: what session export writes and session apply reads.
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

using member_map = std::map<member_key, member>;

// The stored members of those owners; `others` counts the rest.
member_map load_members_of(context &ctx, store_client &store, const owner_choice &whose, size_t &others);

// The members in the file `path`. Throws refused, with the place in the file.
member_map read_session_file(const std::string &path, const owner_choice &whose, const interfaces &ports);

}  // namespace lspanctl
