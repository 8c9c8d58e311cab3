// The parts of the daemon's core that scenarios do not reach or show only in passing: tables of one-line cases.
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <numeric>
#include <random>
#include <unordered_map>
#include <utility>

#include "driver.h"
#include "p_policy.pb-c.h"
#include "proc/ko_span_target.h"
#include "proc/lspan/ko_lspan.h"
#include "proc/lspan/outgrb_hash.h"
#include "recording.h"
#include "u_bridge.pb-c.h"

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

// A member with every field set.
span_info full_member() {
  span_info info = {};
  info.t_user = ko_lspan_app_name;
  info.session_num = 3;
  info.s_ifx = 5;
  info.d_ifx = 9;
  info.dir = 1;
  info.module_type = 2;
  info.role = 4;
  info.apply_type = 1;
  info.acl_id = 8;
  info.sample_rate = 100;
  info.n_vlan_map = 2;
  info.vlan_map[0] = 6;
  info.vlan_map[1] = 7;
  info.rspan_vlan = 30;
  info.ip_head = {1, 2, 64, 46, 5};
  info.mtp_switch = 1;
  info.src_is_subif = 1;
  return info;
}

// ---- record setters ----

#define SETTER(name) #name, name
const struct {
  const char *name;
  int32_t (*set)(vx_global *, const span_info *, uint32_t);
  std::string what;  // in the log
  std::string record, payload;
} setters[] = {
    {SETTER(ko_span_mom_vlan_dst_set), "vlan dst", "span_vlan_dst_info", "rspan_vlan=30"},
    {SETTER(ko_span_mom_ip_dst_set), "ip dst", "span_ip_dst_info",
     "ip_head={src_ip=1 dst_ip=2 ttl=64 dscp=46 vrf=5} src_is_subif=1"},
    {SETTER(ko_span_mom_vlan_mtp_set), "vlan mtp", "span_vlan_mtp_info", "rspan_vlan=30"},
    {SETTER(ko_span_mom_ip_mtp_set), "ip mtp", "span_ip_mtp_info", "ip_head={src_ip=1 dst_ip=2 ttl=64 dscp=46 vrf=5}"},
};

// Those of remote targets, which no event reaches.
TEST_F(Span, RecordSetters) {
  const span_info info = full_member();
  lspan_zlog_level = 5;
  for (const auto &row : setters) {
    SCOPED_TRACE(row.name);
    const bool own_key = row.record.ends_with("mtp_info");  // of the mirror target alone
    const std::string key =
        own_key ? "session_id=3 d_phyid=1009" : "session_id=3 s_phyid=1005 d_phyid=1009 dir=1 acl_id=8";
    const std::string record = "(UDP_DB, u_monitor." + row.record + " {t_user=\"ko_lspan\" " + key + '}';
    const std::string function = std::string(row.name) + ": ";
    const auto expect = [&](uint32_t is_del, const std::string &call, const std::string &said) {
      lines expected{"libddm_get_phyid_by_ifx(9) -> 1009", call, "debug " + function + said};
      if (!own_key) expected.insert(expected.begin(), "libddm_get_phyid_by_ifx(5) -> 1005");
      EXPECT_EQ(0, row.set(recording::global(), &info, is_del));
      EXPECT_EQ(expected, recording::take_trace());
    };
    expect(0, "vx_mom_set" + record + ' ' + row.payload + ')', row.what + " info set to UDP_DB, ret=0\\r\\n");
    expect(2, "vx_mom_del" + record + ')', row.what + " info del to UDP_DB, ret=0\\r\\n");
    recording::fail("libddm_get_phyid_by_ifx", 1, -6);
    EXPECT_EQ(-6, row.set(recording::global(), &info, 0));
    EXPECT_EQ("error " + function + "fill " + row.what + " info key failed. ret=-6\\r\\n",
              recording::take_trace().back());
  }
  EXPECT_EQ(lines(), recording::store_text());
}

// ---- entries ----

// A role that says nothing about the kind of target leaves it, and each leaves the data of the others.
TEST_F(Span, KindOfMirrorTargetByRole) {
  const std::pair<std::vector<uint32_t>, std::string> rows[] = {
      {{0}, ""},
      {{1}, " role=1"},
      {{2}, " role=2 mtp_type=1 rspan_vlan=30"},
      {{3}, " role=3 mtp_type=1 rspan_vlan=30"},
      {{4}, " role=4 mtp_type=2 src_ip=1 dst_ip=2 ttl=64 dscp=46 vrf=5"},
      {{5}, " role=5"},
      {{2, 0}, " mtp_type=1 rspan_vlan=30"},
      {{2, 1}, " role=1 rspan_vlan=30"},
  };
  for (const auto &[roles, text] : rows) {
    driver::reset();
    span_info info = full_member();
    for (const uint32_t role : roles) {
      info.role = role;
      ko_span_db_save_info(&lspan_global.session_list, &info);
    }
    EXPECT_EQ("  mtp session_id=3 d_phyid=1009 mtp_switch=1 module_type=2" + text, driver::memory_text().back());
  }
}

// The handlers do not look at these statuses.
TEST_F(Span, EntrySetters) {
  span_info info = full_member();
  ko_span_db_save_info(&lspan_global.session_list, &info);
  auto *session = reinterpret_cast<mirror_info *>(lspan_global.session_list.next);
  const struct {
    int32_t (*set)(mirror_link *, const span_info *, uint32_t);
    mirror_link *list;
    const char *add;
  } rows[] = {{ko_span_db_set_src_info, &session->src_list, "mirror_list_add_src_info"},
              {ko_span_db_set_dst_info, &session->dst_list, "mirror_list_add_dst_info"},
              {ko_span_db_set_mtp_info, &session->mtp_list, "mirror_list_add_mtp_info"}};
  for (const auto &row : rows) {
    const auto set = [&](uint32_t is_del) { return row.set(row.list, &info, is_del); };
    recording::fail("libddm_get_phyid_by_ifx", 1, -9);
    EXPECT_EQ(-9, set(0)) << row.add;
    EXPECT_EQ((std::vector<int32_t>{0, 0, -7}), (std::vector<int32_t>{set(0), set(1), set(1)})) << row.add;
    recording::fail(row.add, 1, -1);
    EXPECT_EQ((std::vector<int32_t>{-2, 0}), (std::vector<int32_t>{set(0), set(0)})) << row.add;
  }
}

// Where the daemon cannot keep what it has to know of a mirror target, there is none.
TEST_F(Span, MirrorTargetWithoutMemory) {
  span_info info = full_member();
  info.d_ifx = 0;
  recording::fail("mirror_list_add_mtp_info", 1, -1);
  ko_span_db_save_info(&lspan_global.session_list, &info);
  mirror_link *targets = &reinterpret_cast<mirror_info *>(lspan_global.session_list.next)->mtp_list;
  for (uint32_t k = 1;; ++k) {
    recording::take_trace();
    new_fails_in = k;
    const int32_t status = ko_span_db_set_mtp_info(targets, &info, 0);
    if (std::exchange(new_fails_in, 0) != 0) {
      EXPECT_TRUE(k > 2 && status == 0 && ko_span_target_find(false, 0) != nullptr);
      break;
    }
    EXPECT_TRUE(status == -2 && targets->next == targets && ko_span_target_find(false, 0) == nullptr) << k;
    EXPECT_EQ(lines{"error ko_span_db_set_mtp_info: add mtp info failed."}, recording::trace());
  }
}

// The dry run and some tests start over with sessions that were never ended.
TEST_F(Span, SessionsThatWereForgottenAreNotFound) {
  span_info info = full_member();
  for (info.d_ifx = 8; info.d_ifx < 10; ++info.d_ifx) ko_span_db_save_info(&lspan_global.session_list, &info);
  EXPECT_NE(nullptr, ko_span_target_find(false, 9));
  const mirror_link before = lspan_global.session_list;
  lspan_global_init(lspan_global.zlog_category, 1);
  EXPECT_EQ(nullptr, ko_span_target_find(false, 9));
  lspan_global.session_list = before;
}

TEST_F(Span, ClearOfAnUnknownSessionLeavesTheFlag) {
  const span_info info = full_member();
  uint8_t last = 0;
  ko_span_db_clear_info(&lspan_global.session_list, &info, &last);
  EXPECT_EQ(0, last);
  EXPECT_EQ(lines{"error ko_span_db_clear_info: not find mirror info!\\r\\n"}, recording::take_trace());
}

TEST_F(Span, SourceSearchHandsOutACopy) {
  span_info info = full_member();
  info.apply_type = 3;
  ko_span_db_save_info(&lspan_global.session_list, &info);
  recording::translation_fails(7, -9);
  const auto *session = reinterpret_cast<mirror_info *>(lspan_global.session_list.next);
  const auto *entry = reinterpret_cast<src_info *>(session->src_list.next);
  src_info untouched;
  memset(&untouched, 0x5a, sizeof(untouched));
  const src_info zero = {};
  const struct {
    uint32_t session, s_ifx;
    int32_t status;
    const src_info *copied;
  } rows[] = {{4, 5, -7, &untouched}, {3, 7, -9, &untouched}, {3, 6, -7, &zero}, {3, 5, 0, entry}};
  for (const auto &row : rows) {
    src_info copy = untouched;
    EXPECT_EQ(row.status, ko_span_search_src_info(&lspan_global.session_list, row.session, row.s_ifx, 1, 8, &copy));
    EXPECT_EQ(0, memcmp(&copy, row.copied, sizeof(copy)));
  }
  EXPECT_EQ(7U, entry->vlan_map[1]);
}

// ---- schemas ----

std::vector<uint8_t> packed(const ProtobufCMessage &message) {
  std::vector<uint8_t> bytes(protobuf_c_message_get_packed_size(&message));
  protobuf_c_message_pack(&message, bytes.data());
  return bytes;
}

TEST(Schemas, BytesOnTheWire) {
  UBridge__UdpFlushdyn flush = U_BRIDGE__UDP_FLUSHDYN__INIT;
  flush.ifx = 300;
  flush.flag = 4;
  uint32_t words[] = {1, 300};
  flush.n_vbmp = 2;
  flush.vbmp = words;
  EXPECT_EQ((std::vector<uint8_t>{0x38, 0xac, 0x02, 0x48, 0x04, 0x52, 0x03, 0x01, 0xac, 0x02}), packed(flush.base));
  UMonitor__SpanSrcInfoIndex key = U_MONITOR__SPAN_SRC_INFO_INDEX__INIT;
  UMonitor__SpanDstInfo dst = U_MONITOR__SPAN_DST_INFO__INIT;
  EXPECT_TRUE(packed(dst.base).empty());
  dst.index = &key;
  dst.module_type = dst.role = dst.apply_type = dst.sample_rate = dst.arp_lif = dst.ip4_lif = dst.out_lif = 1;
  dst.src_is_subif = dst.src_main_phyid = 1;
  EXPECT_EQ((std::vector<uint8_t>{0x2a, 0x00, 0x30, 0x01, 0x38, 0x01, 0x40, 0x01, 0x48, 0x01,
                                  0x50, 0x01, 0x58, 0x01, 0x60, 0x01, 0x70, 0x01, 0x78, 0x01}),
            packed(dst.base));
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
  ASSERT_TRUE(ko_span_target_add(&no_list, &first) == 0 && ko_span_target_add(&no_list, &second) == 0);
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
