// The tables that make every call take the same time, against the plain structures that they stand for: seeded random
// sequences, everything compared as it goes.
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <random>
#include <vector>

#include "idl_trans.h"
#include "mirror_list.h"
#include "store/record_table.h"

namespace {

// A key of a few bytes; a record that begins with it as packed records do, or has it elsewhere, or not at all.
std::string key_of(unsigned n) { return std::string(n % 7, 'k') + std::to_string(n); }

std::string record_of(unsigned n, unsigned form, size_t more) {
  const std::string key = key_of(n);
  const std::string tail(more, static_cast<char>('a' + form));
  if (form == 0) return std::string("\x2a") + static_cast<char>(key.size()) + key + tail;
  return form == 1 ? key + tail : tail;
}

TEST(RecordTable, HoldsWhatAMapHolds) {
  std::mt19937 random(7);
  std::pmr::unsynchronized_pool_resource pool;
  ko_store::record_table table(&pool);
  std::map<std::string, std::string> model;
  for (int round = 0; round < 60'000; ++round) {
    const unsigned n = random() % 1500;
    const std::string key = key_of(n), record = record_of(n, random() % 3, random() % 40);
    const unsigned what = random() % 100;
    if (what < 60) {
      table.put(key, record);
      model[key] = record;
    } else if (what < 99) {
      table.erase(key);
      model.erase(key);
    } else if (what == 99 && round % 5 == 0) {
      table.clear();
      model.clear();
    }
    ASSERT_EQ(table.size(), model.size());
    const auto expected = model.find(key);
    const auto *found = table.find(key);
    ASSERT_EQ(found != nullptr, expected != model.end());
    if (found == nullptr) continue;
    ASSERT_EQ(found->key(), key);
    ASSERT_EQ(found->record(), expected->second);
  }
  std::map<std::string, std::string> walked;
  table.reserve(100'000);
  for (size_t i = 0; i < table.n_buckets(); ++i)
    table.visit_bucket(i, [&](const auto &entry) { walked.emplace(entry.key(), entry.record()); });
  EXPECT_EQ(walked, model);
}

TEST(RecordTable, MarksEndWithTheRecord) {
  ko_store::record_table table(std::pmr::new_delete_resource());
  table.put("key", "record");
  table.find("key")->set_mark(5);
  EXPECT_EQ(table.find("key")->mark(), 5U);
  table.put("key", "other");
  EXPECT_EQ(table.find("key")->mark(), 0U);
}

// Lists of up to some dozens of entries, so that some are walked and some are looked up, and change from one to the
// other.
TEST(MirrorList, FindsWhatStandsInTheList) {
  std::mt19937 random(11);
  constexpr size_t n_lists = 12;
  mirror_link lists[n_lists];
  std::vector<src_info *> entries[n_lists];
  for (mirror_link &list : lists) list = {&list, &list};
  for (int round = 0; round < 60'000; ++round) {
    const size_t at = random() % n_lists;
    const uint32_t dir = random() % 2 + 1, port = random() % (4 * at + 1), acl = random() % 3;
    src_info *expected = nullptr;
    for (src_info *entry : entries[at])
      if (entry->dir == idl_dir_trans_to_local(dir) && entry->s_phyid == port && entry->acl_id == acl) expected = entry;
    ASSERT_EQ(mirror_list_search_src_info(&lists[at], dir, port, acl), expected);
    if (expected == nullptr) {
      src_info *added = mirror_list_add_src_info(&lists[at]);
      added->dir = idl_dir_trans_to_local(dir);
      added->s_phyid = port;
      added->acl_id = acl;
      entries[at].push_back(added);
    } else if (random() % 2 == 0) {
      mirror_list_del(&expected->link);
      std::erase(entries[at], expected);
      free(expected);
    }
    const mirror_link *link = &lists[at];
    for (const src_info *entry : entries[at]) ASSERT_EQ(link = link->next, &entry->link);
    ASSERT_EQ(link->next, &lists[at]);
  }
  for (auto &list : entries)
    for (src_info *entry : list) {
      mirror_list_del(&entry->link);
      free(entry);
    }
}

}  // namespace
