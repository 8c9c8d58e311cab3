// Session events: where a mirror session's configuration enters the daemon. The order of the steps of an add stands
// here; that of a delete in ko_lspan_del.cpp.
#include <algorithm>

#include "proc/ko_span_public.h"
#include "proc/lspan/ko_lspan.h"

namespace {

// Slots behind the last VLAN word stay 0; words that have no slot are left out.
span_info fill_span_info(const UMonitor__MirrorLspanInfo *lspan_info) {
  const UMonitor__MirrorIndex *index = lspan_info->index;
  span_info info = {};
  info.t_user = ko_lspan_app_name;
  info.session_num = index->session_num;
  info.s_ifx = index->s_ifx;
  info.d_ifx = index->d_ifx;
  info.dir = index->dir;
  info.module_type = ko_span_enum_number(lspan_info->module_type);
  info.role = ko_span_enum_number(lspan_info->role);
  info.apply_type = ko_span_enum_number(lspan_info->apply_type);
  info.acl_id = index->acl_id;
  info.sample_rate = lspan_info->sample_rate;
  info.n_vlan_map = static_cast<uint32_t>(std::min<size_t>(lspan_info->n_vlan_map, MIRROR_VLAN_WORDS));
  std::copy_n(lspan_info->vlan_map, info.n_vlan_map, info.vlan_map);
  info.mtp_switch = lspan_info->mtp_switch != 0 ? 1 : 0;
  return info;
}

}  // namespace

int32_t ko_lspan_info_handle(void *, uint32_t is_del, const void *message) {
  const auto *lspan_info = static_cast<const UMonitor__MirrorLspanInfo *>(message);
  if (lspan_info == nullptr) {
    LSPAN_ERROR("lspan_info is NULL");
    return ko_status_missing;
  }
  if (lspan_info->index == nullptr) {
    LSPAN_ERROR("lspan_info index is NULL");
    return ko_status_missing;
  }
  ko_lspan_dump_info(lspan_info);
  // A delete goes on with the words that fit, so that nothing is left behind.
  if (is_del == 0 && lspan_info->n_vlan_map > MIRROR_VLAN_WORDS) {
    LSPAN_ERROR("lspan_info vlan_map too long, n_vlan_map=%d", static_cast<uint32_t>(lspan_info->n_vlan_map));
    return ko_status_invalid;
  }
  const span_info info = fill_span_info(lspan_info);
  return is_del != 0 ? ko_lspan_del(lspan_info, &info) : ko_lspan_add(lspan_info, &info);
}

void ko_lspan_dump_info(const UMonitor__MirrorLspanInfo *lspan_info) {
  const UMonitor__MirrorIndex *index = lspan_info->index;
  LSPAN_DEBUG(
      "session_id=%d, dir=%d, s_ifx=%d, d_ifx=%d, module_type=%d, role=%d, apply_type=%d mtp_switch=%d, acl_id=%d",
      index->session_num, index->dir, index->s_ifx, index->d_ifx, ko_span_enum_number(lspan_info->module_type),
      ko_span_enum_number(lspan_info->role), ko_span_enum_number(lspan_info->apply_type), lspan_info->mtp_switch,
      index->acl_id);
}

// The member is recorded only when all its records were written. What was written before a failure stays.
int32_t ko_lspan_add(const UMonitor__MirrorLspanInfo *lspan_info, const span_info *info) {
  LSPAN_DEBUG("======ko lspan add start========");
  // 1. Destination.
  int32_t rv = ko_span_mom_dst_set(lspan_global.global, info, 0);
  if (rv != 0) {
    LSPAN_ERROR("mom add dst info failed. rv=%d", rv);
    return rv;
  }
  // 2. Source.
  rv = ko_span_mom_src_set(lspan_global.global, info, 0);
  if (rv != 0) {
    LSPAN_ERROR("mom add src info failed. rv=%d", rv);
    return rv;
  }
  // 3. Learning on the target.
  if (!ko_lspan_target_switch(info, lspan_info->mtp_switch != 0 ? 1 : 0))
    LSPAN_DEBUG("======can't find group into========");
  // 4. Mirror target.
  rv = ko_span_mom_mtp_set(lspan_global.global, info, 0);
  if (rv != 0) {
    LSPAN_ERROR("mom add mtp info failed. rv=%d", rv);
    return rv;
  }
  // 5. Save.
  ko_span_db_save_info(&lspan_global.session_list, info);
  LSPAN_DEBUG("======ko lspan add end========");
  return 0;
}
