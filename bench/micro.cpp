// What is inside the process: handling one session event without a store, a log line, and the group tables against the
// hash tables that one would take otherwise.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <absl/container/flat_hash_map.h>

#include <algorithm>
#include <boost/unordered/unordered_flat_map.hpp>
#include <ctime>
#include <random>
#include <unordered_map>

#include "in_process.h"
#include "proc/lspan/ko_lspan.h"
#include "proc/lspan/outgrb_hash.h"

namespace {

using ko_store::change_kind;

// Processor time of this thread: other work on the machine is not counted.
double seconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// Tells the time of one of the `n` of an iteration.
void each(benchmark::State &state, size_t n) {
  using benchmark::Counter;
  state.counters["each"] = Counter(static_cast<double>(n), Counter::kIsIterationInvariantRate | Counter::kInvert);
}

// ---- session events ----

constexpr uint32_t n_present = 10'000;  // members of the session
constexpr uint32_t n_batch = 1'000;     // events of one kind in a row

enum class step { add, update, del };

bench::sink_engine &engine() {
  static bench::sink_engine &started = [&]() -> bench::sink_engine & {
    bench::sink_engine &made = bench::start_on_sink();
    for (uint32_t i = 0; i < n_present; ++i)
      made.announce(bench::member_record(bench::first_number, bench::first_number + i), change_kind::set);
    return made;
  }();
  return started;
}

// Time of the step `timed`; the others bring things back to where they were.
void session_event(benchmark::State &state, step timed) {
  std::vector<bench::record> fresh, updated;
  for (uint32_t i = 0; i < n_batch; ++i) {
    fresh.push_back(bench::member_record(bench::first_number, bench::first_number + n_present + i, 0, 1));
    updated.push_back(bench::member_record(bench::first_number, bench::first_number + n_present + i, 0, 2));
  }
  bench::sink_engine &store = engine();
  const auto run = [&](step which, const std::vector<bench::record> &records, change_kind kind) {
    const double begin = seconds();
    for (const bench::record &what : records) store.announce(what, kind);
    if (which == timed) state.SetIterationTime(seconds() - begin);
  };
  for ([[maybe_unused]] auto _ : state) {
    run(step::add, fresh, change_kind::set);
    run(step::update, updated, change_kind::set);
    run(step::del, fresh, change_kind::del);
  }
  each(state, n_batch);
}
BENCHMARK_CAPTURE(session_event, add, step::add)->UseManualTime();
BENCHMARK_CAPTURE(session_event, update, step::update)->UseManualTime();
BENCHMARK_CAPTURE(session_event, del, step::del)->UseManualTime();

// ---- a log line ----

void empty_loop(benchmark::State &state) {
  uint32_t i = 0;
  for ([[maybe_unused]] auto _ : state) benchmark::DoNotOptimize(++i);
}
BENCHMARK(empty_loop);

void log_disabled(benchmark::State &state) {
  lspan_zlog_level = 1;
  uint32_t i = 0;
  for ([[maybe_unused]] auto _ : state) {
    benchmark::DoNotOptimize(++i);
    LSPAN_DEBUG("port info set to UDP_DB, ret=%d\r\n", i);
  }
}
BENCHMARK(log_disabled);

// Into a file: what the log library writes to standard error goes there meanwhile.
void log_enabled(benchmark::State &state) {
  engine();  // opens the channel
  char name[] = "/tmp/bench_micro.XXXXXX";
  const int file = mkstemp(name);
  unlink(name);
  const int before = dup(STDERR_FILENO);
  dup2(file, STDERR_FILENO);
  lspan_zlog_level = 5;
  uint32_t i = 0;
  for ([[maybe_unused]] auto _ : state) {
    benchmark::DoNotOptimize(++i);
    LSPAN_DEBUG("port info set to UDP_DB, ret=%d\r\n", i);
  }
  lspan_zlog_level = 1;
  dup2(before, STDERR_FILENO);
  close(before);
  close(file);
}
BENCHMARK(log_enabled);

// ---- group tables ----

// The daemon's table: entries of their own, at addresses that stay.
struct group_table {
  group_table() { outgrb_mbr_hash_init(); }
  void insert(uint32_t key) {
    const outgrb_mbr_info record{key, 1};
    outgrb_mbr_info *entry = nullptr;
    outgrb_mbr_hash_set(&entry, &record);
  }
  bool hit(uint32_t key) { return outgrb_mbr_hash_get(&key) != nullptr; }
  void erase(uint32_t key) { outgrb_mbr_hash_del(outgrb_mbr_hash_get(&key)); }
};

template <class Map>
struct map_table {
  Map map;
  void insert(uint32_t key) { map.insert_or_assign(key, outgrb_mbr_info{key, 1}); }
  bool hit(uint32_t key) { return map.find(key) != map.end(); }
  void erase(uint32_t key) { map.erase(key); }
};

// The same n different numbers for each seed, spread over all 32 bits, in an order of the seed's.
std::vector<uint32_t> shuffled(size_t n, uint32_t seed) {
  std::vector<uint32_t> keys(n);
  for (uint32_t i = 0; i < n; ++i) {
    const uint32_t mixed = (i + 1) * 0x9E3779B1U;
    keys[i] = (mixed ^ mixed >> 15) * 0x85EBCA6BU;
  }
  std::shuffle(keys.begin(), keys.end(), std::mt19937(seed));
  return keys;
}

enum class use { insert, hit, erase };

// Insert and erase move between empty and full; the table has been full before.
template <class Table>
void table(benchmark::State &state, use timed) {
  const auto n = static_cast<size_t>(state.range(0));
  const auto keys = shuffled(n, 1), order = shuffled(n, 2);
  static Table it;
  for (const uint32_t key : keys) it.insert(key);
  const auto run = [&](use which, const std::vector<uint32_t> &of, auto work) {
    const double begin = seconds();
    for (const uint32_t key : of) work(key);
    if (which == timed) state.SetIterationTime(seconds() - begin);
  };
  for ([[maybe_unused]] auto _ : state) {
    if (timed == use::hit) {
      run(use::hit, order, [&](uint32_t key) { benchmark::DoNotOptimize(it.hit(key)); });
    } else {
      run(use::erase, order, [&](uint32_t key) { it.erase(key); });
      run(use::insert, keys, [&](uint32_t key) { it.insert(key); });
    }
  }
  for (const uint32_t key : keys) it.erase(key);
  each(state, n);
}

using std_map = map_table<std::unordered_map<uint32_t, outgrb_mbr_info>>;
using absl_map = map_table<absl::flat_hash_map<uint32_t, outgrb_mbr_info>>;
using boost_map = map_table<boost::unordered_flat_map<uint32_t, outgrb_mbr_info>>;

template <class Table>
void add_table(const std::string &name) {
  constexpr std::pair<const char *, use> uses[] = {{"insert", use::insert}, {"hit", use::hit}, {"erase", use::erase}};
  for (const auto &[use_name, timed] : uses)
    benchmark::RegisterBenchmark((name + "/" + use_name).c_str(), table<Table>, timed)
        ->Arg(1'000)
        ->Arg(100'000)
        ->Arg(1'000'000)
        ->UseManualTime();
}

}  // namespace

int main(int n_words, char **words) {
  add_table<group_table>("group_table");
  add_table<std_map>("std_unordered_map");
  add_table<absl_map>("absl_flat_hash_map");
  add_table<boost_map>("boost_unordered_flat_map");
  benchmark::Initialize(&n_words, words);
  benchmark::RunSpecifiedBenchmarks();
}
