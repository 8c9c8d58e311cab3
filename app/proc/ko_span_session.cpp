// A session member as a whole in the session list, and the forwarding side's result for it.
#include <cstdlib>

#include "idl_trans.h"
#include "libddm.h"
#include "proc/ko_span_public.h"
#include "proc/lspan/ko_list.h"
#include "proc/lspan_global.h"

void ko_span_db_save_info(mirror_link *session_list, const span_info *info) {
  mirror_info *session = mirror_list_search_session_info(session_list, info->session_num);
  if (session == nullptr) {
    session = mirror_list_add_session_info(session_list);
    if (session == nullptr) {
      LSPAN_ERROR("add mirror info fail!\r\n");
      return;
    }
    session->session_id = info->session_num;
    session->mod_type = idl_mod_type_trans_to_local(info->module_type);
  }
  ko_span_db_set_src_info(&session->src_list, info, 0);
  ko_span_db_set_dst_info(&session->dst_list, info, 0);
  ko_span_db_set_mtp_info(&session->mtp_list, info, 0);
}

void ko_span_db_clear_info(mirror_link *session_list, const span_info *info, uint8_t *last) {
  mirror_info *session = mirror_list_search_session_info(session_list, info->session_num);
  if (session == nullptr) {
    LSPAN_ERROR("not find mirror info!\r\n");
    return;
  }
  ko_span_db_set_src_info(&session->src_list, info, 1);
  ko_span_db_set_dst_info(&session->dst_list, info, 1);
  // A session whose mirror target could not be made or removed must not take other members' entries with it.
  if (!ko_list_empty(&session->dst_list) || !ko_list_empty(&session->src_list)) return;
  ko_span_db_set_mtp_info(&session->mtp_list, info, 1);
  *last = 1;
  if (!ko_list_empty(&session->mtp_list)) return;
  mirror_list_del(&session->link);
  free(session);
}

int32_t ko_span_del_result(vx_global *store, const UMonitor__MirrorIndex *index) {
  UMonitor__MirrorResultInfo record;
  UMonitor__MirrorIndex key;
  u_monitor__mirror_result_info__init(&record);
  u_monitor__mirror_index__init(&key);
  key.t_user = const_cast<char *>(ko_span_peer_name);
  key.session_num = index->session_num;
  key.s_ifx = index->s_ifx;
  key.d_ifx = index->d_ifx;
  // The peer names a group by its bare id.
  if (ko_span_is_group_ifx(key.d_ifx)) key.d_ifx = ko_span_group_id(key.d_ifx);
  key.dir = index->dir;
  key.acl_id = index->acl_id;
  record.index = &key;
  const int32_t rc = vx_mom_del(store, UDP_DB, &record.base, 0, 0);
  LSPAN_DEBUG("result info del to UDP_DB, ret=%d\r\n", rc);
  return rc;
}

int32_t ko_span_search_src_info(mirror_link *session_list, uint32_t session_num, uint32_t s_ifx, uint32_t dir,
                                uint32_t acl_id, src_info *copy) {
  mirror_info *session = mirror_list_search_session_info(session_list, session_num);
  if (session == nullptr) {
    LSPAN_ERROR("not find mirror_info!\r\n");
    return ko_status_not_found;
  }
  uint32_t s_phyid = 0;
  if (s_ifx != 0) {
    const int32_t rc = libddm_get_phyid_by_ifx(s_ifx, &s_phyid);
    if (rc != 0) {
      LSPAN_ERROR("libddm get sphyid failed. ret=%d, s_ifx=%d\r\n", rc, s_ifx);
      return rc;
    }
  }
  *copy = {};
  const src_info *entry = mirror_list_search_src_info(&session->src_list, dir, s_phyid, acl_id);
  if (entry == nullptr) {
    LSPAN_ERROR("not find src_info!\r\n");
    return ko_status_not_found;
  }
  *copy = *entry;
  return 0;
}
