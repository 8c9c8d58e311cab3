// A session member as people write it: the options of the command line and the members of a session file, both texts.
#pragma once

#include <span>
#include <string>

#include "member.h"

namespace lspanctl {

// Empty: left out.
struct member_fields {
  std::string session, source, target, direction, acl, vlans, vlan_map, rate, learning, apply_type, role, module_type,
      owner;
};

struct member_field {
  const char *name;  // in a file; on the command line with dashes
  std::string member_fields::*text;
  bool in_key;       // needed to name a member; the others belong to its contents
  const char *type;  // shown in the help
  const char *help;
  const char *values;  // that completion offers, separated by blanks
};

// "--apply-type"
std::string option_name(const member_field &field);

// All but `vlan_map`, which only files have.
std::span<const member_field> member_field_table();

// Throw usage_error for a text that is malformed and refused for an interface that is unknown. With `any_number`
// interfaces that the platform file does not have are taken by number.
member_key key_from(const member_fields &fields, const interfaces &ports, bool any_number, bool *is_group);
member member_from(const member_fields &fields, const interfaces &ports);

// The member in the form of a session file. What it holds can be read back without loss.
json to_json(const member &what, const interfaces &ports);

std::string learning_text(uint32_t mtp_switch);

}  // namespace lspanctl
