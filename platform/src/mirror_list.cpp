// Mirror lists: entries from the standard allocator, linked at the tail, which the caller frees. A search walks the
// start of a list and asks the index for the rest, so that every call takes the same time however long the lists are.
// Most sessions have a handful of members and need no index.
#include "mirror_list.h"

#include <cstdlib>

#include "idl_trans.h"
#include "mirror_index.h"

namespace {

using mirror_index::hash_of;
using mirror_index::node;

// Entries of a list that a search walks; those behind them are in the index. An entry comes last in its list and only
// moves towards the front: one that is walked when it comes needs no index ever.
constexpr size_t walked = 4;

// Entry and node come and go together; the caller frees both by the entry's address, which is the allocation's.
template <typename Entry>
struct allocation {
  Entry entry;
  node index;
};

// Hash values of the fields that a search compares.
uint64_t hash_of_session(const node &waiting) {
  return hash_of(waiting.list, {reinterpret_cast<const mirror_info *>(waiting.entry)->session_id});
}

uint64_t hash_of_source(const node &waiting) {
  const auto *entry = reinterpret_cast<const src_info *>(waiting.entry);
  return hash_of(waiting.list, {entry->dir, entry->s_phyid, entry->acl_id});
}

uint64_t hash_of_destination(const node &waiting) {
  const auto *entry = reinterpret_cast<const dst_info *>(waiting.entry);
  return hash_of(waiting.list, {entry->dir, entry->s_phyid, entry->d_phyid, entry->acl_id});
}

void make_empty(mirror_link &head) { head.next = head.prev = &head; }

void append(mirror_link *list, mirror_link &entry) {
  entry = {list, list->prev};
  list->prev->next = &entry;
  list->prev = &entry;
}

bool is_long(const mirror_link *list) {
  const mirror_link *at = list;
  for (size_t i = 0; i < walked; ++i)
    if ((at = at->next) == list) return false;
  return true;
}

template <typename Entry>
Entry *add(mirror_link *list, mirror_index::kind kind) {
  const bool is_indexed = is_long(list);
  void *made = std::calloc(1, is_indexed ? sizeof(allocation<Entry>) : sizeof(Entry));
  if (made == nullptr) return nullptr;
  auto *entry = static_cast<Entry *>(made);
  append(list, entry->link);
  if (is_indexed) mirror_index::add(&static_cast<allocation<Entry> *>(made)->index, kind, list, &entry->link);
  return entry;
}

template <typename Entry, typename Test>
Entry *search(mirror_link *list, Test test, mirror_index::kind kind, uint64_t hash,
              uint64_t (*hash_of_entry)(const node &)) {
  mirror_link *next = list->next;
  for (size_t i = 0; i < walked && next != list; ++i, next = next->next)
    if (auto *entry = reinterpret_cast<Entry *>(next); test(*entry)) return entry;
  if (next == list) return nullptr;
  for (const node *at = mirror_index::first(kind, hash, hash_of_entry); at != nullptr; at = mirror_index::next(at)) {
    auto *entry = reinterpret_cast<Entry *>(at->entry);
    if (at->list == list && test(*entry)) return entry;
  }
  return nullptr;
}

}  // namespace

mirror_info *mirror_list_add_session_info(mirror_link *session_list) {
  auto *session = add<mirror_info>(session_list, mirror_index::session);
  if (session == nullptr) return nullptr;
  make_empty(session->src_list);
  make_empty(session->dst_list);
  make_empty(session->mtp_list);
  return session;
}

src_info *mirror_list_add_src_info(mirror_link *src_list) { return add<src_info>(src_list, mirror_index::source); }

dst_info *mirror_list_add_dst_info(mirror_link *dst_list) { return add<dst_info>(dst_list, mirror_index::destination); }

// A session has one target at most: no index is needed.
mtp_info *mirror_list_add_mtp_info(mirror_link *mtp_list) {
  auto *made = static_cast<mtp_info *>(std::calloc(1, sizeof(mtp_info)));
  if (made != nullptr) append(mtp_list, made->link);
  return made;
}

mirror_info *mirror_list_search_session_info(mirror_link *session_list, uint32_t session_id) {
  return search<mirror_info>(
      session_list, [=](const mirror_info &entry) { return entry.session_id == session_id; }, mirror_index::session,
      hash_of(session_list, {session_id}), hash_of_session);
}

src_info *mirror_list_search_src_info(mirror_link *src_list, uint32_t dir, uint32_t s_phyid, uint32_t acl_id) {
  const uint32_t local_dir = idl_dir_trans_to_local(dir);
  return search<src_info>(
      src_list, [=](const src_info &e) { return e.dir == local_dir && e.s_phyid == s_phyid && e.acl_id == acl_id; },
      mirror_index::source, hash_of(src_list, {local_dir, s_phyid, acl_id}), hash_of_source);
}

dst_info *mirror_list_search_dst_info(mirror_link *dst_list, uint32_t dir, uint32_t s_phyid, uint32_t d_phyid,
                                      uint32_t acl_id) {
  const uint32_t local_dir = idl_dir_trans_to_local(dir);
  return search<dst_info>(
      dst_list,
      [=](const dst_info &e) {
        return e.dir == local_dir && e.s_phyid == s_phyid && e.d_phyid == d_phyid && e.acl_id == acl_id;
      },
      mirror_index::destination, hash_of(dst_list, {local_dir, s_phyid, d_phyid, acl_id}), hash_of_destination);
}

mtp_info *mirror_list_search_mtp_info(mirror_link *mtp_list, uint32_t session_id) {
  for (mirror_link *at = mtp_list->next; at != mtp_list; at = at->next)
    if (auto *entry = reinterpret_cast<mtp_info *>(at); entry->session_id == session_id) return entry;
  return nullptr;
}

int32_t mirror_list_del(mirror_link *entry) {
  mirror_index::remove(entry);
  entry->prev->next = entry->next;
  entry->next->prev = entry->prev;
  return 0;
}
