// The table of mirror targets: one record per entry, found by the entry's address, and an ordered set of the records.
#include "proc/ko_span_target.h"

#include <new>
#include <set>
#include <tuple>
#include <unordered_map>
#include <utility>

#include "proc/ko_span_public.h"
#include "proc/lspan/ko_list.h"
#include "proc/lspan/outgrb_hash.h"
#include "proc/lspan_global.h"

namespace {

struct target_record {
  mtp_info *entry;
  bool to_group;              // the entry targets a group, else an interface
  uint32_t number;            // group id or interface index
  uint64_t place;             // orders the sessions as the session list does; 0: the session is in another list
  outgrb_group_info *groups;  // first of the groups that name the entry, or null
};

struct comes_before {
  bool operator()(const target_record *one, const target_record *other) const {
    return std::tie(one->to_group, one->number, one->place) < std::tie(other->to_group, other->number, other->place);
  }
};

std::unordered_map<const mtp_info *, target_record> records;  // of all entries
std::set<target_record *, comes_before> by_target;            // records of entries in the session list
uint64_t last_place;                                          // the highest place in use

target_record *find_record(const mtp_info *target) {
  const auto found = records.find(target);
  return found != records.end() ? &found->second : nullptr;
}

// Numbers the session list anew. Returns the place of the session that owns `mtp_list`, 0: none does.
uint64_t number_sessions(const mirror_link *mtp_list) {
  uint64_t place = 0;
  last_place = 0;
  mirror_link *sessions = &lspan_global.session_list;
  for (mirror_link *at = sessions->next; at != sessions; at = at->next) {
    mirror_link *targets = &ko_list_entry<mirror_info>(at)->mtp_list;
    ++last_place;
    if (targets == mtp_list) place = last_place;
    if (target_record *record = find_record(ko_list_entry<mtp_info>(targets->next)); record != nullptr)
      record->place = last_place;
  }
  return place;
}

// Usually a session gets its target with its first member, when it is the last of the list. If that failed, others may
// have been added behind it.
uint64_t place_of(const mirror_link *mtp_list) {
  mirror_link *last = lspan_global.session_list.prev;
  if (last == nullptr) return 0;
  const bool is_last = last != &lspan_global.session_list && &ko_list_entry<mirror_info>(last)->mtp_list == mtp_list;
  return is_last ? ++last_place : number_sessions(mtp_list);
}

// A session list that lspan_global_init made empty, not the end of its sessions, has left its records behind: they are
// removed when the list is next looked at, while it has one session at most.
void remove_left_over() {
  mirror_link *sessions = &lspan_global.session_list;
  if (sessions->next != sessions->prev) return;
  const bool is_empty = sessions->next == nullptr || sessions->next == sessions;
  const mirror_link *targets = is_empty ? nullptr : &ko_list_entry<mirror_info>(sessions->next)->mtp_list;
  const target_record *only = is_empty ? nullptr : find_record(ko_list_entry<mtp_info>(targets->next));
  for (auto at = by_target.begin(); at != by_target.end();)
    if (const target_record *record = *at++; record != only) ko_span_target_remove(record->entry);
}

}  // namespace

int32_t ko_span_target_add(mirror_link *mtp_list, mtp_info *target) {
  ko_span_target_remove(target);  // left over from an entry that had this address
  remove_left_over();
  try {
    target_record *record = &records.emplace(target, target_record{target, false, 0, 0, nullptr}).first->second;
    record->place = place_of(mtp_list);
    if (record->place != 0) by_target.insert(record);
    return 0;
  } catch (const std::bad_alloc &) {
    records.erase(target);
    return ko_status_no_memory;
  }
}

void ko_span_target_set(const mtp_info *target, bool to_group, uint32_t number) {
  target_record *record = find_record(target);
  if (record == nullptr || (record->to_group == to_group && record->number == number)) return;
  auto node = by_target.extract(record);
  record->to_group = to_group;
  record->number = number;
  by_target.insert(std::move(node));
}

void ko_span_target_remove(const mtp_info *target) {
  target_record *record = find_record(target);
  if (record == nullptr) return;
  while (record->groups != nullptr) ko_span_target_name(record->groups, nullptr);
  by_target.erase(record);
  records.erase(target);
}

mtp_info *ko_span_target_find(bool to_group, uint32_t number) {
  remove_left_over();
  target_record first = {nullptr, to_group, number, 0, nullptr};
  const auto found = by_target.lower_bound(&first);
  if (found == by_target.end() || (*found)->to_group != to_group || (*found)->number != number) return nullptr;
  return (*found)->entry;
}

void ko_span_target_name(outgrb_group_info *group, mtp_info *target) {
  if (group->mtp_info == target) return;
  if (group->named_at != nullptr) *group->named_at = group->next_named;
  if (group->next_named != nullptr) group->next_named->named_at = group->named_at;
  group->mtp_info = target;
  group->named_at = nullptr;
  group->next_named = nullptr;
  target_record *record = find_record(target);
  if (record == nullptr) return;
  group->named_at = &record->groups;
  group->next_named = record->groups;
  if (group->next_named != nullptr) group->next_named->named_at = &group->next_named;
  record->groups = group;
}
