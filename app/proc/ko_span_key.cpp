// Interface indexes to physical ids, and the keys of all derived records. Ids are asked for anew on every call.
#include "libddm.h"
#include "proc/ko_span_public.h"
#include "proc/lspan_global.h"

int32_t ko_span_trans_mirror_ifx_to_phyid(uint32_t s_ifx, uint32_t d_ifx, uint32_t *s_phyid, uint32_t *d_phyid) {
  if (s_ifx == 0) {
    *s_phyid = 0;
  } else if (int32_t rc = libddm_get_phyid_by_ifx(s_ifx, s_phyid); rc != 0) {
    LSPAN_ERROR("libddm get sphyid failed. ret=%d, s_ifx=%d\r\n", rc, s_ifx);
    return rc;
  }
  if (d_ifx == 0) {
    *d_phyid = 0;
  } else if (int32_t rc = libddm_get_phyid_by_ifx(d_ifx, d_phyid); rc != 0) {
    LSPAN_ERROR("libddm get dphyid failed. ret=%d, d_ifx=%d\r\n", rc, d_ifx);
    return rc;
  }
  return 0;
}

int32_t ko_span_member_phyids(const span_info *info, uint32_t *s_phyid, uint32_t *d_phyid) {
  const bool to_group = ko_span_targets_group(info);
  const int32_t rc = ko_span_trans_mirror_ifx_to_phyid(info->s_ifx, to_group ? 0 : info->d_ifx, s_phyid, d_phyid);
  if (rc == 0 && to_group) *d_phyid = info->d_ifx;
  return rc;
}

int32_t ko_span_target_phyid(const span_info *info, uint32_t *d_phyid) {
  if (!ko_span_targets_group(info) && info->d_ifx != 0) return libddm_get_phyid_by_ifx(info->d_ifx, d_phyid);
  *d_phyid = info->d_ifx;
  return 0;
}

int32_t ko_span_fill_src_info_key(const span_info *info, UMonitor__SpanSrcInfoIndex *key) {
  uint32_t s_phyid = 0;
  uint32_t d_phyid = 0;
  const int32_t rc = ko_span_member_phyids(info, &s_phyid, &d_phyid);
  if (rc != 0) {
    LSPAN_ERROR("trans ifx to phyid failed. ret=%d\r\n", rc);
    return rc;
  }
  key->t_user = const_cast<char *>(info->t_user);
  key->session_id = info->session_num;
  key->s_phyid = s_phyid;
  key->d_phyid = d_phyid;
  key->dir = info->dir;
  key->acl_id = info->acl_id;
  return 0;
}

int32_t ko_span_fill_mtp_info_key(const span_info *info, UMonitor__SpanMtpInfoIndex *key) {
  uint32_t d_phyid = 0;
  const int32_t rc = ko_span_target_phyid(info, &d_phyid);
  if (rc != 0) {
    LSPAN_ERROR("libddm get dphyid failed. ret=%d, d_ifx=%d\r\n", rc, info->d_ifx);
    return rc;
  }
  key->t_user = const_cast<char *>(info->t_user);
  key->session_id = info->session_num;
  key->d_phyid = d_phyid;
  return 0;
}
