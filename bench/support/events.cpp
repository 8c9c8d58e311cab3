#include "events.h"

#include <array>

#include "records.h"
#include "store/layout.h"
#include "u_bridge.pb-c.h"
#include "u_monitor.pb-c.h"

namespace bench {
namespace {

using ko_store::change_kind;

constexpr uint32_t config_db = 4;
constexpr uint32_t learning_db = 6;
constexpr uint32_t forwarding_db = 8;

char *owner() {
  static char name[] = "ko_lspan";
  return name;
}

record make(uint32_t db, change_kind kind, const ProtobufCMessage &message) {
  record made{{db, message.descriptor}, kind, {}, {}};
  if (kind != change_kind::publish) ko_store::append_packed(*ko_store::key_of(message), made.key);
  ko_store::append_packed(message, made.bytes);
  return made;
}

record session_member(uint32_t session, uint32_t source, uint32_t target, uint32_t vlan_words, uint32_t sample_rate) {
  std::vector<uint32_t> vlans(vlan_words, 0x55555555);
  UMonitor__MirrorIndex key = U_MONITOR__MIRROR_INDEX__INIT;
  UMonitor__MirrorLspanInfo message = U_MONITOR__MIRROR_LSPAN_INFO__INIT;
  key.t_user = owner();
  key.session_num = session;
  key.s_ifx = source;
  key.d_ifx = target;
  key.dir = 1;
  message.index = &key;
  message.role = U_MONITOR__MIRROR_ROLE__LOCALSPAN_DST;
  message.sample_rate = sample_rate;
  message.n_vlan_map = vlan_words;
  message.vlan_map = vlans.data();
  if (vlan_words > 0) message.apply_type = U_MONITOR__MIRROR_TYPE__VLAN;
  return make(config_db, change_kind::set, message.base);
}

std::array<char, 4> encoded(uint32_t n) {
  return {static_cast<char>(n | 0x80), static_cast<char>(n >> 7 | 0x80), static_cast<char>(n >> 14 | 0x80),
          static_cast<char>(n >> 21)};
}

}  // namespace

record session_record(uint32_t n) { return session_member(n, n, n, 0, 0); }

record member_record(uint32_t session, uint32_t n, uint32_t vlan_words, uint32_t sample_rate) {
  return session_member(session, n, session, vlan_words, sample_rate);
}

record membership_record(uint32_t n, uint32_t group) {
  const harness::record what = harness::membership(n, group);
  return {{what.db, what.type}, change_kind::set, what.key, what.bytes};
}

std::vector<record> derived_records(uint32_t n) {
  UMonitor__SpanSrcInfoIndex key = U_MONITOR__SPAN_SRC_INFO_INDEX__INIT;
  key.t_user = owner();
  key.session_id = key.s_phyid = key.d_phyid = n;
  key.dir = 1;
  UMonitor__SpanDstInfo dst = U_MONITOR__SPAN_DST_INFO__INIT;
  dst.index = &key;
  dst.role = U_MONITOR__MIRROR_ROLE__LOCALSPAN_DST;
  UMonitor__SpanPortSrcInfo src = U_MONITOR__SPAN_PORT_SRC_INFO__INIT;
  src.index = &key;
  src.role = U_MONITOR__MIRROR_ROLE__LOCALSPAN_DST;
  UBridge__UdpPtLearnIndex learning_key = U_BRIDGE__UDP_PT_LEARN_INDEX__INIT;
  learning_key.t_app_name = owner();
  learning_key.t_ifx = n;
  UBridge__UdpPtLearn learning = U_BRIDGE__UDP_PT_LEARN__INIT;
  learning.index = &learning_key;
  char off[] = "unfwd_notlearn";
  learning.learn = off;
  UBridge__UdpFlushdyn flush = U_BRIDGE__UDP_FLUSHDYN__INIT;
  flush.ifx = n;
  flush.flag = 4;
  UMonitor__SpanMtpInfoIndex target_key = U_MONITOR__SPAN_MTP_INFO_INDEX__INIT;
  target_key.t_user = owner();
  target_key.session_id = target_key.d_phyid = n;
  UMonitor__SpanMtpInfo target = U_MONITOR__SPAN_MTP_INFO__INIT;
  target.index = &target_key;
  target.role = U_MONITOR__MIRROR_ROLE__LOCALSPAN_DST;
  return {make(forwarding_db, change_kind::set, dst.base), make(forwarding_db, change_kind::set, src.base),
          make(learning_db, change_kind::set, learning.base), make(learning_db, change_kind::publish, flush.base),
          make(forwarding_db, change_kind::set, target.base)};
}

std::string command(std::initializer_list<std::string_view> words) {
  std::string out = "*" + std::to_string(words.size()) + "\r\n";
  for (const std::string_view word : words)
    out.append("$").append(std::to_string(word.size())).append("\r\n").append(word).append("\r\n");
  return out;
}

std::vector<std::string> commands_of(const record &what) {
  const char *name = what.hash.type->name;
  std::string announcement;
  ko_store::append_announcement({what.hash, what.kind, what.key, what.kind == change_kind::del ? "" : what.bytes},
                                announcement);
  const std::string publish = command({"PUBLISH", ko_store::channel_name(what.hash.db, name), announcement});
  if (what.kind == change_kind::publish) return {publish};
  return {
      command({"MULTI"}),
      what.kind == change_kind::set ? command({"HSET", name, what.key, what.bytes}) : command({"HDEL", name, what.key}),
      publish, command({"EXEC"})};
}

pattern::pattern(std::string bytes) : bytes_(std::move(bytes)) {
  const auto wanted = encoded(number);
  const std::string_view text(wanted.data(), wanted.size());
  for (size_t at = bytes_.find(text); at != std::string::npos; at = bytes_.find(text, at + text.size()))
    places_.push_back(at);
}

std::string_view pattern::with(uint32_t n) {
  const auto bytes = encoded(n);
  for (const size_t place : places_) bytes_.replace(place, bytes.size(), bytes.data(), bytes.size());
  return bytes_;
}

std::string session_channel() {
  return ko_store::channel_name(config_db, u_monitor__mirror_lspan_info__descriptor.name);
}

std::string mirror_target_channel() {
  return ko_store::channel_name(forwarding_db, u_monitor__span_mtp_info__descriptor.name);
}

std::string flush_channel() { return ko_store::channel_name(learning_db, u_bridge__udp_flushdyn__descriptor.name); }

}  // namespace bench
