#include "random_events.h"

#include <array>
#include <cstdio>

#include "p_policy.pb-c.h"
#include "proc/lspan/ko_lspan.h"
#include "proc/lspan/outgrb_hash.h"
#include "recording.h"
#include "u_bridge.pb-c.h"

namespace driver {
namespace {

// Whether the store holds a record of this type with this key.
bool stored(uint32_t db_id, const char *type, const ProtobufCMessage &key) {
  const auto db = recording::store().find(db_id);
  if (db == recording::store().end()) return false;
  const auto hash = db->second.find(type);
  if (hash == db->second.end()) return false;
  std::string packed(protobuf_c_message_get_packed_size(&key), '\0');
  protobuf_c_message_pack(&key, reinterpret_cast<uint8_t *>(packed.data()));
  return hash->second.contains(packed);
}

bool learning_is_off(uint32_t ifx) {
  UBridge__UdpPtLearnIndex key = U_BRIDGE__UDP_PT_LEARN_INDEX__INIT;
  key.t_app_name = const_cast<char *>(ko_lspan_app_name);
  key.t_ifx = ifx;
  return stored(FWD_DB, "u_bridge.udp_pt_learn", key.base);
}
mirror_info *session(uint32_t number) { return mirror_list_search_session_info(&lspan_global.session_list, number); }

const char *source_type(const member &of) {
  const char *const types[] = {"u_monitor.span_port_src_info", "u_monitor.span_acl_src_info"};
  return of.apply < 2 ? types[of.apply] : "u_monitor.span_vlan_src_info";
}

// The first mirror target in list order that `test` accepts.
template <typename Test>
const mtp_info *first_target(Test test) {
  for (mirror_link *at = lspan_global.session_list.next; at != &lspan_global.session_list; at = at->next) {
    const auto &targets = reinterpret_cast<mirror_info *>(at)->mtp_list;
    const auto *target = reinterpret_cast<const mtp_info *>(targets.next);
    if (targets.next != &targets && test(*target)) return target;
  }
  return nullptr;
}

const mtp_info *first_target_of(uint32_t group_id) {
  return first_target([=](const mtp_info &at) { return at.module_type == 5 && at.d_phyid == group_target(group_id); });
}

bool is_port_target(uint32_t ifx) {
  return first_target([=](const mtp_info &at) { return at.module_type != 5 && at.d_ifx == ifx; }) != nullptr;
}

}  // namespace

// Physical ids as the platform would give them now, with the daemon's eyes: 0 for no port.
uint32_t random_events::phyid(uint32_t ifx) const { return ifx == 0 ? 0 : phyids_[ifx]; }

uint32_t random_events::target_phyid(const member &of) const { return of.module == 5 ? of.d : phyid(of.d); }

void random_events::restart() {
  reset();
  recording::trace_on(false);
  members_.clear();
  for (uint32_t ifx = 1; ifx <= interfaces; ++ifx) phyids_[ifx] = ifx + 1000;
}

std::string random_events::step() {
  if (one_in(1000)) restart();
  if (one_in(500)) {
    lspan_zlog_level = below(6);
    lspan_global.zlog_category = one_in(4) ? nullptr : recording::category("ko_lspan");
  }
  if (one_in(40)) draining_ = !one_in(3);  // sessions have to come to their end, too
  if (one_in(1500)) {
    const uint32_t ifx = 1 + below(interfaces);
    const uint32_t strange[] = {ifx + 1000, 1 + below(interfaces), group_target(1 + below(groups))};
    phyids_[ifx] = strange[below(3)];
    recording::translate(ifx, phyids_[ifx]);
  }
  arm_failures();
  const uint64_t failures = recording::failure_count();
  const check holds = event();
  const bool failed = recording::failure_count() != failures;
  failed_ += failed;
  disarm_failures();
  wrong_.clear();
  const std::string why = broken();
  if (expect(why.empty(), why.c_str()) && !failed) holds();
  return wrong_;
}

void random_events::describe(const char *format, uint32_t a, uint32_t b, uint32_t c) {
  format_ = format;
  numbers_[0] = a, numbers_[1] = b, numbers_[2] = c;
}

bool random_events::expect(bool holds, const char *what) {
  if (holds || !wrong_.empty()) return holds;
  char text[100];
  std::snprintf(text, sizeof(text), format_, numbers_[0], numbers_[1], numbers_[2]);
  wrong_ = std::string(text) + ": " + what;
  return false;
}

void random_events::arm_failures() {
  if (one_in(3)) recording::fail_any(1 + below(18), one_in(2) ? -5 : 9);
  if (one_in(4)) recording::alloc_fail_at(1 + below(4), one_in(2));
  if (one_in(40)) recording::translation_fails(1 + below(interfaces), -3);
}

void random_events::disarm_failures() {
  recording::fail_none();
  recording::alloc_fail_at(0, false);
  if (one_in(4))
    for (uint32_t ifx = 1; ifx <= interfaces; ++ifx) recording::translation_fails(ifx, 0);
}

// Sends one event; returns what must hold after it when nothing failed.
random_events::check random_events::event() {
  switch (below(10)) {
    case 0:
    case 1:
    case 2:
    case 3:
    case 4:
    case 5:
      return one_in(draining_ ? 6 : 2) ? set_event(any_member()) : del_event(known_member());
    case 6:
    case 7:
      return join_event(1 + below(interfaces), below(groups + 1));
    case 8:
      return leave_event(1 + below(interfaces));
    default:
      return report_event();
  }
}

member random_events::any_member() {
  member what;
  what.session = 1 + below(sessions);
  what.s = below(3);
  what.dir = one_in(8);
  what.acl = one_in(8);
  what.role = below(6);
  what.apply = below(4);
  what.mtp_switch = below(2);
  what.vlan.assign(one_in(100) ? 129 : below(4), 7);
  if (one_in(2)) {
    what.module = 5;
    what.d = group_target(1 + below(groups));
  } else {
    what.module = below(5);
    what.d = below(interfaces + 1);
  }
  return what;
}

// Mostly a member that was set before, so that a delete finds something; kind and target may be others by now.
member random_events::known_member() {
  if (one_in(8) || members_.empty()) return any_member();
  std::swap(members_[below(static_cast<uint32_t>(members_.size()))], members_.back());
  member what = members_.back();
  members_.pop_back();
  if (one_in(8)) what.apply = below(4);
  if (one_in(60)) {
    what.module = what.module == 5 ? 0 : 5;
    what.d = what.module == 5 ? group_target(1 + below(groups)) : below(interfaces + 1);
  }
  return what;
}

src_info *random_events::source(const member &of) const {
  mirror_info *in = session(of.session);
  return in == nullptr ? nullptr : mirror_list_search_src_info(&in->src_list, of.dir, phyid(of.s), of.acl);
}
dst_info *random_events::pair(const member &of) const {
  mirror_info *in = session(of.session);
  if (in == nullptr) return nullptr;
  return mirror_list_search_dst_info(&in->dst_list, of.dir, phyid(of.s), target_phyid(of), of.acl);
}

bool random_events::source_or_pair_stored(const char *type, const member &of) const {
  UMonitor__SpanSrcInfoIndex key = U_MONITOR__SPAN_SRC_INFO_INDEX__INIT;
  key.t_user = const_cast<char *>(ko_lspan_app_name);
  key.session_id = of.session;
  key.s_phyid = phyid(of.s);
  key.d_phyid = target_phyid(of);
  key.dir = of.dir;
  key.acl_id = of.acl;
  return stored(UDP_DB, type, key.base);
}
bool random_events::target_stored(const member &of) const {
  UMonitor__SpanMtpInfoIndex key = U_MONITOR__SPAN_MTP_INFO_INDEX__INIT;
  key.t_user = const_cast<char *>(ko_lspan_app_name);
  key.session_id = of.session;
  key.d_phyid = target_phyid(of);
  return stored(UDP_DB, "u_monitor.span_mtp_info", key.base);
}
// The targets that the groups name.
random_events::named_targets random_events::named() {
  named_targets targets = {};
  for (uint32_t group_id = 1; group_id <= groups; ++group_id)
    if (const outgrb_group_info *group = outgrb_group_hash_get(&group_id)) targets[group_id - 1] = group->mtp_info;
  return targets;
}

random_events::check random_events::set_event(const member &what) {
  describe("set of session %u, source %u, target %u", what.session, what.s, what.d);
  const named_targets named_before = named();
  const int32_t status = set_member(what);
  if (status == 0) members_.push_back(what);
  return [=, this] {
    expect(status == (what.vlan.size() > 128 ? -4 : 0), "status");
    if (status != 0) return;
    expect(source_or_pair_stored(source_type(what), what), "source not stored");
    expect(source_or_pair_stored("u_monitor.span_dst_info", what), "destination not stored");
    expect(target_stored(what), "mirror target not stored");
    if (!expect(source(what) != nullptr && pair(what) != nullptr, "source or pair not in the list")) return;
    const mtp_info *target = mirror_list_search_mtp_info(&session(what.session)->mtp_list, what.session);
    if (!expect(target != nullptr, "mirror target not in the list")) return;
    expect(target->d_phyid == target_phyid(what) && target->module_type == what.module, "another mirror target");
    expect(target->mtp_switch == what.mtp_switch, "switch of the mirror target");
    if (what.module != 5) {
      expect(learning_is_off(what.d) == (what.mtp_switch == 0), "learning on the target");
      expect(named() == named_before, "targets that groups name");
      return;
    }
    const uint32_t group_id = group_target(what.d);
    const outgrb_group_info *group = outgrb_group_hash_get(&group_id);
    if (group == nullptr) return;
    expect(group->mtp_info == target, "the group names another target");
    for (const mirror_link *at = group->mbr_list.next; at != &group->mbr_list; at = at->next)
      expect(learning_is_off(reinterpret_cast<const outgrb_mbr_node *>(at)->ifx) == (what.mtp_switch == 0),
             "learning on a group's member");
  };
}

random_events::check random_events::del_event(const member &what) {
  describe("delete of session %u, source %u, target %u", what.session, what.s, what.d);
  const bool known = session(what.session) != nullptr;
  const bool had_source = known && source(what) != nullptr;
  const int32_t status = del_member(what);
  if (status != 0 && known) members_.push_back(what);
  ended_ += known && session(what.session) == nullptr;
  return [=, this] {
    expect(status == (known ? 0 : -2), "status");
    if (!known) return;
    expect(!had_source || !source_or_pair_stored(source_type(what), what), "source still stored");
    expect(!source_or_pair_stored("u_monitor.span_dst_info", what), "destination still stored");
    expect(source(what) == nullptr && pair(what) == nullptr, "source or pair still in the list");
    if (session(what.session) != nullptr) return;
    expect(!target_stored(what), "mirror target still stored");
    expect(what.module == 5 || !learning_is_off(what.d), "learning still off");
  };
}

random_events::check random_events::join_event(uint32_t ifx, uint32_t group_id) {
  describe("interface %u to group %u", ifx, group_id);
  const outgrb_group_info *before = outgrb_group_hash_get(&group_id);
  const mtp_info *named = before == nullptr ? nullptr : before->mtp_info;
  const int32_t status = join(ifx, group_id);
  return [=, this] {
    expect(status == 0, "status");
    if (group_id == 0) return;
    const outgrb_group_info *group = outgrb_group_hash_get(&group_id);
    if (!expect(group != nullptr, "no group")) return;
    const mtp_info *found = first_target_of(group_id);
    expect(group->mtp_info == (found != nullptr ? found : named), "the group names another target");
    if (group->mtp_info != nullptr && !is_port_target(ifx))
      expect(learning_is_off(ifx) == (group->mtp_info->mtp_switch == 0), "learning");
  };
}

random_events::check random_events::leave_event(uint32_t ifx) {
  describe("interface %u leaves", ifx);
  const outgrb_mbr_info *member = outgrb_mbr_hash_get(&ifx);
  const outgrb_group_info *group = member == nullptr ? nullptr : outgrb_group_hash_get(&member->group_id);
  const bool switched = group != nullptr && group->mtp_info != nullptr && !is_port_target(ifx);
  const bool was_off = learning_is_off(ifx);
  const int32_t status = leave(ifx, below(groups + 1));
  return [=, this] {
    expect(status == 0, "status");
    expect(learning_is_off(ifx) == (was_off && !switched), "learning");
  };
}

random_events::check random_events::report_event() {
  const member of = any_member();
  result what;
  if (one_in(8)) what.user = ko_lspan_app_name;
  what.session = of.session;
  what.s = of.s;
  what.d = of.d;
  what.dir = of.dir;
  what.acl = of.acl;
  what.code = below(3);
  what.msg_type = below(3);
  describe("result of session %u, source %u, target %u", what.session, what.s, what.d);
  const bool known = source(of) != nullptr;
  const bool heard = what.msg_type < 2 && what.user == result().user;
  const int32_t status = report(what);
  return [=, this] {
    expect(status == 0, "status");
    UMonitor__MirrorIndex key = U_MONITOR__MIRROR_INDEX__INIT;
    key.t_user = const_cast<char *>(ko_lspan_app_name);
    key.session_num = what.session;
    key.s_ifx = what.s;
    key.d_ifx = what.d;
    key.dir = what.dir;
    key.acl_id = what.acl;
    expect(!known || !heard || stored(CONF_DB, "u_monitor.mirror_result_info", key.base), "not relayed");
  };
}

}  // namespace driver
