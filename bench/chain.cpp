// The chain: a producer writes session records, the daemon answers with its records, an observer sees the last of them.
// Server, daemon and this program (producer and observer) share one core. Runs of the daemon and of the two floors, one
// with a transaction a record and one that batches as the daemon does, alternate on one server.
//
//   bench_chain FLOOR [EVENTS] [RUNS] [aof]
//
// aof: the server appends every change to a file (appendfsync everysec).
// EVENTS: with thousands waiting, per run; a tenth of it one at a time.
#include <hiredis/hiredis.h>
#include <poll.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>

#include "events.h"
#include "figures.h"
#include "sandbox.h"

namespace {

constexpr uint32_t most_waiting = 4000;  // events on their way at once
constexpr uint32_t burst = 250;          // the producer's
constexpr double producer_commands = 4;  // of an event
constexpr int silence_ms = 10'000;       // an answer that takes longer never comes

[[noreturn]] void fail(const char *what) {
  std::fprintf(stderr, "bench_chain: %s\n", what);
  std::exit(1);
}

class connection {
 public:
  explicit connection(const std::string &socket) : context_(redisConnectUnixNonBlock(socket.c_str()), &redisFree) {
    if (context_ == nullptr || context_->err != 0) fail("no connection to the server");
  }

  void append(std::string_view command) {
    redisAppendFormattedCommand(context_.get(), command.data(), command.size());
    flushed_ = 0;
  }

  pollfd wish() const { return {context_->fd, static_cast<short>(flushed_ ? POLLIN : POLLIN | POLLOUT), 0}; }

  void flush() {
    if (!flushed_ && redisBufferWrite(context_.get(), &flushed_) != REDIS_OK) fail("the server is gone");
  }

  // Reads what has come and calls `take` for each answer.
  template <class Take>
  void read(Take take) {
    if (redisBufferRead(context_.get()) != REDIS_OK) fail("the server is gone");
    for (void *answer = nullptr; redisGetReplyFromReader(context_.get(), &answer) == REDIS_OK && answer != nullptr;) {
      const auto *reply = static_cast<const redisReply *>(answer);
      if (reply->type == REDIS_REPLY_ERROR) fail(reply->str);
      take(*reply);
      freeReplyObject(answer);
      answer = nullptr;
    }
  }

 private:
  std::unique_ptr<redisContext, decltype(&redisFree)> context_;
  int flushed_ = 1;
};

struct chain {
  connection producer;
  connection observer;
  std::vector<bench::pattern> event;
  uint32_t next = bench::first_number;

  explicit chain(const std::string &socket) : producer(socket), observer(socket) {
    for (const std::string &text : bench::commands_of(bench::session_record(bench::pattern::number)))
      event.emplace_back(text);
    producer.append(bench::command({"SELECT", "4"}));
    observer.append(bench::command({"SUBSCRIBE", bench::mirror_target_channel()}));
    bool subscribed = false;
    while (!subscribed) step([&](const redisReply &) { subscribed = true; });
  }

  template <class Take>
  void step(Take on_answer) {
    producer.flush();
    observer.flush();
    pollfd files[] = {producer.wish(), observer.wish()};
    if (poll(files, 2, silence_ms) == 0) fail("no answer came");
    if (files[1].revents & POLLIN) observer.read(on_answer);
    if (files[0].revents & POLLIN) producer.read([](const redisReply &) {});
  }

  void produce() {
    for (bench::pattern &part : event) producer.append(part.with(next));
    ++next;
  }

  // Sends `n` events, at most `waiting` at a time, `together` at once; gives the seconds that each took.
  std::vector<double> run(uint32_t n, uint32_t waiting, uint32_t together) {
    std::vector<double> sent;
    std::vector<double> took;
    sent.reserve(n);
    took.reserve(n);
    while (took.size() < n) {
      if (sent.size() - took.size() + together <= waiting) {
        for (uint32_t i = 0; i < together && sent.size() < n; ++i) {
          sent.push_back(bench::seconds_now());
          produce();
        }
      }
      step([&](const redisReply &) { took.push_back(bench::seconds_now() - sent[took.size()]); });
    }
    return took;
  }
};

struct figures {
  std::vector<double> per_second, waiting_p50, single_p50, single_p99;
  // Per event with thousands waiting: processor time, and what the server counts.
  std::vector<double> own_cpu, server_cpu, commands, reads, writes;
  std::vector<double> single_commands;  // one event at a time
};

double server_count(harness::client &server, const std::string &name) {
  const std::string info = server.run({"INFO", "stats"});
  const size_t at = info.find(name + ":");
  if (at == std::string::npos) fail("the server does not count");
  return std::atof(info.c_str() + at + name.size() + 1);
}

// `start` starts `measured`, which stands in the daemon's place.
void measure(harness::sandbox &box, const harness::process &measured, const std::function<void()> &start,
             uint32_t events, figures &out) {
  harness::client server(box.socket());
  server.run({"FLUSHALL", "SYNC"});
  start();
  harness::eventually(
      [&] {
        return server.run({"PUBSUB", "NUMSUB", bench::session_channel()}).ends_with("1\n");
      },
      "the subscription");
  chain it(box.socket());
  it.run(1, 1, 1);                           // what comes while the daemon still reads is answered in another order
  it.run(events / 10, most_waiting, burst);  // everything has met everything once
  const double commands_before = server_count(server, "total_commands_processed");
  const auto single = it.run(events / 10, 1, 1);
  out.single_commands.push_back((server_count(server, "total_commands_processed") - commands_before) /
                                    static_cast<double>(single.size()) -
                                producer_commands);
  const char *counted[] = {"total_commands_processed", "total_reads_processed", "total_writes_processed"};
  double before[3];
  for (int i = 0; i < 3; ++i) before[i] = server_count(server, counted[i]);
  const double own = bench::processor_seconds(measured.pid());
  const double server_own = bench::processor_seconds(box.server().pid());
  const double begin = bench::seconds_now();
  const auto waiting = it.run(events, most_waiting, burst);
  out.per_second.push_back(events / (bench::seconds_now() - begin));
  out.own_cpu.push_back((bench::processor_seconds(measured.pid()) - own) / events * 1e6);
  out.server_cpu.push_back((bench::processor_seconds(box.server().pid()) - server_own) / events * 1e6);
  out.waiting_p50.push_back(bench::median(waiting) * 1e3);
  out.single_p50.push_back(bench::median(single) * 1e6);
  out.single_p99.push_back(bench::quantile(single, 0.99) * 1e6);
  std::vector<double> *counts[] = {&out.commands, &out.reads, &out.writes};
  for (int i = 0; i < 3; ++i) counts[i]->push_back((server_count(server, counted[i]) - before[i]) / events);
  out.commands.back() -= producer_commands;
}

// Ratios are the medians of those of the runs; in brackets the least and the largest.
void print(const char *what, const figures (&all)[3], std::vector<double> figures::*figure) {
  std::printf("%-40s", what);
  for (const figures &each : all) std::printf(" %9.2f", bench::median(each.*figure));
  for (const size_t floor : {1, 2}) {
    std::vector<double> ratios;
    for (size_t i = 0; i < (all[0].*figure).size(); ++i)
      ratios.push_back((all[0].*figure)[i] / (all[floor].*figure)[i]);
    std::printf(" %6.3f (%.3f to %.3f)", bench::median(ratios), bench::quantile(ratios, 1e-9),
                bench::quantile(ratios, 1));
  }
  std::printf("\n");
}

}  // namespace

int main(int n_words, char **words) {
  if (n_words < 2) fail("usage: bench_chain FLOOR [EVENTS] [RUNS] [aof]");
  const auto events = static_cast<uint32_t>(n_words > 2 ? std::atoi(words[2]) : 100'000);
  const int runs = n_words > 3 ? std::atoi(words[3]) : 5;
  if (!bench::pin_to_one_core()) fail("cannot be tied to one core");
  harness::sandbox box;
  for (const char *channel : {"dl", "ko_lspan", "ko_platform"})
    std::remove((box.folder() + "/tmp/" + channel + ".zlog").c_str());
  const bool append_only = n_words > 4 && std::strcmp(words[4], "aof") == 0;
  if (append_only)
    box.start_server({"--appendonly", "yes", "--appendfsync", "everysec"});
  else
    box.start_server();

  harness::process bare;
  const std::function<void()> starts[3] = {[&] { box.start_daemon(); },
                                           [&] {
                                             bare.start({words[1], "chain", box.socket()});
                                           },
                                           [&] {
                                             bare.start({words[1], "batches", box.socket()});
                                           }};
  figures all[3];
  std::vector<std::string> dumps[3];
  for (int run = -1; run < runs; ++run)
    for (int i = 0; i < 3; ++i) {
      harness::process &measured = i == 0 ? box.daemon() : bare;
      figures ignored;
      // The first run only shows that all write the same.
      measure(box, measured, starts[i], run < 0 ? 100 : events, run < 0 ? ignored : all[i]);
      if (run < 0) dumps[i] = box.dump();
      measured.stop();
    }
  if (dumps[0] != dumps[1] || dumps[0] != dumps[2]) fail("a floor does not write what the daemon writes");
  std::printf("chain, %s: %u events a run, medians of %d runs\n%50s %9s %9s %8s %26s\n",
              append_only ? "append-only file" : "no persistence", events, runs, "daemon", "floor", "batching",
              "daemon/floor", "daemon/batching");
  print("events/s, 4000 waiting", all, &figures::per_second);
  print("latency p50, 4000 waiting, ms", all, &figures::waiting_p50);
  print("latency p50, one at a time, us", all, &figures::single_p50);
  print("latency p99, one at a time, us", all, &figures::single_p99);
  print("own processor time per event, us", all, &figures::own_cpu);
  print("server's processor time per event, us", all, &figures::server_cpu);
  print("commands per event, 4000 waiting", all, &figures::commands);
  print("commands per event, one at a time", all, &figures::single_commands);
  print("server reads per event, 4000 waiting", all, &figures::reads);
  print("server writes per event, 4000 waiting", all, &figures::writes);
}
