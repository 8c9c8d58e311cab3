// Seeded random sequences of session, membership and result events over a universe so small that everything collides,
// with calls, translations and allocations failing in between. After each event the daemon's memory must be sound;
// after each in which nothing failed, it and the store must also hold what the event asked for.
//
// RANDOM_EVENTS (250000) and RANDOM_SEED (1) in the environment choose another run; a failure names both and the event.
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

#include "driver.h"
#include "p_policy.pb-c.h"
#include "proc/lspan/ko_lspan.h"
#include "proc/lspan/outgrb_hash.h"
#include "recording.h"
#include "u_bridge.pb-c.h"

namespace {

constexpr uint32_t sessions = 3, interfaces = 6, groups = 4;

uint64_t from_environment(const char *name, uint64_t otherwise) {
  const char *text = std::getenv(name);
  return text == nullptr ? otherwise : std::strtoull(text, nullptr, 10);
}

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
  std::string owner = "ko_lspan";
  key.t_app_name = owner.data();
  key.t_ifx = ifx;
  return stored(FWD_DB, "u_bridge.udp_pt_learn", key.base);
}

class Random : public testing::Test {
 protected:
  void SetUp() override { restart(); }
  void TearDown() override { driver::reset(); }

  uint32_t below(uint32_t bound) { return static_cast<uint32_t>(engine_() % bound); }
  bool one_in(uint32_t count) { return below(count) == 0; }

  // Physical ids as the platform would give them now, with the daemon's eyes: 0 for no port.
  uint32_t phyid(uint32_t ifx) const { return ifx == 0 ? 0 : phyids_[ifx]; }
  uint32_t target_phyid(const driver::member &of) const { return of.module == 5 ? of.d : phyid(of.d); }

  void restart() {
    driver::reset();
    recording::trace_on(false);
    members_.clear();
    for (uint32_t ifx = 1; ifx <= interfaces; ++ifx) phyids_[ifx] = ifx + 1000;
  }

  void step() {
    if (one_in(1000)) restart();
    if (one_in(500)) lspan_zlog_level = below(6);
    if (one_in(40)) draining_ = !one_in(3);  // sessions have to come to their end, too
    if (one_in(1500)) {
      const uint32_t ifx = 1 + below(interfaces);
      const uint32_t strange[] = {ifx + 1000, 1 + below(interfaces), driver::group_target(1 + below(groups))};
      phyids_[ifx] = strange[below(3)];
      recording::translate(ifx, phyids_[ifx]);
    }
    arm_failures();
    const uint64_t failures = recording::failure_count();
    const auto check = event();
    const bool failed = recording::failure_count() != failures;
    failed_ += failed;
    disarm_failures();
    ASSERT_EQ("", driver::broken()) << what_;
    if (!failed) check();
  }

  void arm_failures() {
    if (one_in(3)) recording::fail_any(1 + below(18), one_in(2) ? -5 : 9);
    if (one_in(4)) recording::alloc_fail_at(1 + below(4), one_in(2));
    if (one_in(40)) recording::translation_fails(1 + below(interfaces), -3);
  }

  void disarm_failures() {
    recording::fail_none();
    recording::alloc_fail_at(0, false);
    if (one_in(4))
      for (uint32_t ifx = 1; ifx <= interfaces; ++ifx) recording::translation_fails(ifx, 0);
  }

  // Sends one event; returns what must hold after it when nothing failed.
  std::function<void()> event() {
    switch (below(10)) {
      case 0:
      case 1:
      case 2:
      case 3:
      case 4:
      case 5:
        return one_in(draining_ ? 6 : 2) ? set_member(any_member()) : del_member(known_member());
      case 6:
      case 7:
        return join(1 + below(interfaces), below(groups + 1));
      case 8:
        return leave(1 + below(interfaces));
      default:
        return report();
    }
  }

  driver::member any_member() {
    driver::member what;
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
      what.d = driver::group_target(1 + below(groups));
    } else {
      what.module = below(5);
      what.d = below(interfaces + 1);
    }
    return what;
  }

  // Mostly a member that was set before, so that a delete finds something; kind and target may be others by now.
  driver::member known_member() {
    if (one_in(8) || members_.empty()) return any_member();
    std::swap(members_[below(static_cast<uint32_t>(members_.size()))], members_.back());
    driver::member what = members_.back();
    members_.pop_back();
    if (one_in(8)) what.apply = below(4);
    if (one_in(60)) {
      what.module = what.module == 5 ? 0 : 5;
      what.d = what.module == 5 ? driver::group_target(1 + below(groups)) : below(interfaces + 1);
    }
    return what;
  }

  void describe(const char *event, const driver::member &of) {
    what_ = std::string(event) + " session " + std::to_string(of.session) + ", source " + std::to_string(of.s) +
            ", target " + std::to_string(of.d);
  }

  mirror_info *session(uint32_t number) { return mirror_list_search_session_info(&lspan_global.session_list, number); }
  src_info *source(const driver::member &of) {
    mirror_info *in = session(of.session);
    return in == nullptr ? nullptr : mirror_list_search_src_info(&in->src_list, of.dir, phyid(of.s), of.acl);
  }
  dst_info *pair(const driver::member &of) {
    mirror_info *in = session(of.session);
    if (in == nullptr) return nullptr;
    return mirror_list_search_dst_info(&in->dst_list, of.dir, phyid(of.s), target_phyid(of), of.acl);
  }

  bool source_or_pair_stored(const char *type, const driver::member &of) const {
    UMonitor__SpanSrcInfoIndex key = U_MONITOR__SPAN_SRC_INFO_INDEX__INIT;
    std::string owner = "ko_lspan";
    key.t_user = owner.data();
    key.session_id = of.session;
    key.s_phyid = phyid(of.s);
    key.d_phyid = target_phyid(of);
    key.dir = of.dir;
    key.acl_id = of.acl;
    return stored(UDP_DB, type, key.base);
  }
  bool target_stored(const driver::member &of) const {
    UMonitor__SpanMtpInfoIndex key = U_MONITOR__SPAN_MTP_INFO_INDEX__INIT;
    std::string owner = "ko_lspan";
    key.t_user = owner.data();
    key.session_id = of.session;
    key.d_phyid = target_phyid(of);
    return stored(UDP_DB, "u_monitor.span_mtp_info", key.base);
  }
  static const char *source_type(const driver::member &of) {
    const char *const types[] = {"u_monitor.span_port_src_info", "u_monitor.span_acl_src_info"};
    return of.apply < 2 ? types[of.apply] : "u_monitor.span_vlan_src_info";
  }

  // The targets that the groups name.
  std::vector<const mtp_info *> named() const {
    std::vector<const mtp_info *> targets;
    for (uint32_t group_id = 1; group_id <= groups; ++group_id) {
      const outgrb_group_info *group = outgrb_group_hash_get(&group_id);
      targets.push_back(group == nullptr ? nullptr : group->mtp_info);
    }
    return targets;
  }

  std::function<void()> set_member(const driver::member &what) {
    describe("set", what);
    const auto named_before = named();
    const int32_t status = driver::set_member(what);
    if (status == 0) members_.push_back(what);
    return [=, this] {
      EXPECT_EQ(what.vlan.size() > 128 ? -4 : 0, status) << what_;
      if (status != 0) return;
      EXPECT_TRUE(source_or_pair_stored(source_type(what), what) && target_stored(what)) << what_;
      EXPECT_TRUE(source_or_pair_stored("u_monitor.span_dst_info", what)) << what_;
      ASSERT_TRUE(source(what) != nullptr && pair(what) != nullptr) << what_;
      const auto *target = mirror_list_search_mtp_info(&session(what.session)->mtp_list, what.session);
      ASSERT_NE(nullptr, target) << what_;
      EXPECT_TRUE(target->d_phyid == target_phyid(what) && target->module_type == what.module) << what_;
      EXPECT_EQ(what.mtp_switch, target->mtp_switch) << what_;
      if (what.module != 5) {
        EXPECT_EQ(what.mtp_switch == 0, learning_is_off(what.d)) << what_;
        EXPECT_EQ(named_before, named()) << what_;
        return;
      }
      const uint32_t group_id = driver::group_target(what.d);
      const outgrb_group_info *group = outgrb_group_hash_get(&group_id);
      if (group == nullptr) return;
      EXPECT_EQ(target, group->mtp_info) << what_;
      for (const mirror_link *at = group->mbr_list.next; at != &group->mbr_list; at = at->next)
        EXPECT_EQ(what.mtp_switch == 0, learning_is_off(reinterpret_cast<const outgrb_mbr_node *>(at)->ifx)) << what_;
    };
  }

  std::function<void()> del_member(const driver::member &what) {
    describe("delete", what);
    const bool known = session(what.session) != nullptr;
    const bool had_source = known && source(what) != nullptr;
    const int32_t status = driver::del_member(what);
    if (status != 0 && known) members_.push_back(what);
    ended_ += known && session(what.session) == nullptr;
    return [=, this] {
      EXPECT_EQ(known ? 0 : -2, status) << what_;
      if (!known) return;
      if (had_source) {
        EXPECT_FALSE(source_or_pair_stored(source_type(what), what)) << what_;
      }
      EXPECT_FALSE(source_or_pair_stored("u_monitor.span_dst_info", what)) << what_;
      EXPECT_TRUE(source(what) == nullptr && pair(what) == nullptr) << what_;
      if (session(what.session) != nullptr) return;
      EXPECT_FALSE(target_stored(what)) << what_;
      if (what.module != 5) {
        EXPECT_FALSE(learning_is_off(what.d)) << what_;
      }
    };
  }

  // The first mirror target in list order that targets the group.
  const mtp_info *first_target_of(uint32_t group_id) {
    for (mirror_link *at = lspan_global.session_list.next; at != &lspan_global.session_list; at = at->next) {
      const auto &targets = reinterpret_cast<mirror_info *>(at)->mtp_list;
      const auto *target = reinterpret_cast<const mtp_info *>(targets.next);
      if (targets.next != &targets && target->module_type == 5 && target->d_phyid == driver::group_target(group_id))
        return target;
    }
    return nullptr;
  }
  bool is_port_target(uint32_t ifx) {
    for (mirror_link *at = lspan_global.session_list.next; at != &lspan_global.session_list; at = at->next) {
      const auto &targets = reinterpret_cast<mirror_info *>(at)->mtp_list;
      const auto *target = reinterpret_cast<const mtp_info *>(targets.next);
      if (targets.next != &targets && target->module_type != 5 && target->d_ifx == ifx) return true;
    }
    return false;
  }

  std::function<void()> join(uint32_t ifx, uint32_t group_id) {
    what_ = "interface " + std::to_string(ifx) + " to group " + std::to_string(group_id);
    const outgrb_group_info *before = outgrb_group_hash_get(&group_id);
    const mtp_info *named = before == nullptr ? nullptr : before->mtp_info;
    const int32_t status = driver::join(ifx, group_id);
    return [=, this] {
      EXPECT_EQ(0, status) << what_;
      if (group_id == 0) return;
      const outgrb_group_info *group = outgrb_group_hash_get(&group_id);
      ASSERT_NE(nullptr, group) << what_;
      const mtp_info *found = first_target_of(group_id);
      EXPECT_EQ(found != nullptr ? found : named, group->mtp_info) << what_;
      if (group->mtp_info != nullptr && !is_port_target(ifx)) {
        EXPECT_EQ(group->mtp_info->mtp_switch == 0, learning_is_off(ifx)) << what_;
      }
    };
  }

  std::function<void()> leave(uint32_t ifx) {
    what_ = "interface " + std::to_string(ifx) + " leaves";
    const outgrb_mbr_info *member = outgrb_mbr_hash_get(&ifx);
    const outgrb_group_info *group = member == nullptr ? nullptr : outgrb_group_hash_get(&member->group_id);
    const bool switched = group != nullptr && group->mtp_info != nullptr && !is_port_target(ifx);
    const bool was_off = learning_is_off(ifx);
    const int32_t status = driver::leave(ifx, below(groups + 1));
    return [=, this] {
      EXPECT_EQ(0, status) << what_;
      EXPECT_EQ(was_off && !switched, learning_is_off(ifx)) << what_;
    };
  }

  std::function<void()> report() {
    const driver::member of = any_member();
    driver::result what;
    if (one_in(8)) what.user = "ko_lspan";
    what.session = of.session;
    what.s = of.s;
    what.d = of.d;
    what.dir = of.dir;
    what.acl = of.acl;
    what.code = below(3);
    what.msg_type = below(3);
    const bool known = source(of) != nullptr;
    const bool heard = what.msg_type < 2 && what.user == driver::result().user;
    const int32_t status = driver::report(what);
    return [=, this] {
      EXPECT_EQ(0, status) << what_;
      UMonitor__MirrorIndex key = U_MONITOR__MIRROR_INDEX__INIT;
      std::string owner = "ko_lspan";
      key.t_user = owner.data();
      key.session_num = what.session;
      key.s_ifx = what.s;
      key.d_ifx = what.d;
      key.dir = what.dir;
      key.acl_id = what.acl;
      if (known && heard) {
        EXPECT_TRUE(stored(CONF_DB, "u_monitor.mirror_result_info", key.base)) << what_;
      }
    };
  }

  std::mt19937_64 engine_{from_environment("RANDOM_SEED", 1)};
  uint32_t phyids_[interfaces + 1] = {};
  std::string what_;                     // the last event, for messages
  bool draining_ = false;                // more members go than come
  std::vector<driver::member> members_;  // set and not deleted
  uint64_t failed_ = 0;                  // events in which something failed
  uint64_t ended_ = 0;                   // sessions that came to their end
};

TEST_F(Random, EventsAndFailures) {
  const uint64_t events = from_environment("RANDOM_EVENTS", 250000);
  for (uint64_t i = 1; i <= events; ++i) {
    step();
    ASSERT_FALSE(HasFailure()) << "event " << i << " of seed " << from_environment("RANDOM_SEED", 1);
  }
  std::cout << events << " events, something failed in " << failed_ << "; " << ended_ << " sessions ended\n";
  if (events < 50000) return;
  EXPECT_TRUE(failed_ > events / 20 && failed_ < events / 2 && ended_ > events / 50) << "no mixture";
}

}  // namespace
