// Searches: the session and the source of an event's record in the session list, and the first mirror target of a group
// or an interface.
#include "libddm.h"
#include "proc/ko_span_target.h"
#include "proc/lspan/ko_lspan.h"

mirror_info *ko_lspan_search_info(const UMonitor__MirrorLspanInfo *lspan_info) {
  const uint32_t session_num = lspan_info->index->session_num;
  mirror_info *session = mirror_list_search_session_info(&lspan_global.session_list, session_num);
  if (session == nullptr) LSPAN_ERROR("can't find lspan info session_num = %d", session_num);
  return session;
}

src_info *ko_lspan_search_src_info(const UMonitor__MirrorLspanInfo *lspan_info, mirror_info *session) {
  const UMonitor__MirrorIndex *index = lspan_info->index;
  uint32_t s_phyid = index->s_ifx;
  if (index->s_ifx != 0) {
    const int32_t rv = libddm_get_phyid_by_ifx(index->s_ifx, &s_phyid);
    if (rv != 0) {
      LSPAN_ERROR("get sphyid failed. rv=%d, s_ifx=%d\r\n", rv, index->s_ifx);
      return nullptr;
    }
  }
  src_info *source = mirror_list_search_src_info(&session->src_list, index->dir, s_phyid, index->acl_id);
  if (source == nullptr) LSPAN_ERROR("search src_info failed.");
  return source;
}

mtp_info *ko_lspan_mtp_info_search_by_groupid(uint32_t group_id) {
  LSPAN_DEBUG("search lspan_mtp_info by group_id:%d ", group_id);
  return ko_span_target_find({true, group_id});
}

uint32_t ko_lspan_info_search_ifx(uint32_t ifx) {
  LSPAN_DEBUG("search lspan_mtp_info by ifx %d", ifx);
  const mtp_info *target = ko_span_target_find({false, ifx});
  if (target == nullptr) return 0;
  LSPAN_DEBUG("find lspan_mtp_info by ifx %d,mtp_info 's session :%d", ifx, target->session_id);
  return 1;
}
