// Random events on a real store, and a model that says what must be in it: after every thousandth event the two are
// compared byte for byte, now and then with a lost connection before that. The daemon comes over TCP. No two sessions
// share a target, so that what is configured says what is wanted.
//
// SOAK_EVENTS (20000) and SOAK_SEED (1) in the environment choose another run. From a million events on the daemon's
// resident memory must stay where it is.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <map>
#include <numeric>
#include <random>
#include <set>
#include <sstream>

#include "sandbox.h"
#include "u_bridge.pb-c.h"
#include "u_monitor.pb-c.h"

namespace {

using namespace harness;
using lines = std::vector<std::string>;

constexpr uint32_t batch = 1000, sessions = 40, ports = 12, interfaces = 60, first_interface = 2000;
constexpr uint32_t fwd_db = 6, udp_db = 8;

uint64_t from_environment(const char *name, uint64_t otherwise) {
  const char *text = std::getenv(name);
  return text == nullptr ? otherwise : std::strtoull(text, nullptr, 10);
}

// What is configured, and what the forwarding side has said of it.
class model {
 public:
  void set(const member &what) {
    members_[key(what)] = what;
    last_[what.session] = what;
  }
  void del(const member &what) {
    if (members_.erase(key(what)) == 0) return;
    erase_result(as_peer(what));
    const auto next = members_.lower_bound({what.session, 0, 0, 0});
    if (next == members_.end() || next->second.session != what.session) last_.erase(what.session);
  }
  void join(uint32_t ifx, uint32_t group) { group_of_[ifx] = group; }
  void leave(uint32_t ifx) { group_of_.erase(ifx); }
  void report(const member &of, uint32_t value, uint32_t msg_type) {
    const member peer = as_peer(of);
    const bool known = members_.contains(key(of));
    if (known || msg_type > 1) results_.insert_or_assign(session(peer).key, result(peer, value, msg_type));
    if (known && msg_type <= 1) relayed_.insert_or_assign(session(peer).key, relayed(peer, value, msg_type));
    if (!known && msg_type <= 1) erase_result(peer);
  }
  // Whether the daemon's delete of the member's result may still be on its way: it would hit the next one.
  bool doubtful(const member &of) const { return erased_.contains(session(as_peer(of)).key); }
  void settled() { erased_.clear(); }
  const std::map<std::array<uint32_t, 4>, member> &members() const { return members_; }

  lines wanted() const {
    lines out;
    const auto put = [&](uint32_t db, const auto &message) { out.push_back(any(db, message.base).line()); };
    for (const auto &[at, wanted_member] : members_) {
      const member &what = wanted_member;  // which lambdas may use
      out.push_back(session(what).line());
      UMonitor__SpanSrcInfoIndex index = U_MONITOR__SPAN_SRC_INFO_INDEX__INIT;
      index.t_user = owner;
      index.session_id = what.session, index.s_phyid = what.s_ifx, index.d_phyid = what.d_ifx;
      index.dir = what.dir, index.acl_id = what.acl;
      UMonitor__SpanDstInfo dst = U_MONITOR__SPAN_DST_INFO__INIT;
      dst.index = &index;
      dst.module_type = what.module, dst.role = what.role;
      dst.apply_type = what.apply, dst.sample_rate = what.sample;
      put(udp_db, dst);
      const auto put_source = [&](auto src) {
        src.index = &index;
        src.module_type = static_cast<decltype(src.module_type)>(what.module);
        src.role = static_cast<decltype(src.role)>(what.role);
        put(udp_db, src);
      };
      UMonitor__SpanPortSrcInfo port = U_MONITOR__SPAN_PORT_SRC_INFO__INIT;
      UMonitor__SpanAclSrcInfo acl = U_MONITOR__SPAN_ACL_SRC_INFO__INIT;
      UMonitor__SpanVlanSrcInfo vlan = U_MONITOR__SPAN_VLAN_SRC_INFO__INIT;
      vlan.n_vlan_map = what.vlans.size(), vlan.vlan_map = const_cast<uint32_t *>(what.vlans.data());
      if (what.apply == U_MONITOR__MIRROR_TYPE__PORT)
        put_source(port);
      else if (what.apply == U_MONITOR__MIRROR_TYPE__POLICY)
        put_source(acl);
      else
        put_source(vlan);
    }
    const auto learns_not = [&](uint32_t ifx) {
      UBridge__UdpPtLearnIndex index = U_BRIDGE__UDP_PT_LEARN_INDEX__INIT;
      UBridge__UdpPtLearn learning = U_BRIDGE__UDP_PT_LEARN__INIT;
      std::string mode = "unfwd_notlearn";
      index.t_app_name = owner, index.t_ifx = ifx;
      learning.index = &index, learning.learn = mode.data();
      put(fwd_db, learning);
    };
    for (const auto &[number, last] : last_) {
      UMonitor__SpanMtpInfoIndex index = U_MONITOR__SPAN_MTP_INFO_INDEX__INIT;
      UMonitor__SpanMtpInfo target = U_MONITOR__SPAN_MTP_INFO__INIT;
      index.t_user = owner, index.session_id = number, index.d_phyid = last.d_ifx;
      target.index = &index;
      target.module_type = last.module, target.role = last.role, target.mtp_switch = last.mtp_switch;
      put(udp_db, target);
      if (last.mtp_switch == 0 && last.module != U_MONITOR__MIRROR_MODULE__GROUP) learns_not(last.d_ifx);
    }
    for (const auto &[ifx, group] : group_of_) {
      out.push_back(membership(ifx, group).line());
      const auto of = last_.find(group);  // the session that may target it has its number
      if (of != last_.end() && of->second.d_ifx == group_target(group) && of->second.mtp_switch == 0) learns_not(ifx);
    }
    for (const auto *records : {&results_, &relayed_})
      for (const auto &[at, what] : *records) out.push_back(what.line());
    std::sort(out.begin(), out.end());
    return out;
  }

  // The forwarding side names a group by its bare id.
  static member as_peer(member of) {
    if (of.module == U_MONITOR__MIRROR_MODULE__GROUP) of.d_ifx = of.session;
    return of;
  }

 private:
  static std::array<uint32_t, 4> key(const member &of) { return {of.session, of.s_ifx, of.dir, of.acl}; }

  void erase_result(const member &peer) {
    results_.erase(session(peer).key);
    erased_.insert(session(peer).key);
  }

  static inline char owner[] = "ko_lspan";
  std::map<std::array<uint32_t, 4>, member> members_;
  std::map<uint32_t, member> last_;  // of each session, the member set last: the target's record follows it
  std::map<uint32_t, uint32_t> group_of_;
  std::map<std::string, record> results_, relayed_;
  std::set<std::string> erased_;
};

class Soak : public testing::Test {
 protected:
  uint32_t below(uint32_t bound) { return static_cast<uint32_t>(random_() % bound); }

  // The number of a session says what it is applied to and where it goes.
  member any_member() {
    const uint32_t number = 1 + below(sessions), apply = number % 5;
    member what{.session = number, .s_ifx = below(ports), .d_ifx = 1000 + number, .dir = 1 + below(2)};
    what.apply = apply < 4 ? apply : 0;
    if (apply == 1) what.acl = 1 + below(3);
    if (apply == 2 || apply == 3) what.vlans.assign(below(129), below(1000));
    if (apply == 4) what.module = U_MONITOR__MIRROR_MODULE__GROUP, what.d_ifx = group_target(number);
    what.mtp_switch = below(3) == 0, what.role = below(6), what.sample = below(5) * 100;
    return what;
  }

  member known_member() {
    if (wanted_.members().empty()) return any_member();
    const auto &members = wanted_.members();
    return std::next(members.begin(), below(static_cast<uint32_t>(members.size())))->second;
  }

  void event(producer &others) {
    const uint32_t ifx = first_interface + below(interfaces);
    if (below(500) == 0) sets_ = 3 + below(6);  // sessions have to come to their end, too
    const uint32_t kind = below(20);
    if (kind < sets_) {
      const member what = any_member();
      others.set(session(what)), wanted_.set(what);
    } else if (kind < 13) {
      const member what = known_member();
      others.del(session(what)), wanted_.del(what);
    } else if (kind < 15) {
      const uint32_t group = below(8) == 0 ? 0 : below(2 * sessions);
      others.set(membership(ifx, group)), wanted_.join(ifx, group);
    } else if (kind < 16) {
      others.del(membership(ifx, 0)), wanted_.leave(ifx);
    } else {
      const member of = below(3) == 0 ? any_member() : known_member();
      if (wanted_.doubtful(of)) return;
      const uint32_t value = below(3), msg_type = below(3);
      others.set(result(model::as_peer(of), value, msg_type)), wanted_.report(of, value, msg_type);
    }
  }

  double resident_bytes() {
    double pages = 0;
    std::istringstream(read_file("/proc/" + std::to_string(box_.daemon().pid()) + "/statm")) >> pages >> pages;
    return pages * static_cast<double>(sysconf(_SC_PAGESIZE));
  }

  sandbox box_;
  model wanted_;
  std::mt19937_64 random_{from_environment("SOAK_SEED", 1)};
  uint32_t sets_ = 8;  // of 20 events; 13 less as many are deletes
};

double mean(const std::vector<double> &of, size_t from, size_t to) {
  return std::accumulate(of.begin() + static_cast<ptrdiff_t>(from), of.begin() + static_cast<ptrdiff_t>(to), 0.0) /
         static_cast<double>(to - from);
}

TEST_F(Soak, TheStoreHoldsWhatIsConfigured) {
  const uint64_t events = from_environment("SOAK_EVENTS", 20000);
  const std::string port = std::to_string(20'000 + getpid() % 10'000);  // below those that the kernel hands out
  box_.start_server({"--port", port, "--bind", "127.0.0.1"});
  box_.platform_file(R"({"store":{"host":"127.0.0.1","port":)" + port + R"(},"log":{"file":")" + box_.folder() +
                     R"(/log"}})");
  box_.start_daemon();
  ASSERT_TRUE(box_.settle());
  std::vector<double> resident;
  size_t records = 0;
  for (uint64_t done = 0; done < events; done += batch) {
    producer others(box_.socket());
    for (uint64_t i = 0; i < batch; ++i) {
      if (done < 4 * batch) sets_ = 13;  // nothing goes: memory grows to its most early
      event(others);
    }
    others.flush();
    ASSERT_TRUE(box_.settle());
    if (below(std::max(7U, static_cast<uint32_t>(events / batch / 20))) == 0) {  // each takes longer to come back
      client(box_.socket()).run({"CLIENT", "KILL", "TYPE", below(2) == 0 ? "normal" : "pubsub"});
      ASSERT_TRUE(box_.settle());
    }
    wanted_.settled();
    const lines wanted = wanted_.wanted();
    records += wanted.size();
    ASSERT_EQ("", difference(box_.dump(), wanted)) << "after event " << done + batch;
    resident.push_back(resident_bytes());
  }
  const size_t n = resident.size();
  const double second = mean(resident, n / 4, n / 2), last = mean(resident, n - n / 4, n);
  std::cout << events << " events, " << n << " comparisons of " << records / n << " records; resident " << last / 1e6
            << " MB in the last quarter, " << last / second << " of the second\n";
  if (events >= 1000000) {
    EXPECT_NEAR(1.0, last / second, 0.01);
  }
}

}  // namespace
