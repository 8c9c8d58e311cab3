// What the platform is made of besides the store: the platform file, the decoder's memory.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "platform_config.h"
#include "sandbox.h"
#include "store/arena.h"

namespace {

using namespace harness;

struct file_case {
  std::string text;
  std::string outcome;  // "<socket or host:port> <user> <ports> <log file>", or what is wrong behind the file's name
};

const file_case files[] = {
    {"{}", "/run/redis/redis-server.sock  - "},
    {R"({"store":{"socket":"/s"}})", "/s  - "},
    {R"({"store":{"host":"h"}})", "h:6379  - "},
    {R"({"store":{"host":"h","port":65535,"user":"u","password":"p"},"log":{"file":"/l"}})", "h:65535 u - /l"},
    {R"({"ports":{}})", "/run/redis/redis-server.sock   "},
    {R"({"ports":{"a":{"ifx":1,"phyid":0},"b":{"ifx":4294967295,"phyid":7}}})",
     "/run/redis/redis-server.sock  a=1:0,b=4294967295:7, "},
    {"", ":1:1: malformed JSON"},
    {"{\n  \"store\": {\"socket\": }\n}", ":2:23: malformed JSON"},
    {"{\n\n\"a\"\n}", ":4:1: malformed JSON"},
    {"{} x", ":1:4: malformed JSON"},
    {"[]", ": must be an object"},
    {R"({"stor":{}})", ": unknown member \"stor\""},
    {R"({"store":[]})", ": store: must be an object"},
    {R"({"store":{"sockets":"/s"}})", ": store: unknown member \"sockets\""},
    {R"({"store":{"socket":"/s","host":"h"}})", ": store: name either \"socket\" or \"host\", not both"},
    {R"({"store":{"socket":""}})", ": store: names neither a socket nor a host"},
    {R"({"store":{"socket":5}})", ": store.socket: must be a text"},
    {R"({"store":{"password":"a\u0000b"}})", ": store.password: must not hold a NUL character"},
    {R"({"store":{"user":"u"}})", ": store: \"user\" needs \"password\""},
    {R"({"store":{"host":"h","port":0}})", ": store.port: must be a number from 1 to 65535"},
    {R"({"store":{"host":"h","port":65536}})", ": store.port: must be a number from 1 to 65535"},
    {R"({"store":{"host":"h","port":-1}})", ": store.port: must be a number from 1 to 65535"},
    {R"({"store":{"host":"h","port":1.5}})", ": store.port: must be a number from 1 to 65535"},
    {R"({"ports":[]})", ": ports: must be an object"},
    {R"({"ports":{"a":{"ifx":1}}})", ": ports.a: needs \"ifx\" and \"phyid\""},
    {R"({"ports":{"a":{"ifx":0,"phyid":1}}})", ": ports.a.ifx: must be a number from 1 to 4294967295"},
    {R"({"ports":{"a":{"ifx":1,"phyid":4294967296}}})", ": ports.a.phyid: must be a number from 0 to 4294967295"},
    {R"({"ports":{"a":{"ifx":1,"phyid":1,"x":1}}})", ": ports.a: unknown member \"x\""},
    {R"({"ports":{"a":{"ifx":1,"phyid":1},"b":{"ifx":1,"phyid":2}}})", ": ports.b: ifx 1 has another name already"},
    {R"({"log":{"level":5}})", ": log: unknown member \"level\""},
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
      outcome = to_string(read.store) + " " + read.store.user + " " + (read.has_ports ? "" : "-");
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

TEST(ports, are_translated) {
  sandbox box;
  box.platform_file(R"({"store":{"socket":")" + box.socket() + R"("},"log":{"file":")" + box.folder() +
                    R"(/log"},"ports":{"a":{"ifx":11,"phyid":1011},"b":{"ifx":12,"phyid":1012}}})");
  box.start_server();
  producer others(box.socket());
  others.set(session({.session = 1, .s_ifx = 11, .d_ifx = 12}));
  others.set(session({.session = 2, .s_ifx = 11, .d_ifx = 13}));
  others.flush();
  box.start_daemon();
  ASSERT_TRUE(box.settle());
  std::string all;
  for (const std::string &line : box.texts()) all += line + "\n";
  EXPECT_EQ(count_of(all, "{t_user=\"ko_lspan\" session_id=1 s_phyid=1011 d_phyid=1012 dir=1}"), 2U) << all;
  EXPECT_EQ(count_of(all, "session_id=2"), 0U) << all;
  EXPECT_EQ(count_of(box.log(), "libddm get dphyid failed. ret=-7, d_ifx=13"), 1U);
}

TEST(arena, hands_out_and_takes_back) {
  ko_store::arena tested;
  ProtobufCAllocator &pieces = *tested.allocator();
  for (const size_t size : {size_t{1}, size_t{16}, size_t{100}, size_t{20'000}, size_t{3} << 20}) {
    unsigned char *last = nullptr;
    for (int i = 0; i < 40; ++i) {
      auto *piece = static_cast<unsigned char *>(pieces.alloc(pieces.allocator_data, size));
      ASSERT_NE(piece, nullptr);
      EXPECT_EQ(reinterpret_cast<uintptr_t>(piece) % alignof(std::max_align_t), 0U);
      std::fill(piece, piece + size, static_cast<unsigned char>(i));
      EXPECT_TRUE(last == nullptr || (last[0] == i - 1 && last[size - 1] == i - 1)) << "pieces overlap";
      last = piece;
    }
    tested.reset();
  }
  EXPECT_EQ(pieces.alloc(pieces.allocator_data, SIZE_MAX), nullptr);
  void *first = pieces.alloc(pieces.allocator_data, 100);
  tested.reset();
  EXPECT_EQ(pieces.alloc(pieces.allocator_data, 50), first) << "memory is used again";
}

}  // namespace
