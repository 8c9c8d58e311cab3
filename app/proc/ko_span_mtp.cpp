// The mirror-target port: where a session's copies leave. A record in the store, one entry in the session, and for a
// group target the link from the group to that entry.
#include <cstdlib>

#include "idl_trans.h"
#include "proc/ko_span_public.h"
#include "proc/ko_span_record.h"
#include "proc/ko_span_target.h"
#include "proc/lspan/outgrb_hash.h"
#include "proc/lspan_global.h"

namespace {

// Kinds of target, mtp_info.mtp_type.
constexpr uint32_t mtp_local = 0;
constexpr uint32_t mtp_rspan = 1;
constexpr uint32_t mtp_erspan = 2;

outgrb_group_info *find_group(uint32_t d_phyid) {
  const uint32_t group_id = ko_span_group_id(d_phyid);
  return outgrb_group_hash_get(&group_id);
}

// An entry of the list that is in the table of targets, too, or null.
mtp_info *add_entry(mirror_link *mtp_list, span_target target) {
  mtp_info *entry = mirror_list_add_mtp_info(mtp_list);
  if (entry == nullptr || ko_span_target_add(mtp_list, entry, target) == 0) return entry;
  mirror_list_del(&entry->link);
  free(entry);
  return nullptr;
}

// The group that the removal's own target names lets go of its target, whichever session's that is.
void remove_entry(mtp_info *entry, uint32_t d_phyid) {
  mirror_list_del(&entry->link);
  if (entry->module_type == U_MONITOR__MIRROR_MODULE__GROUP) {
    outgrb_group_info *group = find_group(d_phyid);
    if (group != nullptr) ko_span_target_name(group, nullptr);
  }
  ko_span_target_remove(entry);
  free(entry);
}

// Other roles leave the kind of target as it is.
void fill_kind(mtp_info *entry, const span_info *info) {
  switch (info->role) {
    case U_MONITOR__MIRROR_ROLE__LOCALSPAN_DST:
      entry->mtp_type = mtp_local;
      break;
    case U_MONITOR__MIRROR_ROLE__RSPAN_SRC:
    case U_MONITOR__MIRROR_ROLE__RSPAN_DST:
      entry->mtp_type = mtp_rspan;
      entry->rspan_vlan = info->rspan_vlan;
      break;
    case U_MONITOR__MIRROR_ROLE__ERSPAN_SRC:
      entry->mtp_type = mtp_erspan;
      entry->ip_head = info->ip_head;
      break;
    default:
      break;
  }
}

}  // namespace

int32_t ko_span_mom_mtp_set(vx_global *store, const span_info *info, uint32_t is_del) {
  UMonitor__SpanMtpInfo record = U_MONITOR__SPAN_MTP_INFO__INIT;
  UMonitor__SpanMtpInfoIndex key = U_MONITOR__SPAN_MTP_INFO_INDEX__INIT;
  int32_t rc = ko_span_fill_mtp_info_key(info, &key);
  if (rc != 0) {
    LSPAN_ERROR("fill mtp info key failed. ret=%d\r\n", rc);
    return rc;
  }
  record.index = &key;
  if (is_del == 0) {
    record.module_type = info->module_type;
    record.role = info->role;
    record.mtp_switch = info->mtp_switch;
  }
  rc = ko_span_put_record(store, &record.base, is_del);
  LSPAN_DEBUG(is_del == 0 ? "mtp info set to UDP_DB, ret=%d\r\n" : "mtp info del to UDP_DB, ret=%d\r\n", rc);
  return rc;
}

int32_t ko_span_mom_vlan_mtp_set(vx_global *store, const span_info *info, uint32_t is_del) {
  UMonitor__SpanVlanMtpInfo record = U_MONITOR__SPAN_VLAN_MTP_INFO__INIT;
  UMonitor__SpanMtpInfoIndex key = U_MONITOR__SPAN_MTP_INFO_INDEX__INIT;
  int32_t rc = ko_span_fill_mtp_info_key(info, &key);
  if (rc != 0) {
    LSPAN_ERROR("fill vlan mtp info key failed. ret=%d\r\n", rc);
    return rc;
  }
  record.index = &key;
  if (is_del == 0) record.rspan_vlan = info->rspan_vlan;
  rc = ko_span_put_record(store, &record.base, is_del);
  LSPAN_DEBUG(is_del == 0 ? "vlan mtp info set to UDP_DB, ret=%d\r\n" : "vlan mtp info del to UDP_DB, ret=%d\r\n", rc);
  return rc;
}

int32_t ko_span_mom_ip_mtp_set(vx_global *store, const span_info *info, uint32_t is_del) {
  UMonitor__SpanIpMtpInfo record = U_MONITOR__SPAN_IP_MTP_INFO__INIT;
  UMonitor__SpanMtpInfoIndex key = U_MONITOR__SPAN_MTP_INFO_INDEX__INIT;
  UMonitor__SpanIpInfo head = ko_span_ip_head(info);
  int32_t rc = ko_span_fill_mtp_info_key(info, &key);
  if (rc != 0) {
    LSPAN_ERROR("fill ip mtp info key failed. ret=%d\r\n", rc);
    return rc;
  }
  record.index = &key;
  if (is_del == 0) record.ip_head = &head;
  rc = ko_span_put_record(store, &record.base, is_del);
  LSPAN_DEBUG(is_del == 0 ? "ip mtp info set to UDP_DB, ret=%d\r\n" : "ip mtp info del to UDP_DB, ret=%d\r\n", rc);
  return rc;
}

int32_t ko_span_db_set_mtp_info(mirror_link *mtp_list, const span_info *info, uint32_t is_del) {
  uint32_t d_phyid = 0;
  const int32_t rc = ko_span_target_phyid(info, &d_phyid);
  if (rc != 0) {
    LSPAN_ERROR("libddm get dphyid failed. ret=%d, d_ifx=%d\r\n", rc, info->d_ifx);
    return rc;
  }
  mtp_info *entry = mirror_list_search_mtp_info(mtp_list, info->session_num);
  if (is_del != 0) {
    if (entry == nullptr) {
      LSPAN_ERROR("not find mtp info!\r\n");
      return ko_status_not_found;
    }
    remove_entry(entry, d_phyid);
    return 0;
  }
  const bool to_group = ko_span_targets_group(info);
  const span_target target = {to_group, to_group ? ko_span_group_id(info->d_ifx) : info->d_ifx};
  if (entry == nullptr)
    entry = add_entry(mtp_list, target);
  else
    ko_span_target_set(entry, target);
  if (entry == nullptr) {
    LSPAN_ERROR("add mtp info failed.");
    return ko_status_no_memory;
  }
  entry->mtp_switch = info->mtp_switch;
  entry->session_id = info->session_num;
  entry->d_phyid = d_phyid;
  entry->role = idl_role_trans_to_local(info->role);
  entry->module_type = info->module_type;
  outgrb_group_info *group = to_group ? find_group(d_phyid) : nullptr;
  if (group != nullptr) {
    LSPAN_DEBUG("======find outflow-group'info ========");
    ko_span_target_name(group, entry);
  }
  fill_kind(entry, info);
  return 0;
}
