// The source side of a session member: which traffic to copy. A port, ACL or VLAN source record in the store, and an
// entry in the session's source list by which the daemon finds the member again.
#include <cstdlib>
#include <cstring>

#include "idl_trans.h"
#include "proc/ko_span_public.h"
#include "proc/ko_span_record.h"
#include "proc/lspan/ko_lspan.h"

namespace {

// Local apply types that come with a VLAN map.
constexpr uint32_t local_vlan = 2;
constexpr uint32_t local_vlan_filter = 3;

constexpr ko_span_record_kind<UMonitor__SpanPortSrcInfo> port_src = {
    "ko_span_mom_port_src_set",
    "fill port info key failed. ret=%d\r\n",
    "port info set to UDP_DB, ret=%d\r\n",
    "port info del to UDP_DB, ret=%d\r\n",
    u_monitor__span_port_src_info__init,
};
constexpr ko_span_record_kind<UMonitor__SpanAclSrcInfo> acl_src = {
    "ko_span_mom_acl_src_set",
    "fill acl info key failed. ret=%d\r\n",
    "acl info set to UDP_DB, ret=%d\r\n",
    "acl info del to UDP_DB, ret=%d\r\n",
    u_monitor__span_acl_src_info__init,
};
constexpr ko_span_record_kind<UMonitor__SpanVlanSrcInfo> vlan_src = {
    "ko_span_mom_vlan_src_set",
    "fill vlan info key failed. ret=%d\r\n",
    "vlan info set to UDP_DB, ret=%d\r\n",
    "valn info del to UDP_DB, ret=%d\r\n",
    u_monitor__span_vlan_src_info__init,
};

// The record borrows *words, which the caller frees. An empty map needs none.
int32_t fill_vlan_src(const span_info *info, UMonitor__SpanVlanSrcInfo *record, uint32_t **words) {
  record->module_type = info->module_type;
  record->role = info->role;
  record->n_vlan_map = info->n_vlan_map;
  if (info->n_vlan_map == 0) return 0;
  const size_t size = info->n_vlan_map * sizeof(uint32_t);
  *words = static_cast<uint32_t *>(malloc(size));
  if (*words == nullptr) {
    LSPAN_LOG_AS(dl_zlog_error, vlan_src.setter, "vlan map malloc fail.\r\n");
    return ko_span_no_memory;
  }
  memcpy(*words, info->vlan_map, size);
  record->vlan_map = *words;
  return 0;
}

void fill_entry(src_info *entry, const span_info *info, uint32_t s_phyid, uint32_t d_phyid) {
  entry->s_phyid = s_phyid;
  entry->d_phyid = d_phyid;
  entry->dir = idl_dir_trans_to_local(info->dir);
  entry->apply_type = idl_apply_type_trans_to_local(info->apply_type);
  entry->acl_id = info->acl_id;
  if (entry->apply_type == local_vlan || entry->apply_type == local_vlan_filter)
    memcpy(entry->vlan_map, info->vlan_map, info->n_vlan_map * sizeof(uint32_t));
}

}  // namespace

int32_t ko_span_mom_src_set(vx_global *store, const span_info *info, uint32_t is_del) {
  switch (info->apply_type) {
    case U_MONITOR__MIRROR_TYPE__PORT:
      return ko_span_mom_port_src_set(store, info, is_del);
    case U_MONITOR__MIRROR_TYPE__POLICY:
      return ko_span_mom_acl_src_set(store, info, is_del);
    default:
      return ko_span_mom_vlan_src_set(store, info, is_del);
  }
}

int32_t ko_span_mom_port_src_set(vx_global *store, const span_info *info, uint32_t is_del) {
  return ko_span_write_record(store, info, is_del, port_src, [info](UMonitor__SpanPortSrcInfo *record) {
    ko_span_set_enum(&record->module_type, info->module_type);
    ko_span_set_enum(&record->role, info->role);
    return 0;
  });
}

int32_t ko_span_mom_acl_src_set(vx_global *store, const span_info *info, uint32_t is_del) {
  return ko_span_write_record(store, info, is_del, acl_src, [info](UMonitor__SpanAclSrcInfo *record) {
    record->module_type = info->module_type;
    record->role = info->role;
    record->src_is_subif = info->src_is_subif;
    return 0;
  });
}

int32_t ko_span_mom_vlan_src_set(vx_global *store, const span_info *info, uint32_t is_del) {
  uint32_t *words = nullptr;
  const int32_t rc = ko_span_write_record(
      store, info, is_del, vlan_src,
      [info, &words](UMonitor__SpanVlanSrcInfo *record) { return fill_vlan_src(info, record, &words); });
  free(words);
  return rc;
}

int32_t ko_span_db_set_src_info(mirror_link *src_list, const span_info *info, uint32_t is_del) {
  uint32_t s_phyid = 0;
  uint32_t d_phyid = 0;
  const int32_t rc = ko_span_member_phyids(info, __func__, &s_phyid, &d_phyid);
  if (rc != 0) return rc;
  src_info *entry = mirror_list_search_src_info(src_list, info->dir, s_phyid, info->acl_id);
  if (is_del != 0) {
    if (entry == nullptr) {
      LSPAN_ERROR("not find src info!\r\n");
      return ko_span_not_found;
    }
    mirror_list_del(&entry->link);
    free(entry);
    return 0;
  }
  if (entry == nullptr) entry = mirror_list_add_src_info(src_list);
  if (entry == nullptr) {
    LSPAN_ERROR("add src info failed.");
    return ko_span_no_memory;
  }
  fill_entry(entry, info, s_phyid, d_phyid);
  return 0;
}
