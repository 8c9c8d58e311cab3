// Random events on a real store, to which the daemon comes over TCP: after every thousandth event, now and then with a
// lost connection before that, the store holds what a daemon writes that is started on what is configured then. No two
// sessions share a target, and members of one agree on it, so that the order of the events makes no difference.
//
// SOAK_EVENTS (20000) and SOAK_SEED (1) in the environment choose another run. From a million events on the daemon's
// resident memory must stay where it is.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <numeric>
#include <random>
#include <sstream>

#include "sandbox.h"

namespace {

using namespace harness;
using lines = std::vector<std::string>;

constexpr uint32_t batch = 1000, sessions = 40, ports = 12, interfaces = 60, first_interface = 2000;

uint64_t from_environment(const char *name, uint64_t otherwise) {
  const char *text = std::getenv(name);
  return text == nullptr ? otherwise : std::strtoull(text, nullptr, 10);
}

class soak : public testing::Test {
 protected:
  uint32_t below(uint32_t bound) { return static_cast<uint32_t>(random_() % bound); }

  // The number of a session says what it is applied to and what its target is.
  member any_member() {
    const uint32_t number = 1 + below(sessions), apply = number % 5;
    member what{.session = number, .s_ifx = below(ports), .d_ifx = 1000 + number, .dir = 1 + below(2)};
    what.apply = apply < 4 ? apply : 0;
    if (apply == 1) what.acl = 1 + below(3);
    if (apply == 2 || apply == 3) what.vlans.assign(below(129), below(1000));
    if (apply == 4) what.module = 5, what.d_ifx = group_target(number);
    what.mtp_switch = number % 3 == 0, what.role = number % 6, what.sample = below(5) * 100;
    return what;
  }

  // Mostly one that was set and not deleted.
  member known_member() {
    if (known_.empty() || below(8) == 0) return any_member();
    std::swap(known_[below(static_cast<uint32_t>(known_.size()))], known_.back());
    return known_.back();
  }

  void event(producer &others) {
    const uint32_t ifx = first_interface + below(interfaces);
    if (below(500) == 0) sets_ = 3 + below(6);  // sessions have to come to their end, too
    const uint32_t kind = below(20);
    if (kind < sets_) {
      known_.push_back(any_member());
      others.set(session(known_.back()));
    } else if (kind < 13) {
      others.del(session(known_member()));
      if (!known_.empty()) known_.pop_back();
    } else if (kind < 15) {
      others.set(membership(ifx, below(8) == 0 ? 0 : below(2 * sessions)));
    } else if (kind < 16) {
      others.del(membership(ifx, 0));
    } else {
      member of = known_member();
      if (of.module == 5) of.d_ifx = of.session;  // as the forwarding side names a group
      const uint32_t value = below(3);
      others.set(result(of, value, below(3)));
    }
  }

  // What is in the store, but for the results of members that have gone since.
  lines stored(const lines &expected) {
    lines all = box_.dump();
    std::erase_if(all, [&](const std::string &line) {
      return line.starts_with("4 u_monitor.mirror_result_info ") &&
             !std::binary_search(expected.begin(), expected.end(), line);
    });
    return all;
  }

  double resident_bytes() {
    double pages = 0;
    std::istringstream(read_file("/proc/" + std::to_string(box_.daemon().pid()) + "/statm")) >> pages >> pages;
    return pages * static_cast<double>(sysconf(_SC_PAGESIZE));
  }

  sandbox box_;
  std::mt19937_64 random_{from_environment("SOAK_SEED", 1)};
  std::vector<member> known_;
  uint32_t sets_ = 8;  // of 20 events; 13 less as many are deletes
};

double mean(const std::vector<double> &of, size_t from, size_t to) {
  return std::accumulate(of.begin() + static_cast<ptrdiff_t>(from), of.begin() + static_cast<ptrdiff_t>(to), 0.0) /
         static_cast<double>(to - from);
}

TEST_F(soak, the_store_holds_what_is_configured) {
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
    const lines expected = of_fresh_daemon(box_.inputs());
    records += expected.size();
    ASSERT_EQ("", difference(stored(expected), expected)) << "after event " << done + batch;
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
