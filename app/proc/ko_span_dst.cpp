// The destination side of a session member: its source paired with its target, and the sampling rate. A record in the
// store and an entry in the session's destination list.
#include <cstdlib>

#include "idl_trans.h"
#include "proc/ko_span_public.h"
#include "proc/ko_span_record.h"
#include "proc/lspan_global.h"

int32_t ko_span_mom_dst_set(vx_global *store, const span_info *info, uint32_t is_del) {
  UMonitor__SpanDstInfo record = U_MONITOR__SPAN_DST_INFO__INIT;
  UMonitor__SpanSrcInfoIndex key = U_MONITOR__SPAN_SRC_INFO_INDEX__INIT;
  int32_t rc = ko_span_fill_src_info_key(info, &key);
  if (rc != 0) {
    LSPAN_ERROR("fill dst info key failed. ret=%d\r\n", rc);
    return rc;
  }
  record.index = &key;
  if (is_del == 0) {
    record.module_type = info->module_type;
    record.role = info->role;
    record.apply_type = info->apply_type;
    record.sample_rate = info->sample_rate;
    record.src_is_subif = info->src_is_subif;
  }
  rc = ko_span_put_record(store, &record.base, is_del);
  LSPAN_DEBUG(is_del == 0 ? "dst info set to UDP_DB, ret=%d\r\n" : "dst info del to UDP_DB, ret=%d\r\n", rc);
  return rc;
}

int32_t ko_span_mom_vlan_dst_set(vx_global *store, const span_info *info, uint32_t is_del) {
  UMonitor__SpanVlanDstInfo record = U_MONITOR__SPAN_VLAN_DST_INFO__INIT;
  UMonitor__SpanSrcInfoIndex key = U_MONITOR__SPAN_SRC_INFO_INDEX__INIT;
  int32_t rc = ko_span_fill_src_info_key(info, &key);
  if (rc != 0) {
    LSPAN_ERROR("fill vlan dst info key failed. ret=%d\r\n", rc);
    return rc;
  }
  record.index = &key;
  if (is_del == 0) record.rspan_vlan = info->rspan_vlan;
  rc = ko_span_put_record(store, &record.base, is_del);
  LSPAN_DEBUG(is_del == 0 ? "vlan dst info set to UDP_DB, ret=%d\r\n" : "vlan dst info del to UDP_DB, ret=%d\r\n", rc);
  return rc;
}

int32_t ko_span_mom_ip_dst_set(vx_global *store, const span_info *info, uint32_t is_del) {
  UMonitor__SpanIpDstInfo record = U_MONITOR__SPAN_IP_DST_INFO__INIT;
  UMonitor__SpanSrcInfoIndex key = U_MONITOR__SPAN_SRC_INFO_INDEX__INIT;
  UMonitor__SpanIpInfo head = ko_span_ip_head(info);
  int32_t rc = ko_span_fill_src_info_key(info, &key);
  if (rc != 0) {
    LSPAN_ERROR("fill ip dst info key failed. ret=%d\r\n", rc);
    return rc;
  }
  record.index = &key;
  if (is_del == 0) {
    record.ip_head = &head;
    record.src_is_subif = info->src_is_subif;
  }
  rc = ko_span_put_record(store, &record.base, is_del);
  LSPAN_DEBUG(is_del == 0 ? "ip dst info set to UDP_DB, ret=%d\r\n" : "ip dst info del to UDP_DB, ret=%d\r\n", rc);
  return rc;
}

int32_t ko_span_db_set_dst_info(mirror_link *dst_list, const span_info *info, uint32_t is_del) {
  uint32_t s_phyid = 0;
  uint32_t d_phyid = 0;
  const int32_t rc = ko_span_member_phyids(info, &s_phyid, &d_phyid);
  if (rc != 0) {
    LSPAN_ERROR("trans ifx to phyid failed. ret=%d\r\n", rc);
    return rc;
  }
  dst_info *entry = mirror_list_search_dst_info(dst_list, info->dir, s_phyid, d_phyid, info->acl_id);
  if (is_del != 0) {
    if (entry == nullptr) {
      LSPAN_ERROR("not find dst info!\r\n");
      return ko_status_not_found;
    }
    mirror_list_del(&entry->link);
    free(entry);
    return 0;
  }
  if (entry == nullptr) entry = mirror_list_add_dst_info(dst_list);
  if (entry == nullptr) {
    LSPAN_ERROR("add dst info failed.");
    return ko_status_no_memory;
  }
  entry->s_phyid = s_phyid;
  entry->d_phyid = d_phyid;
  entry->dir = idl_dir_trans_to_local(info->dir);
  entry->sample_rate = info->sample_rate;
  entry->acl_id = info->acl_id;
  return 0;
}
