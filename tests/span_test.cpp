// The parts of the daemon's core that scenarios do not reach or show only in passing: tables of one-line cases.
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <numeric>
#include <random>
#include <unordered_map>
#include <utility>

#include "driver.h"
#include "proc/ko_span_target.h"
#include "proc/lspan/ko_lspan.h"
#include "proc/lspan/outgrb_hash.h"
#include "recording.h"

// The standard containers of the daemon ask for memory here; the k-th request from now on fails, 0: none.
static uint32_t new_fails_in;
extern "C" void *__real_malloc(size_t size);

[[gnu::noinline]] void *operator new(size_t size) {
  void *got = new_fails_in != 0 && --new_fails_in == 0 ? nullptr : __real_malloc(size);
  if (got == nullptr) throw std::bad_alloc();
  return got;
}
[[gnu::noinline]] void operator delete(void *gone) noexcept { std::free(gone); }
[[gnu::noinline]] void operator delete(void *gone, size_t) noexcept { std::free(gone); }

namespace {

using lines = std::vector<std::string>;

class Span : public testing::Test {
 protected:
  void SetUp() override { driver::reset(); }
  void TearDown() override { driver::reset(); }
};

// Where the daemon cannot keep what it has to know of a mirror target, there is none.
TEST_F(Span, MirrorTargetWithoutMemory) {
  const span_info info = {};
  recording::fail("mirror_list_add_mtp_info", 1, -1);
  ko_span_db_save_info(&lspan_global.session_list, &info);
  mirror_link *targets = &reinterpret_cast<mirror_info *>(lspan_global.session_list.next)->mtp_list;
  for (uint32_t k = 1;; ++k) {
    recording::take_trace();
    new_fails_in = k;
    const int32_t status = ko_span_db_set_mtp_info(targets, &info, 0);
    if (std::exchange(new_fails_in, 0) != 0) {
      EXPECT_TRUE(k > 2 && status == 0 && ko_span_target_find({false, 0}) != nullptr);
      break;
    }
    EXPECT_TRUE(status == -2 && targets->next == targets && ko_span_target_find({false, 0}) == nullptr) << k;
    EXPECT_EQ(lines{"error ko_span_db_set_mtp_info: add mtp info failed."}, recording::trace());
  }
}

// The dry run and some tests start over with sessions that were never ended.
TEST_F(Span, SessionsThatWereForgottenAreNotFound) {
  span_info info = {};
  for (info.d_ifx = 8; info.d_ifx < 10; ++info.d_ifx) ko_span_db_save_info(&lspan_global.session_list, &info);
  EXPECT_NE(nullptr, ko_span_target_find({false, 9}));
  const mirror_link before = lspan_global.session_list;
  lspan_global_init(lspan_global.zlog_category, 1);
  EXPECT_EQ(nullptr, ko_span_target_find({false, 9}));
  lspan_global.session_list = before;
}

// ---- logging ----

TEST_F(Span, TextsOfTheLog) {
  for (const size_t length : {1022U, 1023U, 1024U, 5000U}) {
    const std::string text(length, 'x');
    LSPAN_ERROR("%s", text.c_str());
    EXPECT_EQ("error TestBody: " + text.substr(0, 1023), recording::take_trace().at(0));
  }
  lspan_global.zlog_category = nullptr;
  LSPAN_ERROR("formatted, then dropped");
  lspan_zlog_level = 0;
  LSPAN_ERROR("not even formatted");
  EXPECT_EQ(lines(), recording::take_trace());
  EXPECT_EQ(5U, recording::format_count());
}

// ---- group tables ----

TEST(OutgrbHash, CheckValues) {
  const std::pair<uint32_t, uint32_t> rows[] = {
      {0x00000000, 0x08D6D969}, {0x00000001, 0xF3BB7693}, {0x00000007, 0xE68BC8F8}, {0x00000009, 0x39DCAF06},
      {0xFFFFFFFF, 0x04079E5F}, {0xFD000007, 0x61379DA6}, {0x80000000, 0x59FBD9C1}, {0x075BCD15, 0xB20A85EE}};
  for (const auto &[key, hash] : rows) EXPECT_EQ(hash, outgrb_key_hash(key)) << key;
}

// Runs `body` in a process of its own: a table never shrinks, so each needs a new one.
template <typename Body>
void in_fresh_process(Body body) {
  EXPECT_EXIT(
      {
        recording::reset();
        body();
        std::exit(testing::Test::HasFailure() ? 1 : 0);
      },
      testing::ExitedWithCode(0), "");
}

outgrb_mbr_info *insert(uint32_t key, uint32_t group_id = 1) {
  const outgrb_mbr_info record{key, group_id};
  outgrb_mbr_info *out = nullptr;
  outgrb_mbr_info *entry = outgrb_mbr_hash_set(&out, &record);
  EXPECT_EQ(out, entry);
  return entry;
}

// A new table rebuilds at these of the inserts; a negative number removes that key. An insert alone allocates its entry
// and nothing else.
void expect_rebuilds(const std::vector<int> &keys, const std::vector<int> &rebuilding) {
  in_fresh_process([&] {
    outgrb_mbr_hash_init();
    std::vector<int> rebuilt;
    for (const int key : keys) {
      const auto positive = static_cast<uint32_t>(std::abs(key));
      recording::alloc_fail_at(0, false);
      if (key < 0)
        outgrb_mbr_hash_del(outgrb_mbr_hash_get(&positive));
      else
        insert(positive);
      if (recording::alloc_count() > 1) rebuilt.push_back(key);
    }
    EXPECT_EQ(rebuilding, rebuilt);
  });
}

TEST(OutgrbTableDeathTest, Rebuilds) {
  std::vector<int> many(50), same;
  std::iota(many.begin(), many.end(), 1);
  for (int i = 0; i < 100; ++i) same.insert(same.end(), {9, -9});
  expect_rebuilds(many, {1, 4, 7, 13, 26, 50});               // to 4 buckets, then 8, 16, ...
  expect_rebuilds({1, 2, 3, -1, -2, 4, 5, 6, 7}, {1, 4, 6});  // one of four lives: to 4 again; three: to 8
  expect_rebuilds({1, 2, 3, -1, 4, 5, 6, 7, 8}, {1, 4, 8});   // half of four live: to 8, with room for six
  expect_rebuilds(same, {9});                                 // a deleted bucket is used again
}

// Seeded operations against a map from key to entry, with allocations failing now and then.
TEST(OutgrbTableDeathTest, BehavesLikeAMap) {
  in_fresh_process([] {
    outgrb_mbr_hash_init();
    std::mt19937 engine(20240611);
    const auto random = [&] { return static_cast<uint32_t>(engine()); };
    std::unordered_map<uint32_t, outgrb_mbr_info *> members;
    const auto known = [&](uint32_t key) { return members.contains(key) ? members[key] : nullptr; };
    uint64_t refused = 0;
    for (int i = 0; i < 300000 && !testing::Test::HasFailure(); ++i) {
      // The universe breathes, so that the table fills up with live entries and with deleted ones.
      const uint32_t key = random() % (i / 30000 % 2 == 0 ? 40 : 3000) * 0x01000193U;
      const bool insert_it = random() % 5 < (i / 20000 % 2 == 0 ? 3U : 2U);
      recording::alloc_fail_at(random() % 8 == 0 ? 1 + random() % 2 : 0, random() % 2 == 0);
      if (insert_it) {
        const uint32_t group_id = random();
        outgrb_mbr_info *member = insert(key, group_id);
        // An entry that is there keeps its place, and its update is not refused.
        EXPECT_TRUE(!members.contains(key) || member == members[key]);
        EXPECT_TRUE(member == nullptr || member->group_id == group_id);
        if (member != nullptr) members[key] = member;
        refused += member == nullptr;
      } else if (const auto found = members.extract(key)) {
        outgrb_mbr_hash_del(found.mapped());
      }
      EXPECT_EQ(known(key), outgrb_mbr_hash_get(&key));
      for (uint32_t n = i % 5000 == 0 ? 0 : 3000; n < 3000; ++n) {
        const uint32_t any = n * 0x01000193U;
        EXPECT_EQ(known(any), outgrb_mbr_hash_get(&any));
      }
    }
    EXPECT_GT(refused, 1000U);
    EXPECT_TRUE(outgrb_mbr_hash_get(nullptr) == nullptr && outgrb_group_hash_get(nullptr) == nullptr);
  });
}

// The daemon itself never updates a group that is there.
TEST_F(Span, GroupUpdateKeepsTheMembers) {
  mtp_info first = {}, second = {};
  mirror_link no_list = {&no_list, &no_list};
  ASSERT_TRUE(ko_span_target_add(&no_list, &first, {}) == 0 && ko_span_target_add(&no_list, &second, {}) == 0);
  driver::group_event(4, 7, false);
  outgrb_group_info record{7, {}, &first, nullptr, nullptr};
  outgrb_group_info *group = nullptr;
  ASSERT_EQ(outgrb_group_hash_get(&record), outgrb_group_hash_set(&group, &record));
  EXPECT_EQ(&first, group->mtp_info);
  record.mtp_info = &second;
  EXPECT_EQ(group, outgrb_group_hash_set(&group, &record));
  ko_span_target_remove(&first);
  EXPECT_EQ(&second, group->mtp_info);
  ko_span_target_remove(&second);
  EXPECT_EQ(nullptr, group->mtp_info);
  EXPECT_EQ("", driver::broken());
}

}  // namespace
