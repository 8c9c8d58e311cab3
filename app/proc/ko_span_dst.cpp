// The destination side of a session member: its source paired with its target, and the sampling rate. A record in the
// store and an entry in the session's destination list.
#include <cstdlib>

#include "idl_trans.h"
#include "proc/ko_span_public.h"
#include "proc/ko_span_record.h"
#include "proc/lspan/ko_lspan.h"

namespace {

constexpr ko_span_record_kind<UMonitor__SpanDstInfo> local_dst = {
    "ko_span_mom_dst_set",
    "fill dst info key failed. ret=%d\r\n",
    "dst info set to UDP_DB, ret=%d\r\n",
    "dst info del to UDP_DB, ret=%d\r\n",
    u_monitor__span_dst_info__init,
};
constexpr ko_span_record_kind<UMonitor__SpanVlanDstInfo> vlan_dst = {
    "ko_span_mom_vlan_dst_set",
    "fill vlan dst info key failed. ret=%d\r\n",
    "vlan dst info set to UDP_DB, ret=%d\r\n",
    "vlan dst info del to UDP_DB, ret=%d\r\n",
    u_monitor__span_vlan_dst_info__init,
};
constexpr ko_span_record_kind<UMonitor__SpanIpDstInfo> ip_dst = {
    "ko_span_mom_ip_dst_set",
    "fill ip dst info key failed. ret=%d\r\n",
    "ip dst info set to UDP_DB, ret=%d\r\n",
    "ip dst info del to UDP_DB, ret=%d\r\n",
    u_monitor__span_ip_dst_info__init,
};

}  // namespace

int32_t ko_span_mom_dst_set(vx_global *store, const span_info *info, uint32_t is_del) {
  return ko_span_write_record(store, info, is_del, local_dst, [info](UMonitor__SpanDstInfo *record) {
    record->module_type = info->module_type;
    record->role = info->role;
    record->apply_type = info->apply_type;
    record->sample_rate = info->sample_rate;
    record->src_is_subif = info->src_is_subif;
    return 0;
  });
}

int32_t ko_span_mom_vlan_dst_set(vx_global *store, const span_info *info, uint32_t is_del) {
  return ko_span_write_record(store, info, is_del, vlan_dst, [info](UMonitor__SpanVlanDstInfo *record) {
    record->rspan_vlan = info->rspan_vlan;
    return 0;
  });
}

int32_t ko_span_mom_ip_dst_set(vx_global *store, const span_info *info, uint32_t is_del) {
  UMonitor__SpanIpInfo head = ko_span_ip_head(info);
  return ko_span_write_record(store, info, is_del, ip_dst, [info, &head](UMonitor__SpanIpDstInfo *record) {
    record->ip_head = &head;
    record->src_is_subif = info->src_is_subif;
    return 0;
  });
}

int32_t ko_span_db_set_dst_info(mirror_link *dst_list, const span_info *info, uint32_t is_del) {
  uint32_t s_phyid = 0;
  uint32_t d_phyid = 0;
  const int32_t rc = ko_span_member_phyids(info, __func__, &s_phyid, &d_phyid);
  if (rc != 0) return rc;
  dst_info *entry = mirror_list_search_dst_info(dst_list, info->dir, s_phyid, d_phyid, info->acl_id);
  if (is_del != 0) {
    if (entry == nullptr) {
      LSPAN_ERROR("not find dst info!\r\n");
      return ko_span_not_found;
    }
    mirror_list_del(&entry->link);
    free(entry);
    return 0;
  }
  if (entry == nullptr) entry = mirror_list_add_dst_info(dst_list);
  if (entry == nullptr) {
    LSPAN_ERROR("add dst info failed.");
    return ko_span_no_memory;
  }
  entry->s_phyid = s_phyid;
  entry->d_phyid = d_phyid;
  entry->dir = idl_dir_trans_to_local(info->dir);
  entry->sample_rate = info->sample_rate;
  entry->acl_id = info->acl_id;
  return 0;
}
