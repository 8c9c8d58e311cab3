// Removes what the add of a session member made. Every key is derived from the delete event; the entries in memory only
// tell how much there is to remove.
#include "proc/ko_span_public.h"
#include "proc/lspan/ko_lspan.h"

// Stops at the first deletion that fails. A source that cannot be found only costs its own two deletions.
int32_t ko_lspan_del(const UMonitor__MirrorLspanInfo *lspan_info, const span_info *info) {
  LSPAN_DEBUG("======ko lspan del start========");
  mirror_info *session = ko_lspan_search_info(lspan_info);
  if (session == nullptr) {
    LSPAN_ERROR("not find mirror_info.");
    return ko_status_missing;
  }
  // 1. Source and result.
  int32_t rv = 0;
  if (ko_lspan_search_src_info(lspan_info, session) != nullptr) {
    rv = ko_span_mom_src_set(lspan_global.global, info, 1);
    if (rv != 0) {
      LSPAN_ERROR("mom del src info failed. rv=%d", rv);
      return rv;
    }
    rv = ko_span_del_result(lspan_global.global, lspan_info->index);
    if (rv != 0) {
      LSPAN_ERROR("mom del result info failed. rv=%d", rv);
      return rv;
    }
  }
  // 2. Destination.
  rv = ko_span_mom_dst_set(lspan_global.global, info, 1);
  if (rv != 0) {
    LSPAN_ERROR("mom del dst info failed. rv=%d", rv);
    return rv;
  }
  // 3. Entries. While other members remain, the session keeps its target.
  uint8_t last = 0;
  ko_span_db_clear_info(&lspan_global.session_list, info, &last);
  if (last == 0) return 0;
  // 4. Learning on the target.
  ko_lspan_target_switch(info, 1);
  // 5. Mirror target.
  rv = ko_span_mom_mtp_set(lspan_global.global, info, 1);
  if (rv != 0) {
    LSPAN_ERROR("mom del mtp info failed. rv=%d", rv);
    return rv;
  }
  LSPAN_DEBUG("======ko lspan del end========");
  return 0;
}
