// The source side of a session member: which traffic to copy. A port, ACL or VLAN source record in the store, and an
// entry in the session's source list by which the daemon finds the member again.
#include <cstdlib>
#include <cstring>

#include "idl_trans.h"
#include "proc/ko_span_public.h"
#include "proc/ko_span_record.h"
#include "proc/lspan_global.h"

namespace {

// Local apply types that come with a VLAN map.
constexpr uint32_t local_vlan = 2;
constexpr uint32_t local_vlan_filter = 3;

// Gives the record words of its own, which the caller frees; an empty map needs none. False when memory is exhausted.
bool copy_vlan_map(const span_info *info, UMonitor__SpanVlanSrcInfo *record) {
  record->n_vlan_map = info->n_vlan_map;
  if (info->n_vlan_map == 0) return true;
  const size_t size = info->n_vlan_map * sizeof(uint32_t);
  record->vlan_map = static_cast<uint32_t *>(malloc(size));
  if (record->vlan_map == nullptr) return false;
  memcpy(record->vlan_map, info->vlan_map, size);
  return true;
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
  UMonitor__SpanPortSrcInfo record = U_MONITOR__SPAN_PORT_SRC_INFO__INIT;
  UMonitor__SpanSrcInfoIndex key = U_MONITOR__SPAN_SRC_INFO_INDEX__INIT;
  int32_t rc = ko_span_fill_src_info_key(info, &key);
  if (rc != 0) {
    LSPAN_ERROR("fill port info key failed. ret=%d\r\n", rc);
    return rc;
  }
  record.index = &key;
  if (is_del == 0) {
    ko_span_set_enum(&record.module_type, info->module_type);
    ko_span_set_enum(&record.role, info->role);
  }
  rc = ko_span_put_record(store, &record.base, is_del);
  LSPAN_DEBUG(is_del == 0 ? "port info set to UDP_DB, ret=%d\r\n" : "port info del to UDP_DB, ret=%d\r\n", rc);
  return rc;
}

int32_t ko_span_mom_acl_src_set(vx_global *store, const span_info *info, uint32_t is_del) {
  UMonitor__SpanAclSrcInfo record = U_MONITOR__SPAN_ACL_SRC_INFO__INIT;
  UMonitor__SpanSrcInfoIndex key = U_MONITOR__SPAN_SRC_INFO_INDEX__INIT;
  int32_t rc = ko_span_fill_src_info_key(info, &key);
  if (rc != 0) {
    LSPAN_ERROR("fill acl info key failed. ret=%d\r\n", rc);
    return rc;
  }
  record.index = &key;
  if (is_del == 0) {
    record.module_type = info->module_type;
    record.role = info->role;
    record.src_is_subif = info->src_is_subif;
  }
  rc = ko_span_put_record(store, &record.base, is_del);
  LSPAN_DEBUG(is_del == 0 ? "acl info set to UDP_DB, ret=%d\r\n" : "acl info del to UDP_DB, ret=%d\r\n", rc);
  return rc;
}

int32_t ko_span_mom_vlan_src_set(vx_global *store, const span_info *info, uint32_t is_del) {
  UMonitor__SpanVlanSrcInfo record = U_MONITOR__SPAN_VLAN_SRC_INFO__INIT;
  UMonitor__SpanSrcInfoIndex key = U_MONITOR__SPAN_SRC_INFO_INDEX__INIT;
  int32_t rc = ko_span_fill_src_info_key(info, &key);
  if (rc != 0) {
    LSPAN_ERROR("fill vlan info key failed. ret=%d\r\n", rc);
    return rc;
  }
  record.index = &key;
  if (is_del == 0) {
    record.module_type = info->module_type;
    record.role = info->role;
    if (!copy_vlan_map(info, &record)) {
      LSPAN_ERROR("vlan map malloc fail.\r\n");
      return ko_status_no_memory;
    }
  }
  rc = ko_span_put_record(store, &record.base, is_del);
  LSPAN_DEBUG(is_del == 0 ? "vlan info set to UDP_DB, ret=%d\r\n" : "valn info del to UDP_DB, ret=%d\r\n", rc);
  free(record.vlan_map);
  return rc;
}

int32_t ko_span_db_set_src_info(mirror_link *src_list, const span_info *info, uint32_t is_del) {
  uint32_t s_phyid = 0;
  uint32_t d_phyid = 0;
  const int32_t rc = ko_span_member_phyids(info, &s_phyid, &d_phyid);
  if (rc != 0) {
    LSPAN_ERROR("trans ifx to phyid failed. ret=%d\r\n", rc);
    return rc;
  }
  src_info *entry = mirror_list_search_src_info(src_list, info->dir, s_phyid, info->acl_id);
  if (is_del != 0) {
    if (entry == nullptr) {
      LSPAN_ERROR("not find src info!\r\n");
      return ko_status_not_found;
    }
    mirror_list_del(&entry->link);
    free(entry);
    return 0;
  }
  if (entry == nullptr) entry = mirror_list_add_src_info(src_list);
  if (entry == nullptr) {
    LSPAN_ERROR("add src info failed.");
    return ko_status_no_memory;
  }
  fill_entry(entry, info, s_phyid, d_phyid);
  return 0;
}
