// Parts of the platform by themselves: the platform file, the table of records; and the daemon that cannot start.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <map>
#include <random>

#include "libddm.h"
#include "platform_config.h"
#include "rdnd_lib.h"
#include "sandbox.h"
#include "store/pool.h"
#include "store/record_table.h"
#include "u_monitor.pb-c.h"
#include "vx_global.h"
#include "vx_mom.h"

namespace {

using namespace harness;

struct file_case {
  std::string text;
  std::string outcome;  // "<socket or host:port> <user> <ports> <log file>", or what is wrong behind the file's name
};

const file_case files[] = {
    {"{}", "/run/redis/redis-server.sock  - "},
    {R"({"store":{"host":"h"}})", "h:6379  - "},
    {R"({"store":{"sentinels":["a","b:1","[::1]","[::2]:65535"],"master":"m","user":"u","password":"p"}})",
     "the master \"m\" at a:26379 b:1 ::1:26379 ::2:65535 u - "},
    {R"({"store":{"sentinels":[],"master":"m"}})", ": store.sentinels: must be an array of texts \"host:port\""},
    {R"({"store":{"sentinels":["a:"],"master":"m"}})", ": store.sentinels: must hold texts \"host:port\""},
    {R"({"store":{"sentinels":["a:65536"],"master":"m"}})", ": store.sentinels: must hold texts \"host:port\""},
    {R"({"store":{"sentinels":["[::1"],"master":"m"}})", ": store.sentinels: must hold texts \"host:port\""},
    {R"({"store":{"sentinels":[7],"master":"m"}})", ": store.sentinels: must hold texts \"host:port\""},
    {R"({"store":{"sentinels":["a"]}})", ": store: \"sentinels\" need the name of the \"master\""},
    {R"({"store":{"sentinels":["a"],"master":"m","host":"h"}})",
     ": store: \"sentinels\" stand for \"socket\" and \"host\""},
    {R"({"store":{"master":"m"}})", ": store: names no \"sentinels\""},
    {R"({"store":{"host":"h","port":65535,"user":"u","password":"p"},"log":{"file":"/l"}})", "h:65535 u - /l"},
    {R"({"ports":{}})", "/run/redis/redis-server.sock   "},
    {R"({"ports":{"a":{"ifx":1,"phyid":0},"b":{"ifx":4294967295,"phyid":7}}})",
     "/run/redis/redis-server.sock  a=1:0,b=4294967295:7, "},
    {"", ":1:1: malformed JSON"},
    {"{\n  \"store\": {\"socket\": }\n}", ":2:23: malformed JSON"},
    {"{} x", ":1:4: malformed JSON"},
    {"[]", ": must be an object"},
    {R"({"stor":{}})", ": unknown member \"stor\"; those that are known: acls, forward, log, ports, redundancy, store"},
    {R"({"store":[]})", ": store: must be an object"},
    {R"({"store":{"socket":"/s","host":"h"}})", ": store: name either \"socket\" or \"host\", not both"},
    {R"({"store":{"socket":""}})", ": store: names neither a socket nor a host"},
    {R"({"store":{"socket":5}})", ": store.socket: must be a text"},
    {R"({"store":{"password":"a\u0000b"}})", ": store.password: must not hold a NUL character"},
    {R"({"store":{"user":"u"}})", ": store: \"user\" needs \"password\""},
    {R"({"store":{"host":"h","port":0}})", ": store.port: must be a number from 1 to 65535"},
    {R"({"store":{"host":"h","port":1.5}})", ": store.port: must be a number from 1 to 65535"},
    {R"({"ports":{"a":{"ifx":1}}})", ": ports.a: needs \"ifx\" and \"phyid\""},
    {R"({"ports":{"a":{"ifx":0,"phyid":1}}})", ": ports.a.ifx: must be a number from 1 to 4294967295"},
    {R"({"ports":{"a":{"ifx":1,"phyid":4294967296}}})", ": ports.a.phyid: must be a number from 0 to 4294967295"},
    {R"({"ports":{"a":{"ifx":1,"phyid":1,"x":1}}})",
     ": ports.a: unknown member \"x\"; those that are known: device, ifx, phyid"},
    {R"({"ports":{"a":{"ifx":1,"phyid":1},"b":{"ifx":1,"phyid":2}}})", ": ports.b: ifx 1 has another name already"},
    {R"({"ports":{"":{"ifx":1,"phyid":1}}})", ": ports.: a port needs a name"},
    {R"({"ports":{"5":{"ifx":1,"phyid":1}}})", ": ports.5: this name would be read as an interface index"},
    {R"({"ports":{"none":{"ifx":1,"phyid":1}}})", ": ports.none: this name stands for no port"},
    {R"({"ports":{"group:3":{"ifx":1,"phyid":1}}})", ": ports.group:3: this name would be read as a group"},
    {"{\"\xff\":1}", ":1:3: malformed JSON"},
    {R"({"store":{"port":1e999}})", ": holds a number that is too large for anything"},
    {R"({"store":[[[[[[[[]]]]]]]]})", ": store: must be an object"},
    {R"({"store":[[[[[[[[[]]]]]]]]]})", ": is nested too deeply"},
    {std::string(100'000, '['), ": is nested too deeply"},
    {"{}" + std::string((4 << 20) - 2, ' '), "/run/redis/redis-server.sock  - "},
    {"{}" + std::string((4 << 20) - 1, ' '), ": is larger than 4 MiB"},
    {R"({"store":{"socket":")" + std::string(107, 's') + "\"}}", std::string(107, 's') + "  - "},
    {R"({"store":{"socket":")" + std::string(108, 's') + "\"}}", ": store.socket: is longer than 107 bytes"},
};

TEST(platform_file, says_where_and_what) {
  const sandbox box;
  const std::string path = box.folder() + "/file";
  for (const file_case &now : files) {
    write_file(path, now.text);
    std::string outcome;
    try {
      const ko_platform::config read = ko_platform::load_config(path);
      outcome = to_string(read.store);
      if (!read.store.sentinels.empty()) outcome += " at";
      for (const auto &[host, port] : read.store.sentinels) outcome += " " + host + ":" + std::to_string(port);
      outcome += " " + read.store.user + " " + (read.has_ports ? "" : "-");
      for (const ko_platform::port &port : read.ports)
        outcome += port.name + "=" + std::to_string(port.ifx) + ":" + std::to_string(port.phyid) + ",";
      outcome += " " + read.log.file;
    } catch (const ko_platform::config_error &error) {
      outcome = std::string(error.what()).substr(path.size());
    }
    EXPECT_EQ(outcome, now.outcome) << now.text.substr(0, 100);
  }
  EXPECT_EQ(to_string(ko_platform::load_config(path + ".none").store), "/run/redis/redis-server.sock");
  ASSERT_EQ(mkfifo((path + ".fifo").c_str(), 0600), 0);
  for (const std::string &none : {box.folder(), path + ".fifo", std::string("/dev/zero")})
    EXPECT_THROW(ko_platform::load_config(none), ko_platform::config_error) << none;
}

TEST(translation, is_the_map_of_ports_or_none) {
  const auto phyid_of = [](uint32_t ifx) {
    uint32_t phyid = 7;
    const int32_t status = libddm_get_phyid_by_ifx(ifx, &phyid);
    return std::to_string(status) + " " + std::to_string(phyid);
  };
  ko_platform::config settings;
  ko_platform::use_config(settings);
  EXPECT_EQ(libddm_init(nullptr, nullptr), 0);
  EXPECT_EQ(phyid_of(5) + "," + phyid_of(UINT32_MAX), "0 5,0 4294967295");
  settings.has_ports = true;
  ko_platform::use_config(settings);
  EXPECT_EQ(libddm_init(nullptr, nullptr), 0);
  EXPECT_EQ(phyid_of(5), "-7 7");
  settings.ports = {{"a", 5, 105}, {"b", 6, 105}, {"c", 7, 0}};
  ko_platform::use_config(settings);
  EXPECT_EQ(libddm_init(nullptr, nullptr), 0);
  EXPECT_EQ(phyid_of(5) + "," + phyid_of(6) + "," + phyid_of(7) + "," + phyid_of(105), "0 105,0 105,0 0,-7 7");
}

TEST(calls, refuse_what_is_missing) {
  ko_platform::use_config({});
  vx_global *none = nullptr, *bare = vx_global_init(nullptr);
  const auto event = [](void *, uint32_t, const void *) { return 0; };
  UMonitor__MirrorLspanInfo record = U_MONITOR__MIRROR_LSPAN_INFO__INIT;
  mom_ds_entry entry{};
  entry.db_id = 4;
  entry.record = &record.base;
  const uint32_t one = 1;
  for (vx_global *global : {none, bare})  // without a store
    for (const auto call : {vx_mom_set, vx_mom_del, vx_mom_publish})
      EXPECT_EQ(call(global, 4, &record.base, 0, 0), VX_MOM_INVALID);
  EXPECT_EQ(vx_mom_reg_ds(nullptr, &entry, 1, nullptr, 0), 0U);
  EXPECT_EQ(vx_mom_set_ds_opt(nullptr, 1, 2, &one), VX_MOM_INVALID);
  EXPECT_EQ(vx_mom_reg_key_event(nullptr, &entry, 1, event, nullptr), VX_MOM_INVALID);
  EXPECT_EQ(vx_mom_reg_all_ds_event(
                nullptr, 1, [](void *) { return 0; }, nullptr),
            VX_MOM_INVALID);

  vx_mom_ab *ab = vx_mom_ab_init(bare, nullptr, nullptr);
  ASSERT_NE(ab, nullptr);
  EXPECT_EQ(vx_mom_reg_ds(ab, nullptr, 1, nullptr, 0), 0U);
  EXPECT_EQ(vx_mom_reg_ds(ab, nullptr, 0, nullptr, 1), 0U);
  EXPECT_EQ(vx_mom_set_ds_opt(ab, 1, 2, nullptr), VX_MOM_INVALID);
  EXPECT_EQ(vx_mom_reg_key_event(ab, nullptr, 1, event, nullptr), VX_MOM_INVALID);
  EXPECT_EQ(vx_mom_reg_all_ds_event(ab, 1, nullptr, nullptr), VX_MOM_INVALID);
  for (const ProtobufCMessage *nothing : {static_cast<ProtobufCMessage *>(nullptr), &record.base})
    EXPECT_EQ(vx_mom_set(bare, 4, nothing, 0, 0), VX_MOM_MISSING);
  EXPECT_EQ(rdnd_lib_mom_reg(nullptr), -4);
  vx_global_run(nullptr);
  vx_global_finish(nullptr);
  vx_global_finish(bare);
}

TEST(daemon, ends_when_it_cannot_work) {
  sandbox box;
  box.platform_file("{,}");
  box.start_daemon();
  EXPECT_EQ(box.daemon().wait(), 0);
  const std::string errors = read_file(box.folder() + "/stderr");
  EXPECT_EQ(count_of(errors, "/etc/ko_platform/platform.json:1:2: malformed JSON"), 1U) << errors;
  EXPECT_EQ(count_of(errors, "mom_ab init fail"), 1U) << errors;
  box.use_socket(box.socket());
  box.start_server();
  box.start_daemon();
  ASSERT_TRUE(box.settle());
  process second;
  box.start_daemon(second);
  EXPECT_EQ(second.wait(), 256 - 11);
  EXPECT_EQ(count_of(box.log(), "lock lockfile failed"), 1U);
  EXPECT_TRUE(box.settle());
}

// Seeded random changes, and a map that holds the same. A record begins with its key as packed records do, has it
// elsewhere, or not at all.
TEST(record_table, holds_what_a_map_holds) {
  std::mt19937 random(7);
  ko_store::pool pool;
  ko_store::record_table table(&pool);
  std::map<std::string, std::string> model;
  for (int round = 0; round < 60'000; ++round) {
    const unsigned n = random() % 1500, what = random() % 100, form = random() % 3;
    const std::string key = std::string(n % 7, 'k') + std::to_string(n), tail(random() % 40, 'a');
    const std::string head = form == 0 ? std::string{'\x2a', static_cast<char>(key.size())} : "";
    const std::string record = head + (form < 2 ? key : "") + tail;
    if (what < 60) {
      table.put(key, record);
      model[key] = record;
      ASSERT_EQ(table.find(key)->has_mark(0), true);
      table.find(key)->set_mark(5);
    } else if (what < 99) {
      table.erase(key);
      model.erase(key);
    } else if (round % 5 == 0) {
      table.clear();
      model.clear();
    }
    ASSERT_EQ(table.size(), model.size());
    const auto expected = model.find(key);
    const auto *found = table.find(key);
    ASSERT_EQ(found != nullptr, expected != model.end());
    ASSERT_TRUE(found == nullptr || (found->key() == key && found->record() == expected->second));
  }
  std::map<std::string, std::string> walked;
  table.reserve(100'000);
  for (size_t i = 0; i < table.n_buckets(); ++i)
    table.visit_bucket(i, [&](const auto &entry) { walked.emplace(entry.key(), entry.record()); });
  EXPECT_EQ(walked, model);
}

}  // namespace
