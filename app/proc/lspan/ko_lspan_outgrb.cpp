// Outflow-group membership events: an interface joins, changes or leaves its group. Where a session mirrors to the
// group, the interface's learning follows the session's switch.
#include <cstdlib>

#include "proc/ko_span_target.h"
#include "proc/lspan/ko_list.h"
#include "proc/lspan/ko_lspan.h"
#include "proc/lspan/outgrb_hash.h"

namespace {

outgrb_mbr_info *find_or_add_member(uint32_t ifx) {
  outgrb_mbr_info *member = outgrb_mbr_hash_get(&ifx);
  if (member != nullptr) return member;
  const outgrb_mbr_info record = {ifx, 0};
  return outgrb_mbr_hash_set(&member, &record);
}

outgrb_group_info *find_or_add_group(uint32_t group_id) {
  outgrb_group_info *group = outgrb_group_hash_get(&group_id);
  if (group != nullptr) return group;
  outgrb_group_info record = {};
  record.group_id = group_id;
  return outgrb_group_hash_set(&group, &record);
}

// Whether or not a session mirrors to the old group: its learning is given back. The group stays, even when empty.
void leave_group(const outgrb_mbr_info *member) {
  outgrb_group_info *group = outgrb_group_hash_get(&member->group_id);
  if (group == nullptr) return;
  outgrb_mbr_list_remove(&group->mbr_list, member->ifx);
  ko_lspan_mtp_info_switch(member->ifx, 1);
}

bool append_member(outgrb_group_info *group, uint32_t ifx) {
  auto *node = static_cast<outgrb_mbr_node *>(calloc(1, sizeof(outgrb_mbr_node)));
  if (node == nullptr) return false;
  node->ifx = ifx;
  ko_list_add_tail(&group->mbr_list, &node->link);
  return true;
}

}  // namespace

int32_t ko_lspan_outgrb_handle(void *, uint32_t is_del, const void *message) {
  const auto *lspan_outgrb_info = static_cast<const PPolicy__DataIntfConf *>(message);
  if (lspan_outgrb_info == nullptr) {
    LSPAN_ERROR("lspan_outgrb_info is NULL");
    return ko_status_missing;
  }
  if (lspan_outgrb_info->index == nullptr) {
    LSPAN_ERROR("lspan_outgrb_info index is NULL");
    return ko_status_missing;
  }
  return is_del != 0 ? ko_lspan_outgrb_del(lspan_outgrb_info->index) : ko_lspan_outgrb_add(lspan_outgrb_info);
}

int32_t ko_lspan_outgrb_add(const PPolicy__DataIntfConf *lspan_outgrb_info) {
  LSPAN_DEBUG("outgrb's mbr add start");
  const uint32_t ifx = lspan_outgrb_info->index->index;
  const uint32_t group_id = lspan_outgrb_info->group_id;
  if (group_id == 0) return ko_lspan_outgrb_del(lspan_outgrb_info->index);
  // 1. The interface, out of its old group.
  outgrb_mbr_info *member = find_or_add_member(ifx);
  if (member == nullptr) {
    LSPAN_ERROR("no memery for alloc hash_table");
    return ko_status_no_memory;
  }
  if (member->group_id != group_id) leave_group(member);
  member->group_id = group_id;
  // 2. Into its new one. A membership that is sent again stands there again.
  outgrb_group_info *group = find_or_add_group(group_id);
  if (group == nullptr) {
    LSPAN_ERROR("no memery for alloc hash_table");
    return ko_status_no_memory;
  }
  if (!append_member(group, ifx)) {
    LSPAN_DEBUG("can't alloc memory for add outflow-group'mbr,ifx is %d, group_id is %d", ifx, group_id);
    return ko_status_no_memory;
  }
  // 3. Learning, when a session mirrors to the group and none to the interface itself. A group keeps the target that it
  // knew when no session is found.
  mtp_info *target = ko_lspan_mtp_info_search_by_groupid(group_id);
  if (target != nullptr) {
    LSPAN_DEBUG("can find mtp_info by group_id:%d, mtp_info's session_id is :%d, show config mtp_switch: %d", group_id,
                target->session_id, target->mtp_switch);
    ko_span_target_name(group, target);
  }
  if (group->mtp_info != nullptr && ko_lspan_info_search_ifx(ifx) == 0)
    ko_lspan_mtp_info_switch(ifx, group->mtp_info->mtp_switch);
  LSPAN_DEBUG("outgrb's mbr add end");
  return 0;
}

int32_t ko_lspan_outgrb_del(const PIntf__Intfindex *index) {
  LSPAN_DEBUG("del outflow-group's mbr start");
  const uint32_t ifx = index->index;
  outgrb_mbr_info *member = outgrb_mbr_hash_get(&ifx);
  if (member == nullptr) return 0;
  outgrb_group_info *group = outgrb_group_hash_get(&member->group_id);
  if (group == nullptr) {
    outgrb_mbr_hash_del(member);
    return 0;
  }
  outgrb_mbr_list_remove(&group->mbr_list, ifx);
  if (group->mtp_info != nullptr && ko_lspan_info_search_ifx(ifx) == 0) ko_lspan_mtp_info_switch(ifx, 1);
  if (ko_list_empty(&group->mbr_list)) outgrb_group_hash_del(group);
  outgrb_mbr_hash_del(member);
  LSPAN_DEBUG("del outflow-group's mbr end");
  return 0;
}
