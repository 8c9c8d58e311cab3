// The floor: what the store and its client library cost without a daemon. It stands in the daemon's place, listens to
// the same announcements and answers each with as many commands, transactions and bytes as the daemon does, from
// patterns, without looking at what came.
//
//   bench_floor chain SOCKET    answers session announcements until it is killed
#include <event2/event.h>
#include <hiredis/async.h>
#include <hiredis/hiredis.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "events.h"

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

// The commands of one event, with the SELECTs between databases that they need.
std::vector<bench::pattern> answer_patterns() {
  std::vector<bench::pattern> all;
  uint32_t selected = 8;
  for (const bench::record &what : bench::derived_records(bench::pattern::number)) {
    if (what.kind != ko_store::change_kind::publish && what.hash.db != selected) {
      selected = what.hash.db;
      all.emplace_back(bench::command({"SELECT", std::to_string(selected)}));
    }
    for (const std::string &text : bench::commands_of(what)) all.emplace_back(text);
  }
  return all;
}

struct chain {
  redisAsyncContext *writer;
  std::vector<bench::pattern> answer = answer_patterns();
  uint32_t number = bench::first_number;

  void on_message() {
    for (bench::pattern &part : answer) {
      const std::string_view bytes = part.with(number);
      redisAsyncFormattedCommand(writer, nullptr, nullptr, bytes.data(), bytes.size());
    }
    ++number;
  }
};

int run_chain(const char *socket) {
  event_base *base = event_base_new();
  chain self{connect(base, socket)};
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

}  // namespace

int main(int n_words, char **words) {
  if (n_words == 3 && std::strcmp(words[1], "chain") == 0) return run_chain(words[2]);
  std::fprintf(stderr, "usage: %s chain SOCKET\n", words[0]);
  return 2;
}
