// The daemon and a store that fails: it says once what is wrong, neither spins nor blocks, and converges.
#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <thread>

#include "global_context.h"
#include "p_policy.pb-c.h"
#include "proxy.h"
#include "sandbox.h"
#include "store/redis_engine.h"
#include "store/registration.h"
#include "u_monitor.pb-c.h"
#include "vx_mom.h"

namespace {

using namespace harness;
using namespace std::chrono_literals;

member numbered(uint32_t i) {
  return {.session = 1 + i, .s_ifx = 100 + i, .d_ifx = 1000 + i, .acl = i, .apply = i % 3, .mtp_switch = i % 2};
}

void add_members(sandbox &box, uint32_t from, uint32_t count) {
  producer others(box.socket());
  for (uint32_t i = from; i < from + count; ++i) others.set(session(numbered(i)));
  for (uint32_t i = 0; i < 3; ++i) others.set(membership(500 + from + i, 1));
  others.set(session({.session = 90, .s_ifx = 99, .d_ifx = group_target(1), .module = 5}));
  others.flush();
}

// Runs commands in a database; gives the last answer.
std::string run(const sandbox &box, const char *db, const std::vector<std::vector<std::string>> &commands) {
  client admin(box.socket());
  std::string answer = admin.run({"SELECT", db});
  for (const std::vector<std::string> &words : commands) answer = admin.run(words);
  return answer;
}
std::string run(const sandbox &box, const std::vector<std::string> &words) { return run(box, "0", {words}); }

// One transaction with a member, announced, and `command` behind it: what the daemon makes of the member comes after.
void add_member_and(const sandbox &box, const std::vector<std::string> &command) {
  const record what = session(numbered(60));
  std::string bytes;
  ko_store::append_announcement({ko_store::change_kind::set, what.key, what.bytes}, bytes);
  const std::string answer = run(box, "4",
                                 {{"MULTI"},
                                  {"HSET", what.type->name, what.key, what.bytes},
                                  {"PUBLISH", ko_store::channel_name(4, what.type->name), bytes},
                                  command,
                                  {"EXEC"}});
  EXPECT_EQ(answer.find("ERR"), std::string::npos);
}

std::vector<std::string> of_fresh_daemon(const std::vector<std::string> &inputs) {
  sandbox twin;
  twin.start_server();
  twin.restore(inputs);
  twin.start_daemon();
  EXPECT_TRUE(twin.settle());
  return twin.dump();
}

struct said {
  const char *text;
  size_t times;
};

struct outage {
  const char *name;
  std::vector<std::string> options;  // of the server
  const char *password;
  std::function<void(sandbox &)> begin;
  std::function<void(sandbox &)> end;
  std::vector<said> log;
};

void PrintTo(const outage &what, std::ostream *out) { *out << what.name; }

constexpr const char *cannot = "cannot be used";
const std::vector<std::string> kept{"--appendonly", "yes", "--appendfsync", "everysec"};
const auto nothing = [](sandbox &) {};

const std::vector<outage> outages{
    {"killed, and back with its data",
     kept,
     "right",
     [](sandbox &box) { box.server().stop(); },
     [](sandbox &box) { box.start_server(kept); },
     {{"cannot be used: Server closed the connection", 1}, {"cannot be used: Connection refused", 1}}},
    {"killed, and back without its last writes",
     kept,
     "right",
     [](sandbox &box) {
       box.server().stop();
       for (const auto &file : std::filesystem::directory_iterator(box.folder() + "/appendonlydir"))
         if (file.path().string().ends_with(".incr.aof"))
           std::filesystem::resize_file(file, file.file_size() - std::min<uintmax_t>(file.file_size(), 3000));
     },
     [](sandbox &box) { box.start_server(kept); },
     {{cannot, 2}}},
    {"killed, and back without its data",
     {},
     "",
     [](sandbox &box) { box.server().stop(); },
     [](sandbox &box) {
       box.start_server();
       add_members(box, 3, 4);
     },
     {{"cannot be used: Server closed the connection", 1}, {"cannot be used: Connection refused", 1}}},
    {"the subscriber is cut off",
     {},
     "right",
     [](sandbox &box) {
       run(box, {"CLIENT", "KILL", "TYPE", "pubsub"});
       add_members(box, 20, 4);
     },
     nothing,
     {{cannot, 1}}},
    {"the writer is cut off",
     {},
     "right",
     [](sandbox &box) {
       run(box, {"CLIENT", "KILL", "TYPE", "normal"});
       add_members(box, 20, 4);
     },
     nothing,
     {{cannot, 1}}},
    {"the server pauses",
     {},
     "right",
     [](sandbox &box) {
       add_member_and(box, {"CLIENT", "PAUSE", "2500", "ALL"});
     },
     nothing,
     {{"does not answer", 1}, {"answers again", 1}, {cannot, 0}}},
    {"the server is stopped",
     {},
     "right",
     [](sandbox &box) {
       box.server().signal(SIGSTOP);
       std::this_thread::sleep_for(1s);
     },
     [](sandbox &box) { box.server().signal(SIGCONT); },
     {{cannot, 0}}},
    {"the subscriber is too slow",
     {"--client-output-buffer-limit", "pubsub 32kb 32kb 0"},
     "right",
     [](sandbox &box) {
       box.daemon().signal(SIGSTOP);
       for (int i = 0; i < 150; ++i) add_members(box, 20, 30);
       eventually([&] { return run(box, {"CLIENT", "LIST", "TYPE", "pubsub"}).empty(); }, "the end of the slow one");
     },
     [](sandbox &box) { box.daemon().signal(SIGCONT); },
     {{cannot, 1}}},
    {"memory runs out",
     {},
     "right",
     [](sandbox &box) {
       add_member_and(box, {"CONFIG", "SET", "maxmemory", "1"});
     },
     [](sandbox &box) {
       run(box, {"CONFIG", "SET", "maxmemory", "0"});
     },
     {{"the store refused 8:", 1}, {"takes everything again", 1}, {cannot, 0}}},
    {"the password is wrong at the start",
     {},
     "wrong",
     nothing,
     [](sandbox &box) {
       run(box, {"ACL", "SETUSER", "switch", ">wrong"});
       add_members(box, 3, 4);
     },
     {{"cannot be used: WRONGPASS", 1}}},
    {"the password changes",
     {},
     "right",
     [](sandbox &box) {
       run(box, {"ACL", "SETUSER", "switch", "resetpass", ">new"});
       run(box, {"CLIENT", "KILL", "USER", "switch"});
     },
     [](sandbox &box) {
       run(box, {"ACL", "SETUSER", "switch", ">right"});
     },
     {{"cannot be used: Server closed the connection", 1}, {"cannot be used: WRONGPASS", 1}}},
    {"a database is missing",
     {"--databases", "7"},
     "right",
     nothing,
     [](sandbox &box) {
       box.server().stop();
       box.start_server();
       add_members(box, 3, 4);
     },
     {{"cannot be used: ERR DB index is out of range", 1}}},
    {"an input is no hash",
     {},
     "right",
     [](sandbox &box) {
       run(box, "4", {{"RENAME", "p_policy.data_intf_conf", "aside"}, {"SET", "p_policy.data_intf_conf", "text"}});
       run(box, {"CLIENT", "KILL", "TYPE", "pubsub"});
     },
     [](sandbox &box) {
       run(box, "4", {{"RENAME", "aside", "p_policy.data_intf_conf"}});
     },
     {{"4:p_policy.data_intf_conf cannot be read: WRONGTYPE", 1}, {"takes everything again", 1}}},
    {"an output is no hash",
     {},
     "right",
     [](sandbox &box) {
       run(box, "8", {{"DEL", "u_monitor.span_dst_info"}, {"SET", "u_monitor.span_dst_info", "text"}});
       add_members(box, 20, 4);
       box.settle();
       EXPECT_EQ(run(box, "8", {{"HLEN", "u_monitor.span_mtp_info"}}), "15") << "the other outputs go on";
     },
     [](sandbox &box) {
       run(box, "8", {{"DEL", "u_monitor.span_dst_info"}});
     },
     {{"the store refused 8:u_monitor.span_dst_info", 1}, {"takes everything again", 1}}},
};

class store : public ::testing::TestWithParam<outage> {};

TEST_P(store, recovers_when) {
  const outage &now = GetParam();
  const bool starts =
      std::string(now.password) != "wrong" && now.options != std::vector<std::string>{"--databases", "7"};
  sandbox box;
  box.start_server(now.options);
  run(box, {"ACL", "SETUSER", "switch", "on", ">right", "allkeys", "allchannels", "+@all"});
  if (*now.password != '\0')
    box.use_socket(box.socket(), R"(,"user":"switch","password":")" + std::string(now.password) + "\"");
  if (starts) add_members(box, 0, 10);
  box.start_daemon();
  ASSERT_TRUE(!starts || box.settle());

  const size_t descriptors = box.daemon().descriptors();
  now.begin(box);
  const double before = box.daemon().cpu_seconds();
  std::this_thread::sleep_for(600ms);
  EXPECT_LE(box.daemon().cpu_seconds() - before, 0.06) << "it spins";
  now.end(box);
  if (*now.password == 'r') run(box, {"ACL", "SETUSER", "switch", "on", ">right", "allkeys", "allchannels", "+@all"});

  ASSERT_TRUE(box.settle());
  const std::vector<std::string> expected = of_fresh_daemon(box.inputs());
  EXPECT_GT(expected.size(), 10U);
  if (!eventually([&] { return box.dump() == expected; }, "the right databases"))
    ADD_FAILURE() << difference(box.dump(), expected);
  EXPECT_TRUE(!starts || box.daemon().descriptors() == descriptors) << box.daemon().descriptors();
  for (const said &line : now.log) eventually([&] { return count_of(box.log(), line.text) >= line.times; }, line.text);
  for (const said &line : now.log) EXPECT_EQ(count_of(box.log(), line.text), line.times) << line.text << box.log();
}

std::string name_of(const ::testing::TestParamInfo<outage> &info) {
  std::string out = info.param.name;
  for (char &c : out)
    if (std::isalnum(static_cast<unsigned char>(c)) == 0) c = '_';
  return out;
}

INSTANTIATE_TEST_SUITE_P(outages, store, ::testing::ValuesIn(outages), name_of);

TEST(restart, is_quiet) {
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
  box.daemon().stop();
  wire.forget();
  box.start_daemon();
  eventually([&] { return count_of(box.log(), "lspan ds over.") == 2; }, "the second read");
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

TEST(announcements, lost_ones_are_made_good) {
  sandbox box;
  proxy wire(box.folder() + "/wire.sock", box.socket());
  box.use_socket(box.folder() + "/wire.sock");
  box.start_server();
  add_members(box, 0, 10);
  box.start_daemon();
  ASSERT_TRUE(box.settle());
  wire.deafen(true);
  add_members(box, 5, 10);
  std::this_thread::sleep_for(20ms);  // for the announcements to get lost
  wire.cut();
  wire.deafen(false);
  ASSERT_TRUE(box.settle());
  EXPECT_EQ(difference(box.dump(), of_fresh_daemon(box.inputs())), "");
}

// Reading and repairing 20,000 records, and the difference after a break, leave the loop to others.
TEST(loop, is_never_blocked) {
  sandbox box;
  box.start_server();
  constexpr uint32_t count = 20'000;
  producer others(box.socket());
  for (uint32_t i = 0; i < count; ++i) others.set(session({.session = i, .s_ifx = i, .d_ifx = 1}));
  others.flush();

  const std::unique_ptr<vx_global, decltype(&vx_global_finish)> context(vx_global_init("test"), &vx_global_finish);
  event_base *base = ko_platform::context_of(context.get()).base.get();
  ko_platform::store_address address;
  address.socket = box.socket();
  auto owned = std::make_unique<ko_store::registration>(*context, "test",
                                                        std::make_unique<ko_store::redis_engine>(*context, address));
  ko_store::registration &tested = *owned;
  ko_platform::context_of(context.get()).store = std::move(owned);

  UMonitor__MirrorIndex key = U_MONITOR__MIRROR_INDEX__INIT;
  UMonitor__SpanSrcInfoIndex out_key = U_MONITOR__SPAN_SRC_INFO_INDEX__INIT;
  UMonitor__MirrorLspanInfo in = U_MONITOR__MIRROR_LSPAN_INFO__INIT;
  UMonitor__SpanDstInfo out = U_MONITOR__SPAN_DST_INFO__INIT;
  out_key.t_user = const_cast<char *>("test");
  in.index = &key;
  out.index = &out_key;
  const mom_ds_entry input{&in.base, 4, 1, 0, 0, 0, 0};
  const mom_ds_entry output{&out.base, 8, 1, 1, 0, 0, 0};
  ASSERT_EQ(tested.set_option(tested.declare(&input, 1, &output, 1), VX_MOM_OPT_OWN_RECORDS, 1), 0);
  for (const uint32_t kind : {VX_MOM_EVENT_SET, VX_MOM_EVENT_DEL})
    tested.on_key_event(input, kind,
                        {[](void *self, uint32_t is_del, const void *message) -> int32_t {
                           UMonitor__SpanSrcInfoIndex made = U_MONITOR__SPAN_SRC_INFO_INDEX__INIT;
                           UMonitor__SpanDstInfo dst = U_MONITOR__SPAN_DST_INFO__INIT;
                           made.t_user = const_cast<char *>("test");
                           made.session_id =
                               static_cast<const UMonitor__MirrorLspanInfo *>(message)->index->session_num;
                           dst.index = &made;
                           using ko_store::change_kind;
                           return static_cast<ko_store::registration *>(self)->put(
                               8, dst.base, is_del != 0 ? change_kind::del : change_kind::set);
                         },
                         &tested});

  // Between two turns of a timer, in the processor time of this thread: others may use the machine meanwhile.
  using clock = std::chrono::steady_clock;
  struct watch {
    std::clock_t last = std::clock();
    std::clock_t longest = 0;
  } seen;
  const ko_platform::event_ptr timer(event_new(
      base, -1, EV_PERSIST,
      [](evutil_socket_t, short, void *arg) {
        auto &w = *static_cast<watch *>(arg);
        w.longest = std::max(w.longest, std::clock() - w.last);
        w.last = std::clock();
      },
      &seen));
  const timeval often{0, 5000};
  event_add(timer.get(), &often);
  const auto settle = [&](uint64_t reads, const std::string &records) {
    const auto end = clock::now() + 60s;
    while (clock::now() < end && !(tested.counts().reads == reads && tested.settled() &&
                                   run(box, "8", {{"HLEN", "u_monitor.span_dst_info"}}) == records))
      event_base_loop(base, EVLOOP_ONCE);
    EXPECT_LT(clock::now(), end);
  };
  settle(1, "20000");
  for (uint32_t i = 0; i < count; i += 2) others.del(session({.session = i, .s_ifx = i, .d_ifx = 1}));
  client(box.socket()).run({"CLIENT", "KILL", "TYPE", "pubsub"});
  others.flush();
  seen.last = std::clock();
  settle(2, "10000");
  const auto milliseconds = 1000 * seen.longest / CLOCKS_PER_SEC;
  RecordProperty("longest_gap_ms", static_cast<int>(milliseconds));
  std::cout << "longest gap " << milliseconds << " ms\n";
  EXPECT_LT(milliseconds, 100);
}

}  // namespace
