// The daemon and a store that fails: it says once what is wrong, neither spins nor blocks, and converges.
#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <thread>

#include "global_context.h"
#include "in_process.h"
#include "proc/lspan/ko_lspan.h"
#include "proxy.h"
#include "sandbox.h"
#include "store/layout.h"
#include "store/redis_engine.h"
#include "store/store.h"

namespace {
size_t most_bytes = SIZE_MAX;  // that one call sends or receives, of the code in this process; every third says EINTR
size_t io_calls = 0;

bool is_interrupted() {
  errno = EINTR;
  return most_bytes != SIZE_MAX && ++io_calls % 3 == 0;
}
}  // namespace

extern "C" {
ssize_t __real_send(int file, const void *bytes, size_t size, int flags);
ssize_t __real_recv(int file, void *bytes, size_t size, int flags);
ssize_t __wrap_send(int file, const void *bytes, size_t size, int flags) {
  return is_interrupted() ? -1 : __real_send(file, bytes, std::min(size, most_bytes), flags);
}
ssize_t __wrap_recv(int file, void *bytes, size_t size, int flags) {
  return is_interrupted() ? -1 : __real_recv(file, bytes, std::min(size, most_bytes), flags);
}
}

namespace {

using namespace harness;
using namespace std::chrono_literals;
using action = std::function<void(sandbox &)>;
using texts = std::vector<std::string>;

member numbered(uint32_t i) {
  return {.session = 1 + i, .s_ifx = 100 + i, .d_ifx = 1000 + i, .acl = i, .apply = i % 3, .mtp_switch = i % 2};
}

void add_members(const sandbox &box, uint32_t from, uint32_t count) {
  producer others(box.socket());
  for (uint32_t i = from; i < from + count; ++i) others.set(session(numbered(i)));
  for (uint32_t i = 0; i < 3; ++i) others.set(membership(500 + from + i, 1));
  others.set(session({.session = 90, .s_ifx = 99, .d_ifx = group_target(1), .module = 5}));
  others.flush();
}

// Runs commands, the first of them in database 0; gives the last answer.
std::string run(const sandbox &box, const texts &commands) {
  client admin(box.socket());
  std::string answer;
  for (const std::string &command : commands) answer = admin.run(split(command));
  return answer;
}

action commands(const texts &all) {
  return [all](sandbox &box) { run(box, all); };
}

// One transaction with a member and the command behind it: what the daemon makes of the member comes after.
action member_and(const char *command) {
  return [command](sandbox &box) {
    producer others(box.socket());
    others.change(session(numbered(60)).change(ko_store::change_kind::set), split(command));
    others.flush();
  };
}

struct said {
  const char *text;
  size_t times;
};

// Members are added before `begin` where the daemon starts with a store that it can use, and after `end`, once the
// server was started again if it does not run.
struct outage {
  const char *name;
  texts options = {};         // of the server
  const char *password = "";  // of the daemon, which logs in when it has one
  bool starts = true, adds_meanwhile = false;
  action begin = commands({}), end = commands({});
  std::vector<said> log;
};

void PrintTo(const outage &what, std::ostream *out) { *out << what.name; }

constexpr const char *cannot = "cannot be used";
const texts kept = split("--appendonly yes --appendfsync everysec");
const std::string login = "ACL SETUSER switch on allkeys allchannels +@all ";

void kill_server(sandbox &box) { box.server().stop(); }

void kill_server_and_last_writes(sandbox &box) {
  kill_server(box);
  for (const auto &file : std::filesystem::directory_iterator(box.folder() + "/appendonlydir"))
    if (file.path().string().ends_with(".incr.aof"))
      std::filesystem::resize_file(file, file.file_size() - std::min<uintmax_t>(file.file_size(), 3000));
}

void stop_server(sandbox &box) {
  box.server().signal(SIGSTOP);
  std::this_thread::sleep_for(1s);
}

void outrun_daemon(sandbox &box) {
  box.daemon().signal(SIGSTOP);
  for (int i = 0; i < 150; ++i) add_members(box, 20, 30);
  eventually([&] { return run(box, {"CLIENT LIST TYPE pubsub"}).empty(); }, "the end of the slow one");
}

void write_garbage(sandbox &box) {
  const record good = session(numbered(1));
  const std::string large(1 << 17, 'x');
  producer others(box.socket());
  others.raw(4, good.type->name, "stored", "garbage");
  others.raw(8, "u_monitor.mirror_result_info", large, "");
  for (int times = 0; times < 2; ++times) others.set({4, good.type, "announced", large});
  others.announce(4, good.type->name, "garbage");
  others.flush();
  box.settle();
  run(box, {"CLIENT KILL TYPE pubsub"});  // so that all is read again
}

// What is announced of three known members cannot be used. The store has another record of the first, none of the
// second, and of the third one that cannot be used either.
void announce_garbage(sandbox &box) {
  member other = numbered(1);
  other.sample = 9;
  client admin(box.socket());
  admin.run({"SELECT", "4"});
  for (uint32_t i = 1; i <= 3; ++i) {
    const record known = session(numbered(i)),
                 stored{4, known.type, known.key, i == 1 ? session(other).bytes : "garbage"};
    admin.run(i == 2 ? texts{"HDEL", known.type->name, known.key}
                     : texts{"HSET", known.type->name, known.key, stored.bytes});
    std::string announced;
    append_announcement(record{4, known.type, known.key, "garbage"}.change(ko_store::change_kind::set), announced);
    admin.run({"PUBLISH", ko_store::channel_name({4, known.type}), announced});
  }
}

void repair_output(sandbox &box) {
  box.settle();
  EXPECT_EQ(run(box, {"SELECT 8", "HLEN u_monitor.span_mtp_info"}), "15") << "the other outputs go on";
  run(box, {"SELECT 8", "DEL u_monitor.span_dst_info"});
}

const std::vector<outage> outages{
    {.name = "no server at the start",
     .starts = false,
     .begin = kill_server,
     .log = {{"cannot be used: Connection refused", 1}}},
    {.name = "killed, and back with its data",
     .options = kept,
     .begin = kill_server,
     .log = {{"cannot be used: Server closed the connection", 1}, {"cannot be used: Connection refused", 1}}},
    {.name = "killed, and back without its last writes",
     .options = kept,
     .begin = kill_server_and_last_writes,
     .log = {{cannot, 2}}},
    {.name = "killed, and back without its data",
     .begin = kill_server,
     .log = {{"cannot be used: Server closed the connection", 1}, {"cannot be used: Connection refused", 1}}},
    {.name = "the subscriber is cut off",
     .adds_meanwhile = true,
     .begin = commands({"CLIENT KILL TYPE pubsub"}),
     .log = {{cannot, 1}}},
    {.name = "the writer is cut off",
     .adds_meanwhile = true,
     .begin = commands({"CLIENT KILL TYPE normal"}),
     .log = {{cannot, 1}}},
    {.name = "the server pauses",
     .begin = member_and("CLIENT PAUSE 2500 ALL"),
     .log = {{"does not answer", 1}, {"answers again", 1}, {cannot, 0}}},
    {.name = "the server is stopped",
     .begin = stop_server,
     .end = [](sandbox &box) { box.server().signal(SIGCONT); },
     .log = {{cannot, 0}}},
    {.name = "the server is stopped while nothing is to be done",
     .begin =
         [](sandbox &box) {
           stop_server(box);
           eventually([&] { return count_of(box.log(), "does not answer") == 1; }, "that it does not answer");
         },
     .end = [](sandbox &box) { box.server().signal(SIGCONT); },
     .log = {{"answers again", 1}, {cannot, 0}}},
    {.name = "the subscriber is too slow",
     .options = {"--client-output-buffer-limit", "pubsub 32kb 32kb 0"},
     .begin = outrun_daemon,
     .end = [](sandbox &box) { box.daemon().signal(SIGCONT); },
     .log = {{cannot, 1}}},
    {.name = "memory runs out",
     .begin = member_and("CONFIG SET maxmemory 1"),
     .end = commands({"CONFIG SET maxmemory 0"}),
     .log = {{"the store refused 8:", 1}, {"takes everything again", 1}, {cannot, 0}}},
    {.name = "the password is wrong at the start",
     .password = "wrong",
     .starts = false,
     .end = commands({"ACL SETUSER switch >wrong"}),
     .log = {{"cannot be used: WRONGPASS", 1}}},
    {.name = "the password changes",
     .password = "right",
     .begin = commands({"ACL SETUSER switch resetpass >new", "CLIENT KILL USER switch"}),
     .end = commands({"ACL SETUSER switch >right"}),
     .log = {{"cannot be used: Server closed the connection", 1}, {"cannot be used: WRONGPASS", 1}}},
    {.name = "a database is missing",
     .options = {"--databases", "7"},
     .starts = false,
     .end = kill_server,
     .log = {{"cannot be used: ERR DB index is out of range", 1}}},
    {.name = "an input is no hash",
     .begin = commands({"SELECT 4", "RENAME p_policy.data_intf_conf aside", "SET p_policy.data_intf_conf text",
                        "CLIENT KILL TYPE pubsub"}),
     .end = commands({"SELECT 4", "RENAME aside p_policy.data_intf_conf"}),
     .log = {{"4:p_policy.data_intf_conf cannot be read: WRONGTYPE", 1}, {"takes everything again", 1}}},
    {.name = "an output is no hash",
     .adds_meanwhile = true,
     .begin = commands({"SELECT 8", "DEL u_monitor.span_dst_info", "SET u_monitor.span_dst_info text"}),
     .end = repair_output,
     .log = {{"the store refused 8:u_monitor.span_dst_info", 1}, {"takes everything again", 1}}},
    {.name = "others write what is no record",
     .begin = write_garbage,
     .log = {{"is passed over", 4}, {"it does not decode, key 73746f726564", 1}, {cannot, 1}}},
    {.name = "others announce what is no record",
     .begin = announce_garbage,
     .log = {{"is passed over", 3}, {cannot, 0}}},
};

class store : public ::testing::TestWithParam<outage> {};

TEST_P(store, recovers_when) {
  const outage &now = GetParam();
  sandbox box;
  box.start_server(now.options);
  if (*now.password != '\0') {
    run(box, {login + ">right"});
    box.use_socket(box.socket(), R"(,"user":"switch","password":")" + std::string(now.password) + "\"");
  }
  if (now.starts) add_members(box, 0, 10);
  if (now.starts) box.start_daemon();
  ASSERT_TRUE(!now.starts || box.settle());

  const size_t descriptors = now.starts ? box.daemon().descriptors() : 0;
  now.begin(box);
  if (!now.starts) box.start_daemon();
  if (now.adds_meanwhile) add_members(box, 20, 4);
  EXPECT_LE(box.daemon().system_calls(600ms), 1500U) << "it spins";
  now.end(box);
  if (!box.server().running()) box.start_server(now.starts ? now.options : texts{});
  add_members(box, 8, 4);

  ASSERT_TRUE(box.settle());
  const texts expected = of_fresh_daemon(box.inputs());
  EXPECT_GT(expected.size(), 10U);
  if (!eventually([&] { return box.dump() == expected; }, "the right databases"))
    ADD_FAILURE() << difference(box.dump(), expected);
  EXPECT_TRUE(!now.starts || box.daemon().descriptors() == descriptors) << box.daemon().descriptors();
  for (const said &line : now.log) eventually([&] { return count_of(box.log(), line.text) >= line.times; }, line.text);
  for (const said &line : now.log) EXPECT_EQ(count_of(box.log(), line.text), line.times) << line.text << box.log();
  EXPECT_EQ(count_of(box.log(), "-> reading"), count_of(box.log(), "connected to the store")) << "read for no reason";
  EXPECT_EQ(count_of(box.log(), "idle -> starting"), 1U) << "the level of the log was read late";
}

std::string name_of(const ::testing::TestParamInfo<outage> &info) {
  std::string out = info.param.name;
  for (char &c : out)
    if (std::isalnum(static_cast<unsigned char>(c)) == 0) c = '_';
  return out;
}

INSTANTIATE_TEST_SUITE_P(outages, store, ::testing::ValuesIn(outages), name_of);

TEST(restart, is_quiet) {  // and so is a resync
  sandbox box;
  proxy wire(box.folder() + "/wire.sock", box.socket());
  box.use_socket(box.folder() + "/wire.sock");
  box.start_server();
  add_members(box, 0, 10);
  producer others(box.socket());
  for (uint32_t i = 0; i < 5; ++i) others.set(result(numbered(i), i));
  others.flush();
  box.start_daemon();
  ASSERT_TRUE(box.settle());
  for (const size_t reads : {2, 3}) {
    wire.forget();
    if (reads == 2) {
      box.daemon().stop();
      box.start_daemon();
    } else {
      box.daemon().signal(SIGHUP);
    }
    eventually([&] { return count_of(box.log(), "lspan ds over.") == reads; }, "another read");
    ASSERT_TRUE(box.settle());
    size_t deletes = 0;
    size_t flushes = 0;
    for (const std::string &command : wire.commands()) {
      deletes += command.starts_with("HDEL u_monitor.mirror_result_info") ? 1 : 0;
      flushes += command.starts_with("PUBLISH 6:u_bridge.udp_flushdyn") ? 1 : 0;
      EXPECT_FALSE(command.starts_with("HSET")) << command;
    }
    EXPECT_EQ(deletes, 2U) << "only the marks";
    EXPECT_EQ(wire.transactions(), 2U) << "only the marks";
    EXPECT_GT(flushes, 0U);
  }
}

// The daemon in this process, on a server.
class served : public testing::Test {
 protected:
  served() {
    box.start_server();
    ko_store::use_engine([this](vx_global &global) {
      ko_platform::store_address address;
      address.socket = box.socket();
      auto made = std::make_unique<ko_store::redis_engine>(global, address);
      engine = made.get();
      return made;
    });
    lspan_zlog_level = 0;
  }
  ~served() override {
    most_bytes = SIZE_MAX;
    here.kill(false);
  }

  event_base *base() { return ko_platform::context_of(lspan_global.global).base.get(); }
  void serve_until(const std::function<bool()> &done) {
    const auto end = std::chrono::steady_clock::now() + 60s;
    while (std::chrono::steady_clock::now() < end && !done()) event_base_loop(base(), EVLOOP_ONCE);
    EXPECT_LT(std::chrono::steady_clock::now(), end);
  }

  sandbox box;
  world here;
  ko_store::redis_engine *engine = nullptr;
};

// Reading and repairing 20,000 records, and the difference after a break, leave the loop to others.
TEST_F(served, leaves_the_loop_to_others) {
  constexpr uint32_t count = 20'000;
  const auto numbered = [](uint32_t i) { return session({.session = i, .s_ifx = i, .d_ifx = 1, .mtp_switch = 1}); };
  producer others(box.socket());
  for (uint32_t i = 0; i < count; ++i) others.set(numbered(i));
  others.flush();
  ASSERT_EQ(here.start(), 0);

  // Between two turns of a timer, in the processor time of this thread: others may use the machine meanwhile.
  struct watch {
    ko_store::redis_engine *engine;
    std::clock_t last = std::clock();
    std::clock_t longest = 0;
    std::clock_t total = 0;
    bool congested = false;
  } seen{engine};
  const auto look = [](evutil_socket_t, short, void *arg) {
    auto &w = *static_cast<watch *>(arg);
    const std::clock_t now = std::clock();
    w.longest = std::max(w.longest, now - w.last);
    w.total += now - w.last;
    w.last = now;
    w.congested = w.congested || w.engine->congested();
  };
  const ko_platform::event_ptr timer(event_new(base(), -1, EV_PERSIST, look, &seen));
  const timeval often{0, 5000};
  event_add(timer.get(), &often);
  const auto settle = [&](uint64_t reads, const std::string &records) {
    serve_until([&] {
      return here.tested().counts().reads == reads && here.tested().settled() &&
             run(box, {"SELECT 8", "HLEN u_monitor.span_dst_info"}) == records;
    });
    EXPECT_TRUE(std::exchange(seen.congested, false) && !engine->congested());
  };
  settle(1, "20000");
  for (uint32_t i = 0; i < count; i += 2) others.del(numbered(i));
  run(box, {"CLIENT KILL TYPE pubsub"});
  others.flush();
  seen.last = std::clock();
  settle(2, "10000");
  std::cout << "longest gap " << seen.longest << " of " << seen.total << "\n";
  EXPECT_LT(seen.longest, seen.total / 5);
}

TEST_F(served, takes_what_one_call_takes) {
  add_members(box, 0, 10);
  most_bytes = 1;
  ASSERT_EQ(here.start(), 0);
  for (const uint32_t more : {20, 30}) {
    add_members(box, more, 4);
    const texts expected = of_fresh_daemon(box.inputs());
    serve_until([&] { return here.tested().settled() && engine->quiet() && box.dump() == expected; });
    most_bytes = 7;
  }
}

}  // namespace
