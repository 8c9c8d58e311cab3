// Heap allocations per event in the steady state, by the library that asked for them.
//
//   bench_allocations sink|redis
//
// Without a store (the sink), or through a real server, where the client library's own show up. List entries
// come from calloc in this program, the VLAN buffer from malloc in it, everything of C++ from libstdc++.
#include <hiredis/hiredis.h>
#include <link.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "in_process.h"
#include "proc/lspan/ko_lspan.h"
#include "sandbox.h"
#include "store/redis_engine.h"
#include "store/registration.h"

namespace {

struct library {
  std::string name;
  uintptr_t begin;
  uintptr_t end;
  uint64_t count;
};

constexpr size_t most_libraries = 64;
library libraries[most_libraries];
size_t n_libraries;
bool counting;

int note_library(dl_phdr_info *info, size_t, void *) {
  for (int i = 0; i < info->dlpi_phnum && n_libraries < most_libraries; ++i) {
    const auto &part = info->dlpi_phdr[i];
    if (part.p_type != PT_LOAD || (part.p_flags & PF_X) == 0) continue;
    const std::string path = info->dlpi_name;
    const uintptr_t begin = info->dlpi_addr + part.p_vaddr;
    libraries[n_libraries++] = {path.empty() ? "program" : path.substr(path.rfind('/') + 1), begin,
                                begin + part.p_memsz, 0};
  }
  return 0;
}

void count(const void *caller) {
  if (!counting) return;
  const auto at = reinterpret_cast<uintptr_t>(caller);
  for (size_t i = 0; i < n_libraries; ++i)
    if (at >= libraries[i].begin && at < libraries[i].end) ++libraries[i].count;
}

}  // namespace

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t n, size_t size);
void *__libc_realloc(void *old, size_t size);

void *malloc(size_t size) {
  count(__builtin_return_address(0));
  return __libc_malloc(size);
}
void *calloc(size_t n, size_t size) {
  count(__builtin_return_address(0));
  return __libc_calloc(n, size);
}
void *realloc(void *old, size_t size) {
  count(__builtin_return_address(0));
  return __libc_realloc(old, size);
}
}

namespace {

using ko_store::change_kind;

constexpr uint32_t n_members = 2000;  // present all the time
constexpr uint32_t n_events = 500;

template <class Work>
void counted(const char *name, Work work) {
  for (library &each : libraries) each.count = 0;
  counting = true;
  work();
  counting = false;
  std::printf("  %-28s", name);
  for (const library &each : libraries)
    if (each.count != 0) std::printf(" %s %.2f", each.name.c_str(), static_cast<double>(each.count) / n_events);
  std::printf("\n");
}

bench::record member(uint32_t i, uint32_t vlan_words, uint32_t rate) {
  return bench::member_record(bench::first_number, bench::first_number + i, vlan_words, rate);
}

// The steps, each as `go(records, kind)` over as many events.
template <class Go>
void run_steps(Go go) {
  for (const uint32_t vlan_words : {0u, 128u}) {
    const auto some = [&](uint32_t first, uint32_t rate) {
      std::vector<bench::record> made;
      for (uint32_t i = 0; i < n_events; ++i) made.push_back(member(first + i, vlan_words, rate));
      return made;
    };
    const std::string kind = vlan_words == 0 ? "port" : "VLAN map of 128 words";
    const auto fresh = some(n_members, 1), updated = some(n_members, 2);
    for (int warm = 0; warm < 3; ++warm) {  // what grows by and by has grown
      go(fresh, change_kind::set);
      go(updated, change_kind::set);
      go(fresh, change_kind::del);
    }
    counted(("add, " + kind).c_str(), [&] { go(fresh, change_kind::set); });
    counted(("update, " + kind).c_str(), [&] { go(updated, change_kind::set); });
    counted(("delete, " + kind).c_str(), [&] { go(fresh, change_kind::del); });
  }
}

void on_sink() {
  bench::sink_engine &engine = bench::start_on_sink();
  for (uint32_t i = 0; i < n_members; ++i) engine.announce(member(i, 0, 1), change_kind::set);
  run_steps([&](const std::vector<bench::record> &records, change_kind kind) {
    for (const bench::record &what : records) engine.announce(what, kind);
  });
}

// Sends everything without waiting for the answers, then serves the loop until every event was handled and the server
// has answered its writes.
void through(redisContext *producer, const std::vector<bench::record> &records, change_kind kind) {
  const bool was_counting = std::exchange(counting, false);
  std::string bytes;
  for (bench::record what : records) {
    what.kind = kind;
    for (const std::string &command : bench::commands_of(what)) bytes += command;
  }
  for (size_t sent = 0; sent < bytes.size();) {
    const ssize_t n = write(producer->fd, bytes.data() + sent, bytes.size() - sent);
    if (n <= 0) std::exit(1);
    sent += static_cast<size_t>(n);
  }
  const auto &counts = ko_store::registration_of(lspan_global.global)->counts();
  const uint64_t target = counts.events + records.size();
  counting = was_counting;
  int idle = 0;
  while (counts.events < target || idle < 100) {
    const uint64_t before = counts.events;
    bench::serve_loop();
    idle = counts.events == before ? idle + 1 : 0;
    if (idle > 0) usleep(1000);
  }
  counting = false;
  for (size_t i = 0; i < 4 * records.size(); ++i) {
    void *answer = nullptr;
    if (redisGetReply(producer, &answer) != REDIS_OK) std::exit(1);
    freeReplyObject(answer);
  }
  counting = was_counting;
}

void on_redis() {
  harness::sandbox box;
  box.start_server();
  bench::start_in_process([&](vx_global &global) {
    ko_platform::store_address address;
    address.socket = box.socket();
    return std::make_unique<ko_store::redis_engine>(global, address);
  });
  redisContext *producer = redisConnectUnix(box.socket().c_str());
  freeReplyObject(redisCommand(producer, "SELECT 4"));
  std::vector<bench::record> present;
  for (uint32_t i = 0; i < n_members; ++i) present.push_back(member(i, 0, 1));
  through(producer, present, change_kind::set);
  run_steps([&](const std::vector<bench::record> &records, change_kind kind) { through(producer, records, kind); });
  redisFree(producer);
}

}  // namespace

int main(int n_words, char **words) {
  dl_iterate_phdr(note_library, nullptr);
  if (n_words == 2 && std::strcmp(words[1], "redis") == 0) {
    std::printf("allocations per event, through a server\n");
    on_redis();
  } else {
    std::printf("allocations per event, without a store\n");
    on_sink();
  }
}
