// The forwarding side: how long until a session copies, how many at once, what a copy costs.
//
//   bench_forward FLOOR [RUNS]
//
// The programs under test and the server share the last core, this program has the first to itself. Runs of ours and of
// the floor alternate.
#include <sched.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <thread>

#include "figures.h"
#include "forwarding.h"

namespace {

using namespace harness;

constexpr uint32_t sessions = 1000;

void take_first_core() {
  cpu_set_t cores;
  CPU_ZERO(&cores);
  CPU_SET(0, &cores);
  sched_setaffinity(0, sizeof cores, &cores);
}

void start(forwarding &net) {
  bench::pin_to_one_core();
  net.start();
  take_first_core();
}

void print(const char *what, const char *unit, const std::vector<double> &ours, const std::vector<double> &floor) {
  std::vector<double> ratios;
  for (size_t i = 0; i < ours.size(); ++i) ratios.push_back(ours[i] / floor[i]);
  std::printf("%-52s %9.3f %9.3f %-3s %7.3f (%.3f to %.3f)\n", what, bench::median(ours), bench::median(floor), unit,
              bench::median(ratios), bench::quantile(ratios, 1e-9), bench::quantile(ratios, 1));
}

member vlan_session(uint32_t i) {
  member out{.session = i + 1, .s_ifx = 1, .d_ifx = 6, .apply = 2, .mtp_switch = 1};
  out.vlans.assign(i / 32 + 1, 0);
  out.vlans[i / 32] = 1U << i % 32;
  return out;
}

size_t filters_heard(listener &kernel) {
  size_t count = 0;
  for (const std::string &line : kernel.heard()) count += line.starts_with("message type 44 ");  // RTM_NEWTFILTER
  return count;
}

// Milliseconds until the kernel has announced `count` new filters.
double until_filters(listener &kernel, size_t count, const std::function<void()> &begin) {
  kernel.heard();
  const double start = bench::seconds_now();
  begin();
  for (size_t heard = 0; heard < count;) {
    heard += filters_heard(kernel);
    if (bench::seconds_now() > start + 60) std::exit((std::fprintf(stderr, "filters are missing\n"), 1));
  }
  return (bench::seconds_now() - start) * 1e3;
}

// Milliseconds from the write of a session's record to the first copy.
double first_copy(forwarding &net, const member &what) {
  tap wire("ge1-w"), analyser("ge6-w");
  const std::vector<std::string> probe{frame({})};
  uint32_t number = 0;
  const double start = bench::seconds_now();
  net.set(what);
  for (double last = 0; !analyser.next(number);)
    if (const double now = bench::seconds_now(); now > last + 20e-6) last = now, wire.send(probe);
  return (bench::seconds_now() - start) * 1e3;
}

void first_copies(forwarding &net, const char *floor_program, int runs) {
  const member what{.session = 1, .s_ifx = 1, .d_ifx = 6, .mtp_switch = 1};
  std::vector<double> ours, floor;
  process bare;
  for (int i = 0; i < runs; ++i) {
    start(net);
    net.settle();
    ours.push_back(first_copy(net, what));
    net.del(what);
    net.settle();
    net.program.stop();
    bare.start({floor_program, net.box.socket(), "ge1", "ge6"}, {}, [] { bench::pin_to_one_core(); });
    eventually(
        [&] {
          return net.ask({"PUBSUB", "NUMSUB", "4:u_monitor.mirror_lspan_info"}).ends_with("2\n");
        },
        "the floor's subscription");
    floor.push_back(first_copy(net, what));
    bare.stop();
    shell("tc filter del dev ge1 ingress");
    net.del(what);
  }
  start(net);
  net.settle();
  print("record to first copy", "ms", ours, floor);
}

// The filters of ge1 as commands for tc.
std::string as_batch() {
  return shell(
      "{ tc filter show dev ge1 ingress; echo; } | tr '\\n' ' ' | sed 's/filter protocol/\\n&/g; s/$/\\n/' | "
      "sed -n \"s/.* pref \\([0-9]*\\) .* handle \\(0x[0-9a-f]*\\) .*bytecode '\\([^']*\\)'.*cookie \\([0-9a-f]*\\).*/"
      "filter add dev ge1 ingress protocol all pref \\1 handle \\2 bpf bytecode '\\3' "
      "action mirred egress mirror dev ge6 continue cookie \\4/p\"");
}

void many_sessions(forwarding &net, int runs) {
  std::vector<double> ours, floor, starts;
  listener kernel;
  double resident = 0;
  for (int i = 0; i < runs; ++i) {
    producer others(net.box.socket());
    for (uint32_t k = 1; k <= sessions; ++k) others.set(session(vlan_session(k)));
    ours.push_back(until_filters(kernel, sessions, [&] { others.flush(); }));
    net.settle();
    const std::string batch = as_batch();
    if (count_of(batch, "\n") != sessions)
      std::exit((std::fprintf(stderr, "tc shows %zu filters\n", count_of(batch, "\n")), 1));
    write_file(net.box.folder() + "/batch", batch);
    std::istringstream(read_file("/proc/" + std::to_string(net.program.pid()) + "/statm")) >> resident >> resident;
    net.program.stop();
    std::string handle = batch.substr(batch.find("handle"), batch.find(" bpf") - batch.find("handle"));
    shell("tc filter del dev ge1 ingress pref 20 " + handle + " bpf");
    starts.push_back(until_filters(kernel, 1, [&] { start(net); }));
    net.settle();
    net.program.stop();
    shell("tc filter del dev ge1 ingress");
    process tc;
    floor.push_back(until_filters(kernel, sessions, [&] {
      tc.start({"tc", "-batch", net.box.folder() + "/batch"}, {}, [] { bench::pin_to_one_core(); });
    }));
    tc.wait();
    start(net);
    for (uint32_t k = 1; k <= sessions; ++k) others.del(session(vlan_session(k)));
    others.flush();
    net.settle();
  }
  print("1,000 sessions at once, until the last", "ms", ours, floor);
  std::printf("%-52s %9.3f           ms\n", "start with 999 right filters, until the last is there",
              bench::median(starts));
  std::printf("%-52s %9.3f           MB\n", "resident with 1,000 sessions", resident * 4096 / 1e6);
}

double per_frame(const tap &wire, const std::vector<std::string> &frames) {
  constexpr int bursts = 20;
  const double start = bench::seconds_now();
  for (int i = 0; i < bursts; ++i) wire.send(frames);
  return (bench::seconds_now() - start) / static_cast<double>(bursts * frames.size()) * 1e9;
}

// Many short turns, so that most of them are disturbed by nothing; in each order and on each port, as devices differ by
// where they lie in memory.
void a_copy(forwarding &net, int runs) {
  shell("for i in 1 2 3; do ip link set ge$i nomaster; done");
  const std::vector<std::string> frames(64, frame({}));
  std::vector<double> ours, by_hand, bare;
  const tap none_at("ge3-w");
  for (const uint32_t ifx : {1U, 2U}) {
    const std::string other = "ge" + std::to_string(3 - ifx);
    const member what{.session = 1, .s_ifx = ifx, .d_ifx = 6, .mtp_switch = 1};
    net.set(what);
    shell("tc qdisc add dev " + other + " clsact; tc filter add dev " + other +
          " ingress pref 20 u32 match u32 0 0 action mirred egress mirror dev ge6");
    net.settle();
    const tap ours_at("ge" + std::to_string(ifx) + "-w"), by_hand_at(other + "-w");
    for (int i = 0; i < 50 * runs; ++i) {
      bare.push_back(per_frame(none_at, frames));
      if (i % 2 == 0) by_hand.push_back(per_frame(by_hand_at, frames));
      ours.push_back(per_frame(ours_at, frames));
      if (i % 2 == 1) by_hand.push_back(per_frame(by_hand_at, frames));
    }
    shell("tc filter del dev " + other + " ingress");
    net.del(what);
    net.settle();
  }
  const double none = bench::median(bare), copy = bench::median(ours) - none, by_u32 = bench::median(by_hand) - none;
  std::printf("%-52s %9.3f %9.3f ns  %7.3f\n", "a copy, on top of the frame; floor: u32 by hand", copy, by_u32,
              copy / by_u32);
  std::printf("%-52s %9.3f           ns\n", "a frame without a copy", none);
}

}  // namespace

int main(int n_words, char **words) {
  if (n_words < 2) return std::fprintf(stderr, "usage: bench_forward FLOOR [RUNS]\n"), 2;
  const int runs = n_words > 2 ? std::atoi(words[2]) : 11;
  if (const std::string missing = enter_network(); !missing.empty())
    return std::fprintf(stderr, "this machine lacks %s\n", missing.c_str()), 1;
  if (!bench::pin_to_one_core()) return 1;
  forwarding net;
  for (const char *channel : {"dl", "ko_lspan", "ko_platform", "ko_lspan_fwd"})  // what is left says errors only
    write_file(net.box.folder() + "/tmp/" + channel + ".zlog", "1");
  net.box.daemon().stop();
  net.box.start_daemon();
  net.start();
  net.settle();
  take_first_core();
  first_copies(net, words[1], runs);
  many_sessions(net, runs);
  a_copy(net, runs);
}
