// Instructions per event at a given population, to be counted by callgrind; flat.py runs it and divides.
//
//   bench_flat members|sessions POPULATION EVENTS
//
// members: all in one session; sessions: each a session of its own. Once the population stands, EVENTS of it are
// deleted, then added again; at last EVENTS interfaces join an outflow group that nobody mirrors to, move to one that
// the last session of the list mirrors to, and leave it. Each of the five is one dump, named "delete", "add", "join",
// "move" and "leave".
#include <valgrind/callgrind.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "in_process.h"
#include "records.h"

namespace {

using ko_store::change_kind;

template <class Work>
void counted(const char *name, Work work) {
  CALLGRIND_START_INSTRUMENTATION;
  CALLGRIND_ZERO_STATS;
  work();
  CALLGRIND_DUMP_STATS_AT(name);
  CALLGRIND_STOP_INSTRUMENTATION;
}

}  // namespace

int main(int n_words, char **words) {
  const bool one_session = n_words == 4 && std::strcmp(words[1], "members") == 0;
  if (!one_session && (n_words != 4 || std::strcmp(words[1], "sessions") != 0)) {
    std::fprintf(stderr, "usage: %s members|sessions POPULATION EVENTS\n", words[0]);
    return 2;
  }
  const auto population = static_cast<uint32_t>(std::atoi(words[2]));
  const auto events = static_cast<uint32_t>(std::atoi(words[3]));
  const auto member = [&](uint32_t i) {
    const uint32_t n = bench::first_number + i;
    return bench::member_record(one_session ? bench::first_number : n, n);
  };
  bench::sink_engine &engine = bench::start_on_sink();
  for (uint32_t i = 0; i < population; ++i) engine.announce(member(i), change_kind::set);

  // Spread over the population, made beforehand.
  std::vector<bench::record> chosen, joining, moving;
  for (uint32_t i = 0; i < events; ++i) {
    chosen.push_back(member(static_cast<uint32_t>(uint64_t{i} * population / events)));
    joining.push_back(bench::membership_record(bench::end_number - 1 - i, 7));
    moving.push_back(bench::membership_record(bench::end_number - 1 - i, 8));
  }
  const harness::record mirroring =
      harness::session({.session = bench::end_number, .s_ifx = 1, .d_ifx = harness::group_target(8), .module = 5});
  const uint64_t before = engine.writes;
  counted("delete", [&] {
    for (const bench::record &what : chosen) engine.announce(what, change_kind::del);
  });
  counted("add", [&] {
    for (const bench::record &what : chosen) engine.announce(what, change_kind::set);
  });
  counted("join", [&] {
    for (const bench::record &what : joining) engine.announce(what, change_kind::set);
  });
  engine.announce({{mirroring.db, mirroring.type}, change_kind::set, mirroring.key, mirroring.bytes}, change_kind::set);
  counted("move", [&] {
    for (const bench::record &what : moving) engine.announce(what, change_kind::set);
  });
  counted("leave", [&] {
    for (const bench::record &what : moving) engine.announce(what, change_kind::del);
  });
  std::printf("%llu writes\n", static_cast<unsigned long long>(engine.writes - before));
}
