// The mirror-target port: where a session's copies leave. A record in the store, one entry in the session, and for a
// group target the link from the group to that entry.
#include <cstdlib>

#include "idl_trans.h"
#include "proc/ko_span_public.h"
#include "proc/ko_span_record.h"
#include "proc/ko_span_target.h"
#include "proc/lspan/ko_lspan.h"
#include "proc/lspan/outgrb_hash.h"

namespace {

// Kinds of target, mtp_info.mtp_type.
constexpr uint32_t mtp_local = 0;
constexpr uint32_t mtp_rspan = 1;
constexpr uint32_t mtp_erspan = 2;

constexpr ko_span_record_kind<UMonitor__SpanMtpInfo> local_mtp = {
    "ko_span_mom_mtp_set",
    "fill mtp info key failed. ret=%d\r\n",
    "mtp info set to UDP_DB, ret=%d\r\n",
    "mtp info del to UDP_DB, ret=%d\r\n",
    u_monitor__span_mtp_info__init,
};
constexpr ko_span_record_kind<UMonitor__SpanVlanMtpInfo> vlan_mtp = {
    "ko_span_mom_vlan_mtp_set",
    "fill vlan mtp info key failed. ret=%d\r\n",
    "vlan mtp info set to UDP_DB, ret=%d\r\n",
    "vlan mtp info del to UDP_DB, ret=%d\r\n",
    u_monitor__span_vlan_mtp_info__init,
};
constexpr ko_span_record_kind<UMonitor__SpanIpMtpInfo> ip_mtp = {
    "ko_span_mom_ip_mtp_set",
    "fill ip mtp info key failed. ret=%d\r\n",
    "ip mtp info set to UDP_DB, ret=%d\r\n",
    "ip mtp info del to UDP_DB, ret=%d\r\n",
    u_monitor__span_ip_mtp_info__init,
};

outgrb_group_info *find_group(uint32_t tagged) {
  const uint32_t group_id = tagged ^ ko_span_group_tag;
  return outgrb_group_hash_get(&group_id);
}

// An entry of the list that is in the table of targets, too, or null.
mtp_info *add_entry(mirror_link *mtp_list) {
  mtp_info *entry = mirror_list_add_mtp_info(mtp_list);
  if (entry == nullptr || ko_span_target_add(mtp_list, entry) == 0) return entry;
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
  return ko_span_write_record(store, info, is_del, local_mtp, [info](UMonitor__SpanMtpInfo *record) {
    record->module_type = info->module_type;
    record->role = info->role;
    record->mtp_switch = info->mtp_switch;
    return 0;
  });
}

int32_t ko_span_mom_vlan_mtp_set(vx_global *store, const span_info *info, uint32_t is_del) {
  return ko_span_write_record(store, info, is_del, vlan_mtp, [info](UMonitor__SpanVlanMtpInfo *record) {
    record->rspan_vlan = info->rspan_vlan;
    return 0;
  });
}

int32_t ko_span_mom_ip_mtp_set(vx_global *store, const span_info *info, uint32_t is_del) {
  UMonitor__SpanIpInfo head = ko_span_ip_head(info);
  return ko_span_write_record(store, info, is_del, ip_mtp, [&head](UMonitor__SpanIpMtpInfo *record) {
    record->ip_head = &head;
    return 0;
  });
}

int32_t ko_span_db_set_mtp_info(mirror_link *mtp_list, const span_info *info, uint32_t is_del) {
  uint32_t d_phyid = 0;
  const int32_t rc = ko_span_target_phyid(info, __func__, &d_phyid);
  if (rc != 0) return rc;
  mtp_info *entry = mirror_list_search_mtp_info(mtp_list, info->session_num);
  if (is_del != 0) {
    if (entry == nullptr) {
      LSPAN_ERROR("not find mtp info!\r\n");
      return ko_span_not_found;
    }
    remove_entry(entry, d_phyid);
    return 0;
  }
  if (entry == nullptr) entry = add_entry(mtp_list);
  if (entry == nullptr) {
    LSPAN_ERROR("add mtp info failed.");
    return ko_span_no_memory;
  }
  entry->mtp_switch = info->mtp_switch;
  entry->session_id = info->session_num;
  entry->d_phyid = d_phyid;
  entry->role = idl_role_trans_to_local(info->role);
  entry->module_type = info->module_type;
  const bool to_group = ko_span_targets_group(info);
  ko_span_target_set(entry, to_group, to_group ? info->d_ifx ^ ko_span_group_tag : info->d_ifx);
  outgrb_group_info *group = to_group ? find_group(d_phyid) : nullptr;
  if (group != nullptr) {
    LSPAN_DEBUG("======find outflow-group'info ========");
    ko_span_target_name(group, entry);
  }
  fill_kind(entry, info);
  return 0;
}
