// The daemon's own code in this process, on a store in memory: announcements that come in any order, twice or never,
// and keys and records of which any byte may be wrong. A handful of them meets the real daemon, too.
#include <gtest/gtest.h>

#include <cstdarg>
#include <map>
#include <random>
#include <set>

#include "in_process.h"
#include "proc/lspan/ko_lspan.h"
#include "sandbox.h"
#include "u_monitor.pb-c.h"

struct vx_zlog_category {};

namespace {

std::vector<std::string> logged;  // by everyone in this process

}  // namespace

vx_zlog_category *vx_zlog_init(const char *) {
  static vx_zlog_category only;
  return &only;
}

void vxdf_zlog(vx_zlog_category *, const char *, size_t, const char *, size_t, long, int, const char *format, ...) {
  char text[2048];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  logged.emplace_back(text);
}

namespace {

using namespace harness;
using namespace ko_store;

world &the_world() {
  static world &only = *new world;
  return only;
}

// No two members share a target, and a result is only given for members that stay.
member numbered(uint32_t i, uint32_t version = 0) {
  const bool group = i % 4 == 3;
  return {.session = 1 + i,
          .s_ifx = 100 + i,
          .d_ifx = group ? group_target(1 + i / 4) : 200 + i,
          .acl = i,
          .apply = i % 4 % 3,
          .module = group ? 5U : 0U,
          .mtp_switch = version % 2,
          .sample = version,
          .vlans = {version, i}};
}

record random_record(std::minstd_rand &random, bool stays) {
  const auto version = static_cast<uint32_t>(random() % 8);
  const auto i = static_cast<uint32_t>(random() % 12);
  if (stays) return random() % 2 == 0 ? session(numbered(i, version)) : result(numbered(i), version);
  return random() % 2 == 0 ? session(numbered(20 + i, version))
                           : membership(300 + i, version % 4 + (version > 3 ? 5 : 0));
}

TEST(announcements, any_order_any_number_and_a_lost_one) {
  world &w = the_world();
  std::minstd_rand random(4);
  const auto below = [&](size_t bound) { return random() % bound; };
  for (int round = 0; round < 1000 && !HasFailure(); ++round) {
    SCOPED_TRACE(round);
    for (uint32_t i = 0; i < 12; ++i) w.put(session(numbered(i))), w.put(result(numbered(i)));
    w.turn();
    w.wire->holds = true;
    for (size_t changes = 1 + random() % 40; changes > 0; --changes) {
      const bool stays = random() % 3 == 0;
      w.put(random_record(random, stays), stays || random() % 3 != 0 ? change_kind::set : change_kind::del);
      if (random() % 8 != 0) continue;
      w.turn();
      if (!w.wire->release(below, random() % 4 == 0)) continue;
      w.wire->between = [&] {
        w.wire->holds = false;
        for (int i = 0; i < 4; ++i)
          w.put(random_record(random, false), i % 2 == 0 ? change_kind::set : change_kind::del);
      };
      w.wire->reconnect();
      w.turn();
      w.wire->holds = true;
    }
    w.turn();
    if (w.wire->release(below, round % 2 == 0)) w.wire->reconnect();
    w.wire->holds = false;
    w.turn();
    const world::contents end = w.outputs();
    const std::vector<record> inputs = w.inputs();
    w.clear();
    for (const auto &[name, records] : w.outputs())
      EXPECT_TRUE(name == relayed(numbered(0)).type->name || records.empty()) << name;
    for (const record &what : inputs) w.put(what);
    w.turn();
    EXPECT_EQ(end, w.outputs());
    EXPECT_GT(end.at("u_monitor.span_dst_info").size(), 11U);
    w.clear();
  }
}

// A member is deleted, and what the daemon wrote of it got lost. Its result goes after all, unless both are back by
// then.
TEST(writes, lost_ones_are_decided_anew) {
  world &w = the_world();
  for (const bool comes_back : {false, true}) {
    const record gone = result(numbered(0), 1);
    w.put(session(numbered(0))), w.put(gone);
    w.turn();
    const world::contents whole = w.outputs();
    w.wire->loses = true;
    w.put(session(numbered(0)), change_kind::del);
    w.turn();
    w.wire->loses = false;
    EXPECT_TRUE(w.outputs() == whole);
    if (comes_back) w.put(session(numbered(0)));
    w.wire->reconnect();
    w.turn();
    EXPECT_EQ(w.store->records(gone.db, gone.type->name).contains(gone.key), comes_back);
    EXPECT_EQ(w.outputs() == whole, comes_back);
    w.clear();
  }
}

// Whether a record may stand under its key, by protobuf-c alone.
bool is_sound(const record &what) {
  const message_ptr message = unpack(*what.type, what.bytes);
  const auto *index =
      message == nullptr ? nullptr : protobuf_c_message_descriptor_get_field_by_name(what.type, "index");
  const void *field = index == nullptr ? nullptr : reinterpret_cast<const char *>(message.get()) + index->offset;
  const auto *key = field == nullptr ? nullptr : *static_cast<ProtobufCMessage *const *>(field);
  std::string packed(key == nullptr ? 0 : protobuf_c_message_get_packed_size(key), '\0');
  if (key != nullptr) protobuf_c_message_pack(key, reinterpret_cast<uint8_t *>(packed.data()));
  return key != nullptr && packed == what.key;
}

std::vector<std::string> mutations(const std::string &bytes) {
  std::vector<std::string> out;
  for (size_t length = 0; length < bytes.size(); ++length) out.push_back(bytes.substr(0, length));
  for (size_t bit = 0; bit < 8 * bytes.size(); ++bit) {
    out.push_back(bytes);
    out.back()[bit / 8] = static_cast<char>(out.back()[bit / 8] ^ 1 << bit % 8);
  }
  return out;
}

size_t passed_over() {
  size_t count = 0;
  for (const std::string &line : logged) count += line.find("is passed over") != std::string::npos ? 1 : 0;
  return count;
}

TEST(hostile, every_truncation_and_every_flipped_bit) {
  world &w = the_world();
  lspan_zlog_level = 0;
  const std::vector<record> victims{session(numbered(1, 3)), membership(300, 1), result(numbered(0), 3)};
  for (uint32_t i = 0; i < 8; ++i) w.put(session(numbered(i, 2)));
  for (uint32_t i = 0; i < 4; ++i) w.put(membership(300 + i, 1));
  w.put(result(numbered(0), 3));
  w.put(session(numbered(1, 3)));
  w.turn();
  const world::contents whole = w.outputs();
  size_t tried = 0;
  size_t unsound = 0;
  std::set<std::string> keys;
  logged.clear();
  const uint64_t rejected_before = w.tested().counts().rejected;
  for (const record &victim : victims) {
    w.put(victim, change_kind::del);
    w.turn();
    const world::contents without = w.outputs();
    w.put(victim);
    w.turn();
    EXPECT_EQ(w.outputs(), whole);
    for (const auto &[of_key, announced] : {std::pair(false, false), {false, true}, {true, false}, {true, true}}) {
      for (const std::string &bytes : mutations(of_key ? victim.key : victim.bytes)) {
        record bad = victim;
        (of_key ? bad.key : bad.bytes) = bytes;
        ++tried;
        if (is_sound(bad) || (of_key && w.store->records(bad.db, bad.type->name).contains(bad.key))) continue;
        ++unsound;
        keys.insert(victim.type->name + bad.key);
        const uint64_t before = w.tested().counts().rejected;
        w.wire->holds = !announced;
        w.put(bad);
        if (!announced) w.wire->reconnect();
        w.turn();
        w.wire->holds = false;
        EXPECT_GT(w.tested().counts().rejected, before) << hex(bad.key) << " " << hex(bad.bytes);
        EXPECT_TRUE(w.outputs() == (of_key ? whole : without)) << hex(bad.key) << " " << hex(bad.bytes);
        of_key ? w.put(bad, change_kind::del) : w.put(victim);
        w.turn();
        ASSERT_TRUE(w.outputs() == whole) << hex(bad.key) << " " << hex(bad.bytes);
      }
    }
  }
  EXPECT_GT(unsound, 1000U) << "of " << tried;
  EXPECT_GE(w.tested().counts().rejected - rejected_before, unsound);
  EXPECT_EQ(passed_over(), keys.size()) << "once a key";
  std::cout << tried << " mutations, " << unsound << " of them unsound\n";
  w.clear();
}

TEST(hostile, large_and_foreign) {
  world &w = the_world();
  for (uint32_t i = 0; i < 8; ++i) w.put(session(numbered(i)));
  w.turn();
  const world::contents whole = w.outputs();
  const std::string large(10 << 20, '\x5a');
  record victim = session(numbered(9));
  member wide = numbered(10);
  wide.vlans.assign(2'500'000, 0x7f7f7f7f);
  UMonitor__MirrorIndex nobody = U_MONITOR__MIRROR_INDEX__INIT;  // no owner, nothing
  UMonitor__MirrorLspanInfo unowned = U_MONITOR__MIRROR_LSPAN_INFO__INIT;
  unowned.index = &nobody;
  const uint64_t before = w.tested().counts().rejected;
  const uint64_t failures = w.tested().counts().handler_failures;
  const std::vector<record> all{{4, victim.type, victim.key, large},
                                {4, victim.type, large, victim.bytes},
                                {4, victim.type, "", ""},
                                session(wide)};
  for (const bool announced : {true, false}) {
    for (const record &bad : all) w.put(bad);
    if (!announced) w.wire->reconnect();
    w.turn();
    EXPECT_TRUE(w.outputs() == whole);
  }
  EXPECT_GE(w.tested().counts().rejected - before, 6U);
  EXPECT_GE(w.tested().counts().handler_failures - failures, 1U) << "too many VLAN words are the handler's to refuse";
  for (size_t input = 0; input < 3; ++input) w.wire->garbage(input);
  EXPECT_GE(w.tested().counts().rejected - before, 9U);
  w.put(any(4, unowned.base));
  w.turn();
  EXPECT_GT(w.outputs()["u_monitor.span_dst_info"].size(), whole.at("u_monitor.span_dst_info").size());
  w.clear();
  EXPECT_TRUE(w.outputs()["u_monitor.span_dst_info"].empty());
}

TEST(hostile, announcements_that_are_none) {
  std::string bytes;
  append_announcement({change_kind::set, "key", "record"}, bytes);
  for (const std::string &bad : mutations(bytes)) {
    const auto what = parse_announcement(bad);
    if (!what.has_value()) continue;
    std::string again;
    append_announcement(*what, again);
    EXPECT_EQ(again, bad);
  }
  for (const char *bad : {"", "+", "+\0\0", "?\0\0\0\1k", "-\0\0\0\1kr", "+\xff\xff\xff\xffk"})
    EXPECT_FALSE(parse_announcement(bad).has_value()) << bad;
}

TEST(hostile, a_real_server) {
  sandbox box;
  box.start_server();
  producer others(box.socket());
  const record good = session(numbered(1));
  const std::string name = good.type->name;
  const std::string large(10 << 20, 'x');
  others.raw(4, name, "stored", "garbage");
  others.raw(4, name, good.key, large);
  others.raw(8, "u_monitor.mirror_result_info", large, "");
  others.set(session(numbered(0)));
  others.flush();
  box.start_daemon();
  ASSERT_TRUE(box.settle());
  others.announce(4, name, "garbage");
  others.announce(4, name, large);
  others.set({4, good.type, "announced", large});
  others.set({4, good.type, "announced", large});
  others.set(good);
  others.set(session(numbered(2)));
  others.flush();
  ASSERT_TRUE(box.settle());
  const std::string log = box.log();
  EXPECT_EQ(count_of(log, "is passed over"), 5U) << log.substr(0, 4000);
  EXPECT_EQ(count_of(log, "ko lspan add end"), 3U);
  EXPECT_EQ(count_of(log, "cannot be used"), 0U);
}

}  // namespace
