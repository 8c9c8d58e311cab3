#include "records.h"

#include "p_policy.pb-c.h"
#include "store/layout.h"
#include "store/record_text.h"

namespace harness {
namespace {

constexpr uint32_t conf_db = 4;
constexpr uint32_t udp_db = 8;

record result_of(const member &of, const char *user, uint32_t db, uint32_t value, uint32_t msg_type) {
  UMonitor__MirrorIndex index = index_of(of, user);
  UMonitor__MirrorResultInfo message = U_MONITOR__MIRROR_RESULT_INFO__INIT;
  message.index = &index;
  message.result = value;
  message.msg_type = msg_type;
  return any(db, message.base);
}

}  // namespace

ko_store::change record::change(ko_store::change_kind kind) const {
  const bool bare = kind == ko_store::change_kind::del;
  return {{db, type}, kind, key, bare ? std::string_view() : std::string_view(bytes)};
}

std::string record::line() const {
  return std::to_string(db) + " " + type->name + " " + ko_store::hex_digits(key) + " " + ko_store::hex_digits(bytes);
}

record any(uint32_t db, const ProtobufCMessage &message) {
  record out{db, message.descriptor, {}, {}};
  if (const ProtobufCMessage *key = ko_store::key_of(message)) ko_store::append_packed(*key, out.key);
  ko_store::append_packed(message, out.bytes);
  return out;
}

UMonitor__MirrorIndex index_of(const member &of, const char *user) {
  UMonitor__MirrorIndex index = U_MONITOR__MIRROR_INDEX__INIT;
  index.t_user = const_cast<char *>(user);
  index.session_num = of.session;
  index.s_ifx = of.s_ifx;
  index.d_ifx = of.d_ifx;
  index.dir = of.dir;
  index.acl_id = of.acl;
  return index;
}

UMonitor__MirrorLspanInfo message_of(const member &of, UMonitor__MirrorIndex &index) {
  UMonitor__MirrorLspanInfo message = U_MONITOR__MIRROR_LSPAN_INFO__INIT;
  message.index = &index;
  message.module_type = static_cast<UMonitor__MirrorModule>(of.module);
  message.role = static_cast<UMonitor__MirrorRole>(of.role);
  message.apply_type = static_cast<UMonitor__MirrorType>(of.apply);
  message.mtp_switch = of.mtp_switch;
  message.sample_rate = of.sample;
  message.n_vlan_map = of.vlans.size();
  message.vlan_map = const_cast<uint32_t *>(of.vlans.data());
  return message;
}

record session(const member &of, const char *user) {
  UMonitor__MirrorIndex index = index_of(of, user);
  return any(conf_db, message_of(of, index).base);
}

record membership(uint32_t ifx, uint32_t group) {
  PIntf__Intfindex index = P_INTF__INTFINDEX__INIT;
  PPolicy__DataIntfConf message = P_POLICY__DATA_INTF_CONF__INIT;
  index.index = ifx;
  message.index = &index;
  message.group_id = group;
  return any(conf_db, message.base);
}

record result(const member &of, uint32_t value, uint32_t msg_type) {
  return result_of(of, "du_span", udp_db, value, msg_type);
}

record relayed(const member &of, uint32_t value, uint32_t msg_type) {
  return result_of(of, "ko_lspan", conf_db, value, msg_type);
}

}  // namespace harness
