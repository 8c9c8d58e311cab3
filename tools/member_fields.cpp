#include "member_fields.h"

#include <algorithm>

#include "proc/ko_span_public.h"
#include "text.h"

namespace lspanctl {
namespace {

const member_field fields_table[] = {
    {"source", &member_fields::source, true, "INTERFACE", "Mirrored interface, by number or name (none)", "none"},
    {"target", &member_fields::target, true, "INTERFACE|group:ID", "Where the copies go (required)", "group:"},
    {"direction", &member_fields::direction, true, "DIR",
     "Mirrored direction: rx (1), tx (2), both (3) or another number (both)", "rx tx both"},
    {"acl", &member_fields::acl, true, "ID", "ACL whose matches are mirrored (0: no ACL)", ""},
    {"owner", &member_fields::owner, true, "NAME", "Owner of the record (lspanctl)", "lspanctl"},
    {"vlans", &member_fields::vlans, false, "LIST", "Mirrored VLANs, such as 10,20-29 (none)", ""},
    {"rate", &member_fields::rate, false, "N", "Sampling rate (0)", ""},
    {"learning", &member_fields::learning, false, "keep|off", "What becomes of the target's MAC learning (off)",
     "keep off"},
    {"apply_type", &member_fields::apply_type, false, "TYPE",
     "PORT, POLICY, VLAN or VLAN_FILTER (VLAN with --vlans, else POLICY with --acl, else PORT)",
     "PORT POLICY VLAN VLAN_FILTER"},
    {"role", &member_fields::role, false, "ROLE", "Role of the session (LOCALSPAN_DST)",
     "LOCALSPAN_SRC LOCALSPAN_DST RSPAN_SRC RSPAN_DST ERSPAN_SRC ERSPAN_DST"},
    {"module_type", &member_fields::module_type, false, "TYPE", "Module type (USER; GROUP with a group target)",
     "USER SFLOW IPFIX CPU OPEN_FLOW GROUP"},
};

uint32_t number_or(const std::string &text, const std::string &what, uint32_t left_out) {
  return text.empty() ? left_out : parse_number(text, what);
}

uint32_t enum_or(const ProtobufCEnumDescriptor &type, const std::string &text, uint32_t left_out) {
  return text.empty() ? left_out : parse_enum(type, text);
}

uint32_t parse_learning(const std::string &text) {
  if (text.empty() || text == "off") return 0;
  if (text == "keep") return 1;
  if (!is_number(text)) throw usage_error("learning " + printable(text) + ": give keep or off");
  return parse_number(text, "learning");
}

std::vector<uint32_t> parse_words(const std::string &text) {
  const json words = json::parse(text, nullptr, false);
  if (!words.is_array()) throw usage_error("vlan_map: give the words of a bit map as numbers");
  std::vector<uint32_t> out;
  for (const json &word : words) out.push_back(parse_number(dump(word), "vlan_map word"));
  return out;
}

uint32_t default_apply_type(const member &what) {
  if (!what.vlan_map.empty()) return U_MONITOR__MIRROR_TYPE__VLAN;
  return what.key.acl_id != 0 ? U_MONITOR__MIRROR_TYPE__POLICY : U_MONITOR__MIRROR_TYPE__PORT;
}

}  // namespace

std::string option_name(const member_field &field) {
  std::string name = std::string("--") + field.name;
  std::replace(name.begin(), name.end(), '_', '-');
  return name;
}

std::span<const member_field> member_field_table() { return fields_table; }

member_key key_from(const member_fields &fields, const interfaces &ports, bool any_number, bool *is_group) {
  member_key key;
  if (fields.session.empty()) throw usage_error("session: give its number");
  if (fields.target.empty()) throw usage_error("target: give an interface or group:ID");
  key.session = parse_number(fields.session, "session");
  key.s_ifx = fields.source.empty() ? 0 : ports.parse(fields.source, any_number);
  const std::optional<uint32_t> group = parse_group_target(fields.target);
  key.d_ifx = group ? *group : ports.parse(fields.target, any_number);
  *is_group = group.has_value();
  key.dir = parse_dir(fields.direction.empty() ? "both" : fields.direction);
  key.acl_id = number_or(fields.acl, "acl", 0);
  key.owner = fields.owner.empty() ? tool_owner : fields.owner;
  return key;
}

member member_from(const member_fields &fields, const interfaces &ports) {
  bool is_group = false;
  member what;
  what.key = key_from(fields, ports, false, &is_group);
  what.module_type = enum_or(u_monitor__mirror_module__descriptor, fields.module_type,
                             is_group ? U_MONITOR__MIRROR_MODULE__GROUP : U_MONITOR__MIRROR_MODULE__USER);
  if (what.targets_group() != is_group)
    throw usage_error("module type " + enum_text(u_monitor__mirror_module__descriptor, what.module_type) +
                      (is_group ? " has no group target; leave it out" : " needs a target group:ID"));
  if (!fields.vlan_map.empty() && !fields.vlans.empty()) throw usage_error("give either vlans or vlan_map, not both");
  what.vlan_map = fields.vlan_map.empty() ? parse_vlans(fields.vlans) : parse_words(fields.vlan_map);
  if (what.vlan_map.size() > MIRROR_VLAN_WORDS)
    throw usage_error("vlan_map: at most " + std::to_string(MIRROR_VLAN_WORDS) + " words");
  what.role = enum_or(u_monitor__mirror_role__descriptor, fields.role, what.role);
  what.apply_type = enum_or(u_monitor__mirror_type__descriptor, fields.apply_type, default_apply_type(what));
  what.mtp_switch = parse_learning(fields.learning);
  what.sample_rate = number_or(fields.rate, "rate", 0);
  return what;
}

std::string learning_text(uint32_t mtp_switch) {
  if (mtp_switch > 1) return std::to_string(mtp_switch);
  return mtp_switch == 1 ? "keep" : "off";
}

json to_json(const member &what, const interfaces &ports) {
  json object = {{"session", what.key.session},
                 {"source", ports.text(what.key.s_ifx)},
                 {"target", ports.target_text(what.key.d_ifx, what.targets_group())},
                 {"direction", dir_text(what.key.dir)},
                 {"acl", what.key.acl_id},
                 {"owner", what.key.owner}};
  if (is_vlan_list(what.vlan_map.data(), what.vlan_map.size()))
    object["vlans"] = vlans_text(what.vlan_map.data(), what.vlan_map.size());
  else
    object["vlan_map"] = what.vlan_map;
  object["rate"] = what.sample_rate;
  object["learning"] = learning_text(what.mtp_switch);
  object["apply_type"] = enum_text(u_monitor__mirror_type__descriptor, what.apply_type);
  object["role"] = enum_text(u_monitor__mirror_role__descriptor, what.role);
  object["module_type"] = enum_text(u_monitor__mirror_module__descriptor, what.module_type);
  return object;
}

}  // namespace lspanctl
