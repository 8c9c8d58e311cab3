// Recovery: from the start of the process until everything was read and handled (all-data-sources-over), and until the
// last write, with empty outputs and with outputs that are right already. Server, daemon or floor and this program
// share one core; runs of the daemon and of the floor alternate on one server.
//
//   bench_recovery FLOOR MEMBERS [RUNS]
//
// Each member is a session of its own, so that there is the most to write for each.
#include <hiredis/hiredis.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <memory>
#include <sstream>

#include "events.h"
#include "figures.h"
#include "sandbox.h"

namespace {

using connection = std::unique_ptr<redisContext, decltype(&redisFree)>;

[[noreturn]] void fail(const char *what) {
  std::fprintf(stderr, "bench_recovery: %s\n", what);
  std::exit(1);
}

void configure(const std::string &socket, uint32_t n) {
  const connection server(redisConnectUnix(socket.c_str()), &redisFree);
  const auto answers = [&](uint32_t count) {
    for (void *answer = nullptr; count > 0; --count) {
      if (redisGetReply(server.get(), &answer) != REDIS_OK) fail("the server is gone");
      freeReplyObject(answer);
    }
  };
  freeReplyObject(redisCommand(server.get(), "SELECT 4"));
  for (uint32_t i = 0; i < n; ++i) {
    const bench::record what = bench::session_record(bench::first_number + i);
    const std::string bytes = bench::command({"HSET", what.hash.type->name, what.key, what.bytes});
    redisAppendFormattedCommand(server.get(), bytes.data(), bytes.size());
    if (i % 1000 == 999) answers(1000);
  }
  answers(n % 1000);
}

void empty_outputs(harness::client &server) {
  for (const char *db : {"6", "8"}) {
    server.run({"SELECT", db});
    server.run({"FLUSHDB", "SYNC"});
  }
}

// Listens to the flush requests, which come last: one for each member.
class last_write {
 public:
  explicit last_write(const std::string &socket) : server_(redisConnectUnix(socket.c_str()), &redisFree) {
    const timeval patience{60, 0};
    redisSetTimeout(server_.get(), patience);
    freeReplyObject(redisCommand(server_.get(), "SUBSCRIBE %s", bench::flush_channel().c_str()));
  }

  void wait(uint32_t n) {
    for (void *answer = nullptr; n > 0; --n) {
      if (redisGetReply(server_.get(), &answer) != REDIS_OK) fail("the last write never came");
      freeReplyObject(answer);
    }
  }

 private:
  connection server_;
};

// When the daemon's log says that everything was read: seconds of the same clock as seconds_now.
double over_of(const harness::sandbox &box) {
  const std::string log = box.log();
  const size_t mark = log.find("lspan ds over.");
  if (mark == std::string::npos) fail("the log does not tell when everything was read");
  const std::string line = log.substr(log.rfind('\n', mark) + 1);
  std::tm when{};
  int milliseconds = 0;
  if (std::sscanf(line.c_str(), "%d-%d-%d %d:%d:%d.%d", &when.tm_year, &when.tm_mon, &when.tm_mday, &when.tm_hour,
                  &when.tm_min, &when.tm_sec, &milliseconds) != 7)
    fail("the log has another form");
  when.tm_year -= 1900;
  when.tm_mon -= 1;
  when.tm_isdst = -1;
  timespec wall{};
  clock_gettime(CLOCK_REALTIME, &wall);
  const double now = static_cast<double>(wall.tv_sec) + static_cast<double>(wall.tv_nsec) * 1e-9;
  return bench::seconds_now() - (now - (static_cast<double>(mktime(&when)) + milliseconds * 1e-3));
}

struct figures {
  std::vector<double> over, last, cpu;  // milliseconds
  std::vector<double> resident;         // at the end, bytes
};

void measure(const harness::sandbox &box, uint32_t n, const harness::process &measured,
             const std::function<void()> &start, const std::function<double()> &over, figures &out) {
  last_write listener(box.socket());
  const double begin = bench::seconds_now();
  start();
  listener.wait(n);
  out.last.push_back((bench::seconds_now() - begin) * 1e3);
  out.over.push_back((over() - begin) * 1e3);
  out.cpu.push_back(bench::processor_seconds(measured.pid()) * 1e3);
  size_t pages = 0;
  std::istringstream(harness::read_file("/proc/" + std::to_string(measured.pid()) + "/statm")) >> pages >> pages;
  out.resident.push_back(static_cast<double>(pages) * static_cast<double>(sysconf(_SC_PAGESIZE)));
}

// Against the floor's whole run, which reads the same and writes the same.
void print(const char *what, const std::vector<double> &daemon, const std::vector<double> &bare) {
  std::vector<double> ratios;
  for (size_t i = 0; i < daemon.size(); ++i) ratios.push_back(daemon[i] / bare[i]);
  std::printf("  %-44s %10.2f %10.2f %8.3f (%.3f to %.3f)\n", what, bench::median(daemon), bench::median(bare),
              bench::median(ratios), bench::quantile(ratios, 1e-9), bench::quantile(ratios, 1));
}

}  // namespace

int main(int n_words, char **words) {
  if (n_words < 3) fail("usage: bench_recovery FLOOR MEMBERS [RUNS]");
  const auto n = static_cast<uint32_t>(std::atoi(words[2]));
  const int runs = n_words > 3 ? std::atoi(words[3]) : 5;
  if (!bench::pin_to_one_core()) fail("cannot be tied to one core");
  harness::sandbox box;
  for (const char *channel : {"dl", "ko_platform"}) std::remove((box.folder() + "/tmp/" + channel + ".zlog").c_str());
  harness::write_file(box.folder() + "/tmp/ko_lspan.zlog", "4");  // for one line: everything was read
  box.start_server();
  harness::client server(box.socket());
  configure(box.socket(), n);

  const std::string times = box.folder() + "/floor";
  figures daemon[2], bare[2];
  for (int run = 0; run < runs; ++run) {
    empty_outputs(server);
    std::vector<std::string> dumps[2];
    for (const bool right : {false, true}) {
      std::remove((box.folder() + "/log").c_str());
      measure(
          box, n, box.daemon(), [&] { box.start_daemon(); }, [&] { return over_of(box); }, daemon[right]);
      box.daemon().stop();
    }
    if (run == 0) dumps[0] = box.dump();
    empty_outputs(server);
    for (const bool right : {false, true}) {
      std::remove(times.c_str());
      harness::process floor;
      measure(
          box, n, floor,
          [&] {
            floor.start({words[1], "recovery", box.socket(), std::to_string(n), right ? "0" : "1"}, times);
          },
          [&] { return std::atof(harness::read_file(times).c_str()); }, bare[right]);
      floor.wait();
    }
    if (run == 0) dumps[1] = box.dump();
    if (dumps[0] != dumps[1]) fail("the floor does not write what the daemon writes");
  }
  std::printf("recovery: %u members, medians of %d runs, ms %12s %10s %8s\n", n, runs, "daemon", "floor", "ratio");
  print("empty outputs: all data sources over", daemon[0].over, bare[0].last);
  print("empty outputs: last write", daemon[0].last, bare[0].last);
  print("right outputs: all data sources over", daemon[1].over, bare[1].last);
  print("right outputs: last write", daemon[1].last, bare[1].last);
  print("empty outputs: own processor time", daemon[0].cpu, bare[0].cpu);
  print("right outputs: own processor time", daemon[1].cpu, bare[1].cpu);
  std::printf("  the daemon's resident memory per member: %.0f bytes\n", bench::median(daemon[0].resident) / n);
  std::printf("  (of the floor's time, reading: %.2f with empty outputs, %.2f with right ones)\n",
              bench::median(bare[0].over), bench::median(bare[1].over));
}
