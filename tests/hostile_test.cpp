// The daemon's own code in this process, on a store in memory: announcements that come in any order, twice or never,
// keys and records of which any byte may be wrong, and memory that is exhausted at any allocation.
#include <gtest/gtest.h>

#include <event2/event.h>

#include <cstdlib>
#include <functional>
#include <map>
#include <new>
#include <random>
#include <set>

#include "global_context.h"
#include "in_process.h"
#include "proc/lspan/ko_lspan.h"
#include "proc/lspan/outgrb_hash.h"
#include "store/layout.h"
#include "store/record_text.h"
#include "u_monitor.pb-c.h"

namespace {

std::vector<std::string> logged;  // errors, warnings and failed calls of everyone in this process

bool armed;  // allocations are counted, and some refused; by all but the standard C library and protobuf-c
uint64_t allocations, first_refused, last_refused;

bool refuses() { return armed && ++allocations >= first_refused && allocations <= last_refused; }

}  // namespace

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_realloc(void *old, size_t size);
void *__wrap_malloc(size_t size) { return refuses() ? nullptr : __real_malloc(size); }
void *__wrap_calloc(size_t count, size_t size) { return refuses() ? nullptr : __real_calloc(count, size); }
void *__wrap_realloc(void *old, size_t size) { return refuses() ? nullptr : __real_realloc(old, size); }
}

// Not inlined: the compiler takes new and free for a mistake.
[[gnu::noinline]] void *operator new(size_t size) {
  void *made = __wrap_malloc(size);
  return made != nullptr ? made : throw std::bad_alloc();
}
[[gnu::noinline]] void *operator new(size_t size, const std::nothrow_t &) noexcept { return __wrap_malloc(size); }
[[gnu::noinline]] void operator delete(void *gone) noexcept { std::free(gone); }
[[gnu::noinline]] void operator delete(void *gone, size_t) noexcept { std::free(gone); }

const bool libevent_counted = (event_set_mem_functions(__wrap_malloc, __wrap_realloc, std::free), true);

namespace {

using namespace harness;
using namespace ko_store;

void note_line(int level, std::string_view text) {
  const bool was_armed = std::exchange(armed, false);
  const bool fails = text.find("can't alloc memory") != text.npos || text.find("=-2") != text.npos;
  if (level >= VX_ZLOG_WARN || fails) logged.emplace_back(text);
  armed = was_armed;
}

const bool log_is_noted = (on_log = note_line, true);

world &the_world() {
  static world *only = nullptr;
  if (only != nullptr) return *only;
  only = new world;
  if (only->start() != 0 || only->runs == 0) std::abort();
  only->turn();
  return *only;
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

// A member is deleted, and what the daemon wrote of it got lost. Its result goes after all, unless the member is back.
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
    if (comes_back) w.put(session(numbered(0)));
    w.wire->reconnect();
    w.turn();
    EXPECT_EQ(w.store->records(gone.db, gone.type->name).contains(gone.key), comes_back);
    EXPECT_EQ(w.outputs() == whole, comes_back);
    w.clear();
  }
}

// Changes that came while the store was read are behind an answer, too, when the request came after them.
TEST(requests, wait_for_what_was_announced_before) {
  world &w = the_world();
  ko_platform::request_desk &desk = ko_platform::context_of(lspan_global.global).requests;
  std::vector<size_t> answered;
  desk.add("count", [&](const std::string &) { answered.push_back(w.outputs().at("u_monitor.span_dst_info").size()); });
  const auto ask = [&] { w.wire->request(R"({"request":"count","reply":"ko_reply.1"})"); };
  constexpr uint32_t few = 3, many = 2000;  // more than one slice of the loop delivers
  for (uint32_t i = 0; i < few; ++i) w.put(session(numbered(i)));
  w.turn();
  w.wire->between = [&] {
    for (uint32_t i = few; i < many; ++i) w.put(session(numbered(i)));
    ask();
  };
  w.tested().on_live = ask;
  w.wire->reconnect();
  w.turn();
  EXPECT_EQ(answered, (std::vector<size_t>{few, many})) << "at once while it is read, then behind all";
  w.tested().on_live = nullptr;
  w.clear();
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
        EXPECT_GT(w.tested().counts().rejected, before) << hex_digits(bad.key) << " " << hex_digits(bad.bytes);
        EXPECT_TRUE(w.outputs() == (of_key ? whole : without)) << hex_digits(bad.key) << " " << hex_digits(bad.bytes);
        of_key ? w.put(bad, change_kind::del) : w.put(victim);
        w.turn();
        ASSERT_TRUE(w.outputs() == whole) << hex_digits(bad.key) << " " << hex_digits(bad.bytes);
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
  append_announcement({{}, change_kind::set, "key", "record"}, bytes);
  for (const std::string &bad : mutations(bytes)) {
    const auto what = parse_announcement({}, bad);
    if (!what.has_value()) continue;
    std::string again;
    append_announcement(*what, again);
    EXPECT_EQ(again, bad);
  }
  for (const char *bad : {"", "+", "+\0\0", "?\0\0\0\1k", "-\0\0\0\1kr", "+\xff\xff\xff\xffk"})
    EXPECT_FALSE(parse_announcement({}, bad).has_value()) << bad;
}

// ---- exhausted memory ----

struct step {
  record what;
  change_kind kind = change_kind::set;
};

const member mirrored_to_group{.session = 4, .s_ifx = 104, .d_ifx = group_target(50), .module = 5};
const std::vector<step> steps = {
    {session(numbered(0))},
    {session(numbered(1))},
    {membership(300, 50)},
    {session(mirrored_to_group)},
    {session(numbered(2))},
    {result(numbered(0), 5)},
    {result(numbered(9))},
    {membership(300, 51)},
    {membership(301, 51)},
    {membership(300, 50)},
    {membership(301, 0)},
    {session(numbered(2, 1))},
    {membership(300, 50), change_kind::del},
    {session(mirrored_to_group), change_kind::del},
    {session(numbered(1)), change_kind::del},
    {session(numbered(2)), change_kind::del},
};

event_base *loop() { return ko_platform::context_of(lspan_global.global).base.get(); }

// Until the daemon has nothing to do; what waits for its time comes at once.
void settle(world &w) {
  for (std::vector<event *> timers(1); !timers.empty() || !w.tested().settled();) {
    timers.clear();
    event_base_foreach_event(
        loop(),
        [](const event_base *, const event *timer, void *to) {
          return static_cast<std::vector<event *> *>(to)->push_back(const_cast<event *>(timer)), 0;
        },
        &timers);
    for (event *timer : timers) event_active(timer, EV_TIMEOUT, 0);
    event_base_loop(loop(), EVLOOP_NONBLOCK);
  }
}

// Serves what is due now; false when that ended the loop.
bool serve() {
  for (int i = 0; i < 12 && event_base_got_break(loop()) == 0; ++i) event_base_loop(loop(), EVLOOP_NONBLOCK);
  return event_base_got_break(loop()) == 0;
}

void put(world &w, const step &one) { w.put(one.what, one.kind); }

// A change that was not taken as it should have been; a delete needs something to delete.
void repeat(world &w, const step &one) {
  w.put(one.what), settle(w);
  if (one.kind != change_kind::set) put(w, one), settle(w);
}

// Takes everything away. The daemon holds nothing more then, nor does it hold on to a result of an unknown member.
void leave(world &w) {
  const record unknown = result(numbered(9));
  EXPECT_FALSE(w.store->records(unknown.db, unknown.type->name).contains(unknown.key));
  w.clear();
  settle(w);
  EXPECT_EQ(lspan_global.session_list.next, &lspan_global.session_list);
  for (const uint32_t key : {50, 51, 300, 301})
    EXPECT_TRUE(outgrb_group_hash_get(&key) == nullptr && outgrb_mbr_hash_get(&key) == nullptr) << key;
}

bool was_said(const std::string &text) {
  return std::any_of(logged.begin(), logged.end(), [&](const auto &line) { return line.find(text) != line.npos; });
}

// Does the work with the k-th allocation refused, or all from there on; false when there was no k-th.
bool exhaust(uint64_t k, bool for_good, const std::function<void()> &work) {
  logged.clear();
  first_refused = k;
  last_refused = for_good ? UINT64_MAX : k;
  allocations = 0;
  armed = true;
  try {
    work();
  } catch (const std::exception &error) {
    armed = false;
    ADD_FAILURE() << error.what() << " comes out of a call";
  }
  armed = false;
  return allocations >= k;
}

// Start-up on a store that holds the first steps and a record of the daemon's that no one wants any more; then each
// step, as it is announced, and as what is read after a break of the connection.
TEST(exhaustion, every_allocation) {
  lspan_zlog_level = 5;
  constexpr size_t n_stored = 12;
  std::vector<record> stored{relayed(numbered(9))};
  for (size_t i = 0; i < n_stored; ++i) stored.push_back(steps[i].what);
  enum { start, announced, read };
  size_t points[3] = {}, ends = 0;
  for (size_t round = 0; round <= 2 * steps.size(); ++round) {
    const auto kind = round == 0 ? start : round % 2 == 1 ? announced : read;
    const size_t first = kind == start ? 0 : (round - 1) / 2, last = kind == start ? n_stored : first + 1;
    world::contents after, end;
    for (const bool for_good : {false, true})
      for (uint64_t k = for_good, refused = 1; refused != 0; ++k) {
        SCOPED_TRACE(testing::Message() << "round " << round << ", allocation " << k);
        world w(kind == start ? stored : std::vector<record>());
        int32_t status = kind == start ? 0 : w.start();
        for (size_t i = 0; i < first; ++i) settle(w), put(w, steps[i]);
        if (kind != start) {
          settle(w);
          w.tested().on_event = [&](uint32_t, const ProtobufCMessage &, int32_t answer) { status += answer; };
          w.wire->holds = kind == read;
          put(w, steps[first]);
          if (kind == read) w.turn();
          w.wire->holds = false;
        }
        bool alive = true;
        refused = exhaust(k, for_good, [&] {
          if (kind == start) status = w.start();
          if (kind == read) w.wire->reconnect();
          alive = w.runs != 0 && serve();
        });
        const bool silent = logged.empty();
        points[kind] += k > 0 && refused != 0;
        ASSERT_TRUE(!HasFailure() && (status == 0 || (status == -2 && !silent))) << status;
        const bool refused_write = kind != start && std::count(logged.begin(), logged.end(), "memory is exhausted") > 0;
        ASSERT_TRUE(!refused_write || status != 0 || was_said("=-2")) << "the handler was not told";
        if (!alive) {
          const bool woken = w.runs != 0 && was_said("the wake-up failed with status -");
          ASSERT_TRUE(was_said(woken ? "libddm_init failed -2." : "mom_ab init fail") ||
                      was_said(woken ? "vx_mom_set_ds_opt fail, rv=-7" : "RDND_ELEMENT_REG_UNAWARE failed -2."));
          ++ends;
          continue;
        }
        settle(w);
        if (k == 0) after = w.outputs();
        ASSERT_TRUE(!silent || after == w.outputs());
        for (size_t i = first; i < last && !silent; ++i) repeat(w, steps[i]);
        for (size_t i = last; i < steps.size(); ++i) put(w, steps[i]), settle(w);
        if (k == 0) end = w.outputs();
        ASSERT_EQ(end, w.outputs());
        leave(w);
      }
  }
  std::cout << points[start] << " at start, " << ends << " of which ended it; " << points[announced] << " in "
            << steps.size() << " events, " << points[read] << " when they were read\n";
}

}  // namespace
