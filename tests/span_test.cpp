// The parts of the daemon's core that scenarios do not reach or show only in passing: tables of one-line cases.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <random>
#include <unordered_map>

#include "driver.h"
#include "p_policy.pb-c.h"
#include "proc/lspan/ko_lspan.h"
#include "proc/lspan/outgrb_hash.h"
#include "recording.h"
#include "u_bridge.pb-c.h"

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

struct setter_row {
  const char *name;
  int32_t (*set)(vx_global *, const span_info *, uint32_t);
  const char *record;   // message
  bool own_key;         // keyed by the mirror target alone
  const char *payload;  // of a set
  const char *key_failure, *set_text, *del_text;
};

#define SETTER(name) #name, name
const setter_row setters[] = {
    {SETTER(ko_span_mom_port_src_set), "span_port_src_info", false, "module_type=2 role=4", "fill port info key failed",
     "port info set to UDP_DB", "port info del to UDP_DB"},
    {SETTER(ko_span_mom_acl_src_set), "span_acl_src_info", false, "module_type=2 role=4 src_is_subif=1",
     "fill acl info key failed", "acl info set to UDP_DB", "acl info del to UDP_DB"},
    {SETTER(ko_span_mom_vlan_src_set), "span_vlan_src_info", false, "module_type=2 role=4 vlan_map=[6,7]",
     "fill vlan info key failed", "vlan info set to UDP_DB", "valn info del to UDP_DB"},
    {SETTER(ko_span_mom_dst_set), "span_dst_info", false,
     "module_type=2 role=4 apply_type=1 sample_rate=100 src_is_subif=1", "fill dst info key failed",
     "dst info set to UDP_DB", "dst info del to UDP_DB"},
    {SETTER(ko_span_mom_vlan_dst_set), "span_vlan_dst_info", false, "rspan_vlan=30", "fill vlan dst info key failed",
     "vlan dst info set to UDP_DB", "vlan dst info del to UDP_DB"},
    {SETTER(ko_span_mom_ip_dst_set), "span_ip_dst_info", false,
     "ip_head={src_ip=1 dst_ip=2 ttl=64 dscp=46 vrf=5} src_is_subif=1", "fill ip dst info key failed",
     "ip dst info set to UDP_DB", "ip dst info del to UDP_DB"},
    {SETTER(ko_span_mom_mtp_set), "span_mtp_info", true, "module_type=2 role=4 mtp_switch=1",
     "fill mtp info key failed", "mtp info set to UDP_DB", "mtp info del to UDP_DB"},
    {SETTER(ko_span_mom_vlan_mtp_set), "span_vlan_mtp_info", true, "rspan_vlan=30", "fill vlan mtp info key failed",
     "vlan mtp info set to UDP_DB", "vlan mtp info del to UDP_DB"},
    {SETTER(ko_span_mom_ip_mtp_set), "span_ip_mtp_info", true, "ip_head={src_ip=1 dst_ip=2 ttl=64 dscp=46 vrf=5}",
     "fill ip mtp info key failed", "ip mtp info set to UDP_DB", "ip mtp info del to UDP_DB"},
};

TEST_F(Span, RecordSetters) {
  const span_info info = full_member();
  lspan_zlog_level = 5;
  for (const setter_row &row : setters) {
    SCOPED_TRACE(row.name);
    const std::string key = row.own_key ? "{t_user=\"ko_lspan\" session_id=3 d_phyid=1009}"
                                        : "{t_user=\"ko_lspan\" session_id=3 s_phyid=1005 d_phyid=1009 dir=1 acl_id=8}";
    const std::string record = "(UDP_DB, u_monitor." + std::string(row.record) + ' ' + key;
    const std::string debug = std::string("debug ") + row.name + ": ";
    lines keyed{"libddm_get_phyid_by_ifx(9) -> 1009"};
    if (!row.own_key) keyed.insert(keyed.begin(), "libddm_get_phyid_by_ifx(5) -> 1005");
    const auto after_key = [&](const lines &rest) {
      lines all = keyed;
      all.insert(all.end(), rest.begin(), rest.end());
      return all;
    };

    EXPECT_EQ(0, row.set(recording::global(), &info, 0));
    EXPECT_EQ(after_key({"vx_mom_set" + record + ' ' + row.payload + ')', debug + row.set_text + ", ret=0\\r\\n"}),
              recording::take_trace());
    recording::fail("vx_mom_set", 1, 7);
    EXPECT_EQ(7, row.set(recording::global(), &info, 0));
    EXPECT_EQ(debug + row.set_text + ", ret=7\\r\\n", recording::take_trace().back());
    EXPECT_EQ(0, row.set(recording::global(), &info, 2));
    EXPECT_EQ(after_key({"vx_mom_del" + record + ')', debug + row.del_text + ", ret=0\\r\\n"}),
              recording::take_trace());

    recording::fail("libddm_get_phyid_by_ifx", 1, -6);
    EXPECT_EQ(-6, row.set(recording::global(), &info, 0));
    EXPECT_EQ(std::string("error ") + row.name + ": " + row.key_failure + ". ret=-6\\r\\n",
              recording::take_trace().back());
  }
  EXPECT_EQ(lines(), recording::store_text());
}

TEST_F(Span, AnySwitchButZeroGivesLearningBack) {
  for (const uint32_t on : {1U, 2U, UINT32_MAX}) {
    ko_lspan_mtp_info_switch(9, on);
    EXPECT_EQ(lines{"vx_mom_del(FWD_DB, u_bridge.udp_pt_learn {t_app_name=\"ko_lspan\" t_ifx=9})"},
              recording::take_trace());
  }
}

// ---- entries ----

TEST_F(Span, KindOfMirrorTargetByRole) {
  const char *const kinds[] = {"", "", " mtp_type=1 rspan_vlan=30", " mtp_type=1 rspan_vlan=30",
                               " mtp_type=2 src_ip=1 dst_ip=2 ttl=64 dscp=46 vrf=5"};
  for (uint32_t role = 0; role < 8; ++role) {
    driver::reset();
    span_info info = full_member();
    info.role = role;
    ko_span_db_save_info(&lspan_global.session_list, &info);
    const std::string role_text = role == 0 ? "" : " role=" + std::to_string(role);
    EXPECT_EQ("  mtp session_id=3 d_phyid=1009 mtp_switch=1 module_type=2" + role_text + (role < 5 ? kinds[role] : ""),
              driver::memory_text().back());
  }
  // A role that says nothing about the kind leaves it; role 1 sets it back, and leaves the data of the others.
  span_info info = full_member();
  for (const uint32_t role : {2U, 0U}) {
    info.role = role;
    ko_span_db_save_info(&lspan_global.session_list, &info);
  }
  EXPECT_EQ("  mtp session_id=3 d_phyid=1009 mtp_switch=1 module_type=2 mtp_type=1 rspan_vlan=30",
            driver::memory_text().back());
  info.role = 1;
  ko_span_db_save_info(&lspan_global.session_list, &info);
  EXPECT_EQ("  mtp session_id=3 d_phyid=1009 mtp_switch=1 module_type=2 role=1 rspan_vlan=30",
            driver::memory_text().back());
}

TEST_F(Span, ClearOfAnUnknownSessionLeavesTheFlag) {
  const span_info info = full_member();
  uint8_t last = 0;
  ko_span_db_clear_info(&lspan_global.session_list, &info, &last);
  EXPECT_EQ(0, last);
  EXPECT_EQ(lines{"error ko_span_db_clear_info: not find mirror info!\\r\\n"}, recording::take_trace());
  ko_span_db_save_info(&lspan_global.session_list, &info);
  ko_span_db_clear_info(&lspan_global.session_list, &info, &last);
  EXPECT_EQ(1, last);
}

TEST_F(Span, SourceSearchHandsOutACopy) {
  span_info info = full_member();
  info.apply_type = 3;
  ko_span_db_save_info(&lspan_global.session_list, &info);
  src_info untouched;
  memset(&untouched, 0x5a, sizeof(untouched));
  const src_info zero = {};
  const auto search = [](uint32_t session, uint32_t s_ifx, src_info *copy) {
    return ko_span_search_src_info(&lspan_global.session_list, session, s_ifx, 1, 8, copy);
  };
  src_info copy = untouched;
  EXPECT_EQ(-7, search(4, 5, &copy));
  EXPECT_EQ(0, memcmp(&copy, &untouched, sizeof(copy)));
  recording::fail("libddm_get_phyid_by_ifx", 1, -9);
  EXPECT_EQ(-9, search(3, 5, &copy));
  EXPECT_EQ(0, memcmp(&copy, &untouched, sizeof(copy)));
  EXPECT_EQ(-7, search(3, 6, &copy));
  EXPECT_EQ(0, memcmp(&copy, &zero, sizeof(copy)));
  EXPECT_EQ(0, search(3, 5, &copy));
  const auto *session = reinterpret_cast<mirror_info *>(lspan_global.session_list.next);
  EXPECT_EQ(0, memcmp(&copy, session->src_list.next, sizeof(copy)));
  EXPECT_EQ(7U, copy.vlan_map[1]);
}

TEST_F(Span, MoreVlanWordsThanAMemberHolds) {
  driver::member member;
  member.session = 1;
  member.s = 5;
  member.d = 9;
  member.apply = 2;
  for (const size_t count : {127U, 128U}) {
    member.vlan.assign(count, 1);
    member.vlan.back() = 4;
    EXPECT_EQ(0, driver::member_event(member, false));
    std::string words;
    for (const uint32_t word : member.vlan) words += (words.empty() ? "" : ",") + std::to_string(word);
    EXPECT_EQ(
        "UDP_DB u_monitor.span_vlan_src_info {t_user=\"ko_lspan\" session_id=1 s_phyid=1005 d_phyid=1009} "
        "role=1 vlan_map=[" +
            words + "]",
        recording::store_text().back());
    EXPECT_EQ("  src s_phyid=1005 d_phyid=1009 apply_type=2 vlan_map=[" + words + "]", driver::memory_text()[1]);
  }
  recording::take_trace();
  member.vlan.assign(129, 1);
  member.s = 6;
  EXPECT_EQ(-4, driver::member_event(member, false));
  ASSERT_EQ(1U, recording::trace().size());
  EXPECT_NE(std::string::npos, recording::trace()[0].find(": lspan_info vlan_map too long, n_vlan_map=129"));
  EXPECT_EQ(0U, recording::trace()[0].find("error ")) << recording::trace()[0];
  EXPECT_EQ(4U, driver::memory_text().size());
  member.s = 5;
  EXPECT_EQ(0, driver::member_event(member, true));
  EXPECT_EQ(lines(), driver::memory_text());
  EXPECT_EQ(lines(), recording::store_text());
}

// ---- layout of what travels between the units ----

template <typename Field>
constexpr bool is_words(size_t count) {
  return sizeof(Field) == count * sizeof(uint32_t);
}

#define WORDS_BETWEEN(type, first, last) ((offsetof(type, last) - offsetof(type, first)) / sizeof(uint32_t))
static_assert(is_words<decltype(span_info::vlan_map)>(128) && is_words<decltype(span_info::ip_head)>(5));
static_assert(WORDS_BETWEEN(span_info, session_num, rspan_vlan) == 138);
static_assert(is_words<decltype(src_info::vlan_map)>(128) && WORDS_BETWEEN(src_info, s_phyid, vlan_map) == 5);
static_assert(WORDS_BETWEEN(mtp_info, session_id, ip_head) == 7);
static_assert(sizeof(span_info::mtp_switch) == 1 && sizeof(span_info::src_is_subif) == 1 &&
              sizeof(mtp_info::mtp_switch) == 1);
static_assert(offsetof(mirror_info, link) == 0 && offsetof(src_info, link) == 0 && offsetof(dst_info, link) == 0 &&
              offsetof(mtp_info, link) == 0);

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
  EXPECT_EQ((std::vector<uint8_t>{0x38, 0xac, 0x02, 0x48, 0x04}), packed(flush.base));
  uint32_t words[] = {1, 300};
  flush.n_vbmp = 2;
  flush.vbmp = words;
  EXPECT_EQ((std::vector<uint8_t>{0x38, 0xac, 0x02, 0x48, 0x04, 0x52, 0x03, 0x01, 0xac, 0x02}), packed(flush.base));

  UMonitor__SpanSrcInfoIndex key = U_MONITOR__SPAN_SRC_INFO_INDEX__INIT;
  EXPECT_STREQ("", key.t_user);
  UBridge__UdpPtLearnIndex learn_key = U_BRIDGE__UDP_PT_LEARN_INDEX__INIT;
  EXPECT_STREQ("", learn_key.t_app_name);
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

TEST_F(Span, LevelsOfTheLog) {
  const struct {
    uint32_t level;
    lines written;
  } rows[] = {{0, {}},
              {1, {"error"}},
              {2, {"error", "warn"}},
              {3, {"error", "warn"}},
              {4, {"error", "warn", "info"}},
              {5, {"error", "warn", "info", "debug"}},
              {UINT32_MAX, {"error", "warn", "info", "debug"}}};
  for (const auto &row : rows) {
    recording::reset();
    lspan_zlog_level = row.level;
    LSPAN_LOG_AS(dl_zlog_error, "f", "%s", "100%d");
    LSPAN_LOG_AS(dl_zlog_warn, "f", "%s", "100%d");
    LSPAN_LOG_AS(dl_zlog_info, "f", "%s", "100%d");
    LSPAN_LOG_AS(dl_zlog_debug, "f", "%s", "100%d");
    lines expected;
    for (const std::string &kind : row.written) expected.push_back(kind + " f: 100%d");
    EXPECT_EQ(expected, recording::take_trace()) << row.level;
    EXPECT_EQ(row.written.size(), recording::format_count()) << "formatted without need at " << row.level;
  }
}

TEST_F(Span, LongTextsAreCut) {
  for (const size_t length : {1022U, 1023U, 1024U, 5000U}) {
    const std::string text(length, 'x');
    LSPAN_ERROR("%s", text.c_str());
    EXPECT_EQ("error TestBody: " + text.substr(0, 1023), recording::take_trace().at(0));
  }
  lspan_global.zlog_category = nullptr;
  LSPAN_ERROR("dropped");
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

outgrb_mbr_info *insert(uint32_t key) {
  const outgrb_mbr_info record{key, 1};
  outgrb_mbr_info *entry = nullptr;
  return outgrb_mbr_hash_set(&entry, &record);
}

// Whether inserting `key` made the table rebuild: an insert alone allocates its entry and nothing else.
bool rebuilds(uint32_t key) {
  recording::alloc_fail_at(0, false);
  EXPECT_NE(nullptr, insert(key));
  return recording::alloc_count() > 1;
}

void remove(uint32_t key) {
  outgrb_mbr_info *entry = outgrb_mbr_hash_get(&key);
  ASSERT_NE(nullptr, entry);
  outgrb_mbr_hash_del(entry);
}

TEST(OutgrbTableDeathTest, GrowsAtItsBounds) {
  in_fresh_process([] {
    outgrb_mbr_hash_init();
    std::vector<uint32_t> rebuilt;
    for (uint32_t count = 1; count <= 50; ++count)
      if (rebuilds(count * 17)) rebuilt.push_back(count);
    // To 4 buckets, then after the 3rd, 6th, 12th, 25th and 49th.
    EXPECT_EQ((std::vector<uint32_t>{1, 4, 7, 13, 26, 50}), rebuilt);
  });
}

TEST(OutgrbTableDeathTest, RebuildsAtTheSameSizeWhenFewerThanHalfLive) {
  in_fresh_process([] {
    outgrb_mbr_hash_init();
    for (uint32_t key = 1; key <= 3; ++key) insert(key);
    remove(1);
    remove(2);
    EXPECT_TRUE(rebuilds(4));  // one of four lives: to 4 buckets again
    EXPECT_FALSE(rebuilds(5));
    EXPECT_TRUE(rebuilds(6));  // three of four: to 8
    EXPECT_FALSE(rebuilds(7));
  });
  in_fresh_process([] {
    outgrb_mbr_hash_init();
    for (uint32_t key = 1; key <= 3; ++key) insert(key);
    remove(1);
    EXPECT_TRUE(rebuilds(4));  // half of four live: to 8, with room for six
    for (uint32_t key = 5; key <= 7; ++key) EXPECT_FALSE(rebuilds(key));
    EXPECT_TRUE(rebuilds(8));
  });
}

TEST(OutgrbTableDeathTest, ReusesDeletedBuckets) {
  in_fresh_process([] {
    outgrb_mbr_hash_init();
    EXPECT_TRUE(rebuilds(9));
    for (int i = 0; i < 100; ++i) {
      remove(9);
      EXPECT_FALSE(rebuilds(9)) << i;
    }
  });
}

// Seeded operations on both tables against a map from key to entry, with allocations failing now and then.
TEST(OutgrbTableDeathTest, BehavesLikeAMap) {
  in_fresh_process([] {
    outgrb_mbr_hash_init();
    outgrb_group_hash_init();
    std::mt19937 engine(20240611);
    const auto random = [&] { return static_cast<uint32_t>(engine()); };
    std::unordered_map<uint32_t, outgrb_mbr_info *> members;
    std::unordered_map<uint32_t, outgrb_group_info *> groups;
    uint64_t refused = 0;
    for (int i = 0; i < 300000 && !testing::Test::HasFailure(); ++i) {
      // The universe breathes, so that tables fill up with live entries and with deleted ones.
      const uint32_t key = random() % (i / 30000 % 2 == 0 ? 40 : 3000) * 0x01000193U;
      const bool insert_it = random() % 5 < (i / 20000 % 2 == 0 ? 3U : 2U);
      recording::alloc_fail_at(random() % 8 == 0 ? 1 + random() % 2 : 0, random() % 2 == 0);
      if (insert_it) {
        const outgrb_mbr_info record{key, random()};
        const outgrb_group_info group{key, {}, nullptr, nullptr, nullptr};
        outgrb_mbr_info *member_out = nullptr;
        outgrb_group_info *group_out = nullptr;
        outgrb_mbr_info *member = outgrb_mbr_hash_set(&member_out, &record);
        outgrb_group_info *made = outgrb_group_hash_set(&group_out, &group);
        EXPECT_EQ(member_out, member);
        EXPECT_EQ(group_out, made);
        refused += (member == nullptr) + (made == nullptr);
        // An entry that is there keeps its place, and its update is not refused.
        EXPECT_EQ(member, member == nullptr ? nullptr : members.try_emplace(key, member).first->second);
        EXPECT_EQ(made, made == nullptr ? nullptr : groups.try_emplace(key, made).first->second);
        EXPECT_EQ(members.contains(key), member != nullptr && member->group_id == record.group_id);
        EXPECT_EQ(groups.contains(key), made != nullptr);
      } else {
        if (const auto found = members.extract(key)) outgrb_mbr_hash_del(found.mapped());
        if (const auto found = groups.extract(key)) outgrb_group_hash_del(found.mapped());
      }
      EXPECT_EQ(members.contains(key) ? members[key] : nullptr, outgrb_mbr_hash_get(&key));
      EXPECT_EQ(groups.contains(key) ? groups[key] : nullptr, outgrb_group_hash_get(&key));
      if (i % 5000 != 0) continue;
      for (uint32_t n = 0; n < 3000; ++n) {
        const uint32_t any = n * 0x01000193U;
        EXPECT_EQ(members.contains(any) ? members[any] : nullptr, outgrb_mbr_hash_get(&any));
        EXPECT_EQ(groups.contains(any) ? groups[any] : nullptr, outgrb_group_hash_get(&any));
      }
    }
    EXPECT_GT(refused, 1000U);
    EXPECT_TRUE(outgrb_mbr_hash_get(nullptr) == nullptr && outgrb_group_hash_get(nullptr) == nullptr);
  });
}

// The daemon itself never updates a group that is there.
TEST_F(Span, GroupUpdateKeepsTheMembers) {
  mtp_info first = {}, second = {};
  driver::group_event(4, 7, false);
  outgrb_group_info record{7, {}, &first, nullptr, nullptr};
  outgrb_group_info *group = nullptr;
  ASSERT_EQ(outgrb_group_hash_get(&record), outgrb_group_hash_set(&group, &record));
  EXPECT_TRUE(group->mtp_info == &first && first.groups == group);
  record.mtp_info = &second;
  EXPECT_EQ(group, outgrb_group_hash_set(&group, &record));
  EXPECT_TRUE(group->mtp_info == &second && second.groups == group && first.groups == nullptr);
  outgrb_forget_mtp_info(&second);
  EXPECT_TRUE(group->mtp_info == nullptr && second.groups == nullptr);
  EXPECT_EQ("", driver::broken());
}

}  // namespace
