#include "member_fields.h"

#include <algorithm>
#include <cstring>

#include "errors.h"
#include "proc/ko_span_public.h"
#include "values.h"

namespace lspanctl {
namespace {

void read_session(member &what, const std::string &text, const interfaces &, bool) {
  what.key.session = parse_number(text, "session");
}

void read_source(member &what, const std::string &text, const interfaces &ports, bool any_number) {
  what.key.s_ifx = ports.parse(text, any_number);
}

void read_target(member &what, const std::string &text, const interfaces &ports, bool any_number) {
  const std::optional<uint32_t> group = parse_group_target(text);
  what.key.d_ifx = group ? *group : ports.parse(text, any_number);
  what.module_type = group ? U_MONITOR__MIRROR_MODULE__GROUP : U_MONITOR__MIRROR_MODULE__USER;
}

void read_direction(member &what, const std::string &text, const interfaces &, bool) {
  what.key.dir = parse_direction(text);
}

void read_acl(member &what, const std::string &text, const interfaces &, bool) {
  what.key.acl_id = parse_number(text, "acl");
}

void read_owner(member &what, const std::string &text, const interfaces &, bool) { what.key.owner = text; }

void read_vlans(member &what, const std::string &text, const interfaces &, bool) { what.vlan_map = parse_vlans(text); }

void read_rate(member &what, const std::string &text, const interfaces &, bool) {
  what.sample_rate = parse_number(text, "rate");
}

void read_learning(member &what, const std::string &text, const interfaces &, bool) {
  if (text != "off" && text != "keep" && !is_number(text))
    throw usage_error("learning " + printable(text) + ": give keep or off");
  what.mtp_switch = is_number(text) ? parse_number(text, "learning") : text == "keep";
}

void read_apply_type(member &what, const std::string &text, const interfaces &, bool) {
  what.apply_type = parse_enum(u_monitor__mirror_type__descriptor, text);
}

void read_role(member &what, const std::string &text, const interfaces &, bool) {
  what.role = parse_enum(u_monitor__mirror_role__descriptor, text);
}

// The target, which is read before, has left whether it is a group.
void read_module_type(member &what, const std::string &text, const interfaces &, bool) {
  const bool is_group = what.targets_group();
  what.module_type = parse_enum(u_monitor__mirror_module__descriptor, text);
  if (what.targets_group() != is_group)
    throw usage_error("module type " + enum_text(u_monitor__mirror_module__descriptor, what.module_type) +
                      (is_group ? " has no group target; leave it out" : " needs a target group:ID"));
}

// Read in this order.
const member_field fields_table[] = {
    {"session", true, "SESSION", "Number of the session", "<session>", read_session},
    {"source", true, "INTERFACE", "Mirrored interface, by number or name (none)", "<interface> none", read_source},
    {"target", true, "INTERFACE|group:ID", "Where the copies go (required)", "<target>", read_target},
    {"direction", true, "DIR", "Mirrored direction: rx (1), tx (2), both (3) or another number (both)", "rx tx both",
     read_direction},
    {"acl", true, "ID", "ACL whose matches are mirrored (0: no ACL)", "", read_acl},
    {"owner", true, "NAME", "Owner of the record (lspanctl)", "lspanctl", read_owner},
    {"vlans", false, "LIST", "Mirrored VLANs, such as 10,20-29 (none)", "", read_vlans},
    {"rate", false, "N", "Sampling rate (0)", "", read_rate},
    {"learning", false, "keep|off", "What becomes of the target's MAC learning (off)", "keep off", read_learning},
    {"apply_type", false, "TYPE",
     "PORT, POLICY, VLAN or VLAN_FILTER (VLAN with --vlans, else POLICY with --acl, else PORT)",
     "PORT POLICY VLAN VLAN_FILTER", read_apply_type},
    {"role", false, "ROLE", "Role of the session (LOCALSPAN_DST)",
     "LOCALSPAN_SRC LOCALSPAN_DST RSPAN_SRC RSPAN_DST ERSPAN_SRC ERSPAN_DST", read_role},
    {"module_type", false, "TYPE", "Module type (USER; GROUP with a group target)",
     "USER SFLOW IPFIX CPU OPEN_FLOW GROUP", read_module_type},
};
static_assert(std::size(fields_table) == n_member_fields);

constexpr size_t session_field = 0;
constexpr size_t apply_type_field = 9;

uint32_t default_apply_type(const member &what) {
  if (!what.vlan_map.empty()) return U_MONITOR__MIRROR_TYPE__VLAN;
  return what.key.acl_id != 0 ? U_MONITOR__MIRROR_TYPE__POLICY : U_MONITOR__MIRROR_TYPE__PORT;
}

member read_fields(const member_texts &texts, const interfaces &ports, bool any_number) {
  member what;
  what.key.dir = parse_direction("both");
  what.key.owner = tool_owner;
  for (size_t i = 0; i < n_member_fields; ++i)
    if (texts[i]) fields_table[i].read(what, *texts[i], ports, any_number);
  return what;
}

void need_key(const member_texts &texts) {
  if (!texts[session_field]) throw usage_error("session: give its number");
  if (!texts[session_field + 2]) throw usage_error("target: give an interface or group:ID");
}

size_t field_named(const std::string &name) {
  for (size_t i = 0; i < n_member_fields; ++i)
    if (name == fields_table[i].name) return i;
  std::string known;
  for (const member_field &field : fields_table) known += std::string(field.name) + " ";
  throw usage_error("a session member has no such key; there are " + known + "vlan_map");
}

// ---- JSON ----

std::string text_of(const json &value) {
  if (value.is_string()) return value.get<std::string>();
  if (value.is_number()) return dump(value);
  throw usage_error("give a text or a number");
}

std::vector<uint32_t> parse_words(const json &words) {
  if (!words.is_array()) throw usage_error("give the words of a bit map as numbers");
  if (words.size() > MIRROR_VLAN_WORDS) throw usage_error("at most " + std::to_string(MIRROR_VLAN_WORDS) + " words");
  std::vector<uint32_t> out;
  for (const json &word : words) out.push_back(parse_number(dump(word), "word"));
  return out;
}

}  // namespace

std::span<const member_field, n_member_fields> member_field_table() { return fields_table; }

std::vector<argument> member_arguments(member_texts &texts, bool key_only) {
  std::vector<argument> arguments;
  for (size_t i = 0; i < n_member_fields; ++i) {
    const member_field &field = fields_table[i];
    if (key_only && !field.in_key) continue;
    std::string name = i == session_field ? field.name : std::string("--") + field.name;
    std::replace(name.begin(), name.end(), '_', '-');
    arguments.push_back({name, &texts[i], field.type, field.help, field.offers, i == session_field});
  }
  return arguments;
}

std::optional<std::string> &text_in(member_texts &texts, const std::string &name) { return texts[field_named(name)]; }

member key_from(const member_texts &texts, const interfaces &ports, bool any_number) {
  need_key(texts);
  return read_fields(texts, ports, any_number);
}

member member_from(const member_texts &texts, const interfaces &ports) {
  member what = key_from(texts, ports, false);
  if (!texts[apply_type_field]) what.apply_type = default_apply_type(what);
  return what;
}

member_filter::member_filter(const member_texts &texts, const interfaces &ports)
    : texts_(texts), pattern_(read_fields(texts, ports, true)) {}

bool member_filter::given(const char *name) const { return texts_[field_named(name)].has_value(); }

bool member_filter::includes(const member &what) const {
  const auto agrees = [this](const char *name, const auto &wanted, const auto &has) {
    return !given(name) || wanted == has;
  };
  const member_key &wanted = pattern_.key;
  return wanted.session == what.key.session && wanted.owner == what.key.owner &&
         agrees("source", wanted.s_ifx, what.key.s_ifx) && agrees("target", wanted.d_ifx, what.key.d_ifx) &&
         agrees("direction", wanted.dir, what.key.dir) && agrees("acl", wanted.acl_id, what.key.acl_id);
}

std::string member_filter::text(const interfaces &ports) const {
  if (given("source") && given("target") && given("direction") && given("acl")) return to_text(pattern_, ports);
  std::string text = "session " + std::to_string(pattern_.key.session);
  if (given("source")) text += ", from " + ports.text(pattern_.key.s_ifx);
  if (given("target")) text += ", to " + ports.target_text(pattern_.key.d_ifx, pattern_.targets_group());
  if (given("direction")) text += ", " + direction_text(pattern_.key.dir);
  if (given("acl")) text += ", acl " + std::to_string(pattern_.key.acl_id);
  return text;
}

member with_contents(const member &before, const member_texts &texts, const interfaces &ports) {
  member now = before;
  for (size_t i = 0; i < n_member_fields; ++i)
    if (texts[i] && !fields_table[i].in_key) fields_table[i].read(now, *texts[i], ports, false);
  if (!texts[apply_type_field] && before.apply_type == default_apply_type(before))
    now.apply_type = default_apply_type(now);
  return now;
}

member from_json(const json &object, const std::string &owner, const interfaces &ports) {
  if (!object.is_object()) throw usage_error("give an object");
  member_texts texts;
  text_in(texts, "owner") = owner;
  std::optional<std::vector<uint32_t>> words;
  for (const auto &[name, value] : object.items()) {
    try {
      if (name == "vlan_map")
        words = parse_words(value);
      else
        texts[field_named(name)] = text_of(value);
    } catch (const usage_error &error) {
      throw usage_error(printable(name) + ": " + error.what());
    }
  }
  if (words && object.contains("vlans")) throw usage_error("give either vlans or vlan_map, not both");
  member what = member_from(texts, ports);
  if (words) what.vlan_map = *words;
  if (!texts[apply_type_field]) what.apply_type = default_apply_type(what);
  return what;
}

json to_json(const member &what, const interfaces &ports) {
  json object = {{"session", what.key.session},
                 {"source", ports.text(what.key.s_ifx)},
                 {"target", ports.target_text(what.key.d_ifx, what.targets_group())},
                 {"direction", direction_text(what.key.dir)},
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

std::string learning_text(uint32_t mtp_switch) {
  if (mtp_switch > 1) return std::to_string(mtp_switch);
  return mtp_switch == 1 ? "keep" : "off";
}

}  // namespace lspanctl
