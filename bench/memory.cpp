// Resident memory per member at a population, and where it goes.
//
//   bench_memory members|sessions POPULATION
//
// The daemon's code in this process on the sink. List entries are what this program takes with calloc, told apart by
// their size; the store library takes everything else: copies of the inputs and of the wanted outputs, and the tables
// that find them.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "in_process.h"
#include "store/record_table.h"

namespace {

constexpr size_t most_size = 4096;
size_t taken[most_size];  // pieces by calloc, by their size
// Larger pieces: tables of the mirror lists' index.
struct {
  void *at;
  size_t size;
} tables[64];

size_t table_bytes() {
  size_t all = 0;
  for (const auto &table : tables) all += table.size;
  return all;
}

double resident() {
  size_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages >> pages;
  return static_cast<double>(pages) * static_cast<double>(sysconf(_SC_PAGESIZE));
}

}  // namespace

extern "C" {
void *__libc_calloc(size_t n, size_t size);
void *calloc(size_t n, size_t size) {
  void *made = __libc_calloc(n, size);
  if (n == 1 && size < most_size)
    ++taken[size];
  else
    for (auto &table : tables)
      if (table.at == nullptr) {
        table = {made, n * size};
        break;
      }
  return made;
}

void __libc_free(void *gone);
void free(void *gone) {
  for (auto &table : tables)
    if (gone != nullptr && table.at == gone) table = {};
  __libc_free(gone);
}
}

int main(int n_words, char **words) {
  const bool one_session = n_words == 3 && std::strcmp(words[1], "members") == 0;
  if (!one_session && (n_words != 3 || std::strcmp(words[1], "sessions") != 0)) {
    std::fprintf(stderr, "usage: %s members|sessions POPULATION\n", words[0]);
    return 2;
  }
  const auto n = static_cast<uint32_t>(std::atoi(words[2]));
  const auto member = [&](uint32_t i) {
    const uint32_t number = bench::first_number + i;
    return bench::member_record(one_session ? bench::first_number : number, number);
  };
  bench::sink_engine &engine = bench::start_on_sink();
  const auto add = [&](uint32_t i) { engine.announce(member(i), ko_store::change_kind::set); };
  // Every member has copies of its own of these; in a session with others, those of the target are the session's.
  const bench::record first = member(0);
  double copies = 1;
  double copied = static_cast<double>(first.key.size() + first.bytes.size());
  engine.on_write = [&](const ko_store::change &what) {
    const std::string_view name = what.hash.type->name;
    const bool of_target = name == "u_monitor.span_mtp_info" || name == "u_bridge.udp_pt_learn";
    if (what.kind == ko_store::change_kind::publish || (one_session && of_target)) return;
    ++copies;
    copied += static_cast<double>(what.key.size() + what.record.size());
  };
  add(0);
  engine.on_write = {};
  size_t before[most_size];
  std::memcpy(before, taken, sizeof(before));
  const size_t tables_before = table_bytes();
  const double start = resident();
  for (uint32_t i = 1; i < n; ++i) add(i);
  const double per_member = (resident() - start) / n;

  std::printf("memory: %u %s, bytes per member\n", n, words[1]);
  std::printf("  %-46s %8.0f\n", "resident", per_member);
  double entries = 0;
  for (size_t size = 0; size < most_size; ++size) {
    const double pieces = static_cast<double>(taken[size] - before[size]) / n;
    if (pieces < 0.01) continue;
    const double bytes = pieces * static_cast<double>((size + 8 + 15) / 16 * 16);  // with the allocator's own word
    std::printf("  %-29s %4.2f of %5zu bytes %8.0f\n", "list entry, its index behind", pieces, size, bytes);
    entries += bytes;
  }
  const double index = static_cast<double>(table_bytes() - tables_before) / n;
  const double heads = copies * static_cast<double>(sizeof(ko_store::record_table::entry));
  std::printf("  %-46s %8.0f\n", "tables of the index", index);
  std::printf("  %-34s %4.0f records %8.0f\n", "copies of input and outputs, bytes", copies, copied);
  std::printf("  %-46s %8.0f\n", "their heads", heads);
  std::printf("  %-46s %8.0f\n", "rest: tables of the copies, room between",
              per_member - entries - index - copied - heads);
}
