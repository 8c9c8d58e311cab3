// A session member as people write it: each field is an option of the command line and a JSON key in a session file.
#pragma once

#include <array>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "command.h"
#include "member.h"

namespace lspanctl {

struct member_field {
  const char *name;  // the JSON key; on the command line with dashes
  bool in_key;       // needed to name a member; the others belong to its contents
  const char *type;  // shown in the help
  const char *help;
  const char *offers;  // see argument
  // Sets the field of a member. Throws usage_error for a text that is malformed, and refused for an interface that is
  // unknown; with `any_number` interfaces that the platform file does not have are taken by number.
  void (*read)(member &what, const std::string &text, const interfaces &ports, bool any_number);
};

inline constexpr size_t n_member_fields = 12;
std::span<const member_field, n_member_fields> member_field_table();

// The texts given for one member, by the place of the field in the table.
using member_texts = std::array<std::optional<std::string>, n_member_fields>;

// The arguments of a command that names a member: the session by its place, options for the rest.
std::vector<argument> member_arguments(member_texts &texts, bool key_only);

// The text of a field, which commands may fill in themselves; `name` is that of the table.
std::optional<std::string> &text_in(member_texts &texts, const std::string &name);

// The member's key, for a command that needs no more. Throw as member_field::read.
member key_from(const member_texts &texts, const interfaces &ports, bool any_number);
member member_from(const member_texts &texts, const interfaces &ports);

// The members of a session that the key fields given speak of: a source, direction or ACL that is left out may be any,
// the owner is the tool. Throw as member_field::read; interfaces that the platform file does not have are taken.
class member_filter {
 public:
  member_filter(const member_texts &texts, const interfaces &ports);
  bool includes(const member &what) const;
  std::string owner() const { return pattern_.key.owner; }
  // "session 3", with what else was given.
  std::string text(const interfaces &ports) const;

 private:
  bool given(const char *name) const;

  member_texts texts_;
  member pattern_;
};

// The member with the contents that were given in place of its own. A kind that follows from its contents follows from
// the new ones.
member with_contents(const member &before, const member_texts &texts, const interfaces &ports);

// The member that a JSON object describes, in the form of to_json. `owner` is used where it names none. Throws
// usage_error and refused.
member from_json(const json &object, const std::string &owner, const interfaces &ports);
// Its text can be read back without loss.
json to_json(const member &what, const interfaces &ports);

std::string learning_text(uint32_t mtp_switch);

}  // namespace lspanctl
