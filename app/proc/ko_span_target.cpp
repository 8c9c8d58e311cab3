// The table of mirror targets: an ordered set of records, one per entry, and their places in it by the entry's address.
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
  span_target target;
  mutable uint64_t place;             // orders the sessions as the session list does; 0: the session is in another list
  mutable outgrb_group_info *groups;  // first of the groups that name the entry, or null
};

struct comes_before {
  bool operator()(const target_record &one, const target_record &other) const {
    return std::tie(one.target.is_group, one.target.number, one.place) <
           std::tie(other.target.is_group, other.target.number, other.place);
  }
};

using target_set = std::multiset<target_record, comes_before>;  // those of another list may be equal

target_set by_target;
std::unordered_map<const mtp_info *, target_set::const_iterator> by_entry;
uint64_t last_place;  // the highest place in use

const target_record *find_record(const mtp_info *entry) {
  const auto found = by_entry.find(entry);
  return found != by_entry.end() ? &*found->second : nullptr;
}

// Numbers the session list anew, which leaves the records' order as it is. Returns the place of the session that owns
// `mtp_list`, 0: none does.
uint64_t number_sessions(const mirror_link *mtp_list) {
  uint64_t place = 0;
  last_place = 0;
  mirror_link *sessions = &lspan_global.session_list;
  for (mirror_link *at = sessions->next; at != sessions; at = at->next) {
    mirror_link *targets = &ko_list_entry<mirror_info>(at)->mtp_list;
    ++last_place;
    if (targets == mtp_list) place = last_place;
    if (const target_record *record = find_record(ko_list_entry<mtp_info>(targets->next)); record != nullptr)
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
    if (const target_record &record = *at++; record.place != 0 && &record != only) ko_span_target_remove(record.entry);
}

}  // namespace

int32_t ko_span_target_add(mirror_link *mtp_list, mtp_info *entry, span_target target) {
  ko_span_target_remove(entry);  // left over from an entry that had this address
  remove_left_over();
  const uint64_t place = place_of(mtp_list);
  try {
    const auto found = by_entry.emplace(entry, by_target.end()).first;
    found->second = by_target.insert({entry, target, place, nullptr});
    return 0;
  } catch (const std::bad_alloc &) {
    by_entry.erase(entry);
    return ko_status_no_memory;
  }
}

void ko_span_target_set(const mtp_info *entry, span_target target) {
  const auto found = by_entry.find(entry);
  if (found == by_entry.end() || found->second->target == target) return;
  auto node = by_target.extract(found->second);
  node.value().target = target;
  found->second = by_target.insert(std::move(node));
}

void ko_span_target_remove(const mtp_info *entry) {
  const auto found = by_entry.find(entry);
  if (found == by_entry.end()) return;
  while (found->second->groups != nullptr) ko_span_target_name(found->second->groups, nullptr);
  by_target.erase(found->second);
  by_entry.erase(found);
}

mtp_info *ko_span_target_find(span_target target) {
  remove_left_over();
  const auto found = by_target.lower_bound({nullptr, target, 1, nullptr});
  return found != by_target.end() && found->target == target ? found->entry : nullptr;
}

void ko_span_target_name(outgrb_group_info *group, mtp_info *entry) {
  if (group->mtp_info == entry) return;
  if (group->named_at != nullptr) *group->named_at = group->next_named;
  if (group->next_named != nullptr) group->next_named->named_at = group->named_at;
  group->mtp_info = entry;
  group->named_at = nullptr;
  group->next_named = nullptr;
  const target_record *record = find_record(entry);
  if (record == nullptr) return;
  group->named_at = &record->groups;
  group->next_named = record->groups;
  if (group->next_named != nullptr) group->next_named->named_at = &group->next_named;
  record->groups = group;
}
