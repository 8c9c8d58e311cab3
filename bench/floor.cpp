// The floor: what the store and its client library cost without a daemon. It stands in the daemon's place, listens to
// the same announcements and answers each with as many commands and bytes as the daemon does, from patterns, without
// looking at what came.
//
//   bench_floor chain SOCKET               answers session announcements until it is killed, each record with a
//                                          transaction of its own
//   bench_floor batches SOCKET             the same, with one transaction for what was read at once, as the daemon does
//   bench_floor recovery SOCKET N WRITES   reads what the daemon reads at its start, then writes what it writes for N
//                                          events: all of it (WRITES 1), or only the flush requests (0)
#include <event2/event.h>
#include <hiredis/async.h>
#include <hiredis/hiredis.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "events.h"
#include "figures.h"

namespace {

struct hooks {
  event *readable;
  event *writable;
};

event *of(void *data, event *hooks::*which) { return static_cast<hooks *>(data)->*which; }

redisAsyncContext *connect(event_base *base, const char *socket) {
  redisAsyncContext *c = redisAsyncConnectUnix(socket);
  if (c == nullptr || c->err != 0) {
    std::fprintf(stderr, "cannot connect to %s\n", socket);
    std::exit(1);
  }
  const auto on_read = [](evutil_socket_t, short, void *at) {
    redisAsyncHandleRead(static_cast<redisAsyncContext *>(at));
  };
  const auto on_write = [](evutil_socket_t, short, void *at) {
    redisAsyncHandleWrite(static_cast<redisAsyncContext *>(at));
  };
  c->ev.data = new hooks{event_new(base, c->c.fd, EV_READ | EV_PERSIST, on_read, c),
                         event_new(base, c->c.fd, EV_WRITE, on_write, c)};
  c->ev.addWrite = [](void *data) { event_add(of(data, &hooks::writable), nullptr); };
  c->ev.delWrite = [](void *data) { event_del(of(data, &hooks::writable)); };
  event_add(of(c->ev.data, &hooks::readable), nullptr);
  event_add(of(c->ev.data, &hooks::writable), nullptr);
  redisAsyncSetDisconnectCallback(c, [](const redisAsyncContext *, int) { std::exit(0); });
  return c;
}

// The commands of one event, with the SELECTs between databases that they need. `batches`: without transactions.
std::vector<bench::pattern> answer_patterns(bool batches = false) {
  std::vector<bench::pattern> all;
  uint32_t selected = 8;
  for (const bench::record &what : bench::derived_records(bench::pattern::number)) {
    if (what.kind != ko_store::change_kind::publish && what.hash.db != selected) {
      selected = what.hash.db;
      all.emplace_back(bench::command({"SELECT", std::to_string(selected)}));
    }
    for (const std::string &text : bench::commands_of(what))
      if (!batches || (text.find("\nMULTI\r") == text.npos && text.find("\nEXEC\r") == text.npos))
        all.emplace_back(text);
  }
  return all;
}

struct chain {
  event_base *base;
  bool batches;
  redisAsyncContext *writer = nullptr;
  std::vector<bench::pattern> answer = answer_patterns(batches);
  uint32_t number = bench::first_number;
  uint32_t in_batch = 0;  // events
  event *end = nullptr;   // of the batch, when everything was taken that was read at once

  static constexpr uint32_t most_in_batch = 100;

  void send(std::string_view bytes) {
    redisAsyncFormattedCommand(writer, nullptr, nullptr, bytes.data(), bytes.size());
  }

  void on_message() {
    if (batches && in_batch++ == 0) {
      send("*1\r\n$5\r\nMULTI\r\n");
      event_active(end, EV_TIMEOUT, 0);
    }
    for (bench::pattern &part : answer) send(part.with(number));
    ++number;
    if (in_batch == most_in_batch) end_batch();
  }

  void end_batch() {
    if (in_batch > 0) send("*1\r\n$4\r\nEXEC\r\n");
    in_batch = 0;
  }
};

int run_chain(const char *socket, bool batches) {
  event_base *base = event_base_new();
  chain self{base, batches};
  self.writer = connect(base, socket);
  self.end = event_new(
      base, -1, 0, [](evutil_socket_t, short, void *at) { static_cast<chain *>(at)->end_batch(); }, &self);
  redisAsyncContext *reader = connect(base, socket);
  redisAsyncCommand(self.writer, nullptr, nullptr, "SELECT 8");
  redisAsyncCommand(
      reader,
      [](redisAsyncContext *, void *answer, void *at) {
        const auto *reply = static_cast<const redisReply *>(answer);
        if (reply != nullptr && std::strcmp(reply->element[0]->str, "message") == 0)
          static_cast<chain *>(at)->on_message();
      },
      &self, "SUBSCRIBE %s", bench::session_channel().c_str());
  return event_base_loop(base, EVLOOP_NO_EXIT_ON_EMPTY);
}

// ---- recovery ----

// Hashes that the daemon reads: its inputs, and its own records in its outputs.
constexpr std::pair<int, const char *> hashes[] = {
    {4, "u_monitor.mirror_lspan_info"},  {4, "p_policy.data_intf_conf"},     {8, "u_monitor.mirror_result_info"},
    {8, "u_monitor.span_port_src_info"}, {8, "u_monitor.span_acl_src_info"}, {8, "u_monitor.span_vlan_src_info"},
    {8, "u_monitor.span_dst_info"},      {8, "u_monitor.span_mtp_info"},     {4, "u_monitor.mirror_result_info"},
    {6, "u_bridge.udp_pt_learn"}};
constexpr size_t n_hashes = std::size(hashes);

struct recovery {
  event_base *base;
  redisAsyncContext *writer;
  uint32_t n;
  bool writes;
  std::vector<bench::pattern> answer = answer_patterns();
  bench::pattern flush{bench::commands_of(bench::derived_records(bench::pattern::number)[3])[0]};
  size_t reading = n_hashes;
  int selected = 0;
  uint32_t sent = 0;
  struct scan {
    recovery *self;
    size_t hash;
  } scans[n_hashes] = {};

  void ask_page(size_t i, const char *cursor) {
    if (hashes[i].first != selected) redisAsyncCommand(writer, nullptr, nullptr, "SELECT %d", hashes[i].first);
    selected = hashes[i].first;
    scans[i] = {this, i};
    redisAsyncCommand(writer, on_page, &scans[i], "HSCAN %s %s COUNT 1000", hashes[i].second, cursor);
  }

  static void on_page(redisAsyncContext *, void *answer, void *at) {
    const auto *reply = static_cast<const redisReply *>(answer);
    const scan &of = *static_cast<scan *>(at);
    if (reply == nullptr) return;
    const char *cursor = reply->element[0]->str;
    if (std::strcmp(cursor, "0") != 0) return of.self->ask_page(of.hash, cursor);
    if (--of.self->reading > 0) return;
    std::printf("%.4f\n", bench::seconds_now());
    std::fflush(stdout);
    redisAsyncCommand(of.self->writer, nullptr, nullptr, "SELECT 8");
    of.self->send_some();
  }

  // A thousand events; the next thousand when these are answered.
  void send_some() {
    if (sent == n) return void(event_base_loopbreak(base));
    for (const uint32_t end = std::min(n, sent + 1000); sent < end; ++sent) {
      const auto send = [&](bench::pattern &part) {
        const std::string_view bytes = part.with(bench::first_number + sent);
        redisAsyncFormattedCommand(writer, nullptr, nullptr, bytes.data(), bytes.size());
      };
      if (!writes) send(flush);
      if (writes)
        for (bench::pattern &part : answer) send(part);
    }
    redisAsyncCommand(
        writer, [](redisAsyncContext *, void *, void *at) { static_cast<recovery *>(at)->send_some(); }, this, "PING");
  }
};

int run_recovery(const char *socket, uint32_t n, bool writes) {
  event_base *base = event_base_new();
  recovery self{base, connect(base, socket), n, writes};
  for (size_t i = 0; i < n_hashes; ++i) self.ask_page(i, "0");
  return event_base_dispatch(base);
}

}  // namespace

int main(int n_words, char **words) {
  if (n_words == 3 && std::strcmp(words[1], "chain") == 0) return run_chain(words[2], false);
  if (n_words == 3 && std::strcmp(words[1], "batches") == 0) return run_chain(words[2], true);
  if (n_words == 5 && std::strcmp(words[1], "recovery") == 0)
    return run_recovery(words[2], static_cast<uint32_t>(std::atoi(words[3])), std::atoi(words[4]) != 0);
  std::fprintf(stderr, "usage: %s chain|batches SOCKET | recovery SOCKET N WRITES\n", words[0]);
  return 2;
}
