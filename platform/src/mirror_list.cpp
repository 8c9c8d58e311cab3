// Mirror lists: entries from the standard allocator, which the caller frees, and searches from the first entry on.
#include "mirror_list.h"

#include <cstdlib>

#include "idl_trans.h"

namespace {

void make_empty(mirror_link &head) {
  head.next = head.prev = &head;
}

template <typename Entry>
Entry *add(mirror_link *list) {
  auto *entry = static_cast<Entry *>(std::calloc(1, sizeof(Entry)));
  if (entry == nullptr) return nullptr;
  entry->link = {list, list->prev};
  list->prev->next = &entry->link;
  list->prev = &entry->link;
  return entry;
}

template <typename Entry, typename Test>
Entry *search(mirror_link *list, Test test) {
  for (mirror_link *at = list->next; at != list; at = at->next) {
    auto *entry = reinterpret_cast<Entry *>(at);
    if (test(*entry)) return entry;
  }
  return nullptr;
}

}  // namespace

mirror_info *mirror_list_add_session_info(mirror_link *session_list) {
  auto *session = add<mirror_info>(session_list);
  if (session == nullptr) return nullptr;
  make_empty(session->src_list);
  make_empty(session->dst_list);
  make_empty(session->mtp_list);
  return session;
}

src_info *mirror_list_add_src_info(mirror_link *src_list) {
  return add<src_info>(src_list);
}

dst_info *mirror_list_add_dst_info(mirror_link *dst_list) {
  return add<dst_info>(dst_list);
}

mtp_info *mirror_list_add_mtp_info(mirror_link *mtp_list) {
  return add<mtp_info>(mtp_list);
}

mirror_info *mirror_list_search_session_info(mirror_link *session_list, uint32_t session_id) {
  return search<mirror_info>(session_list, [=](const mirror_info &entry) { return entry.session_id == session_id; });
}

src_info *mirror_list_search_src_info(mirror_link *src_list, uint32_t dir, uint32_t s_phyid, uint32_t acl_id) {
  return search<src_info>(src_list, [=, local_dir = idl_dir_trans_to_local(dir)](const src_info &entry) {
    return entry.dir == local_dir && entry.s_phyid == s_phyid && entry.acl_id == acl_id;
  });
}

dst_info *mirror_list_search_dst_info(mirror_link *dst_list, uint32_t dir, uint32_t s_phyid, uint32_t d_phyid,
                                      uint32_t acl_id) {
  return search<dst_info>(dst_list, [=, local_dir = idl_dir_trans_to_local(dir)](const dst_info &entry) {
    return entry.dir == local_dir && entry.s_phyid == s_phyid && entry.d_phyid == d_phyid && entry.acl_id == acl_id;
  });
}

mtp_info *mirror_list_search_mtp_info(mirror_link *mtp_list, uint32_t session_id) {
  return search<mtp_info>(mtp_list, [=](const mtp_info &entry) { return entry.session_id == session_id; });
}

int32_t mirror_list_del(mirror_link *entry) {
  entry->prev->next = entry->next;
  entry->next->prev = entry->prev;
  return 0;
}
