// Results of the forwarding side: handed on to the configuration database for members that the daemon knows, deleted
// for those that it does not know (any more).
#include <cstring>

#include "proc/ko_span_public.h"
#include "proc/lspan/ko_lspan.h"

namespace {

constexpr uint32_t last_relayed_type = 1;  // higher values of msg_type are not for us

int32_t relay(const UMonitor__MirrorResultInfo *result_info) {
  UMonitor__MirrorResultInfo copy;
  UMonitor__MirrorIndex key;
  u_monitor__mirror_result_info__init(&copy);
  u_monitor__mirror_index__init(&key);
  const UMonitor__MirrorIndex *index = result_info->index;
  key.t_user = const_cast<char *>(ko_lspan_app_name);
  key.session_num = index->session_num;
  key.s_ifx = index->s_ifx;
  key.d_ifx = index->d_ifx;
  key.dir = index->dir;
  key.acl_id = index->acl_id;
  copy.index = &key;
  copy.result = result_info->result;
  copy.msg_type = result_info->msg_type;
  return vx_mom_set(lspan_global.global, CONF_DB, &copy.base, 0, 0);
}

}  // namespace

int32_t ko_lspan_mom_result_info_set(void *, uint32_t, const void *message) {
  const auto *result_info = static_cast<const UMonitor__MirrorResultInfo *>(message);
  if (result_info == nullptr) {
    LSPAN_ERROR("result_info is NULL");
    return ko_status_missing;
  }
  const UMonitor__MirrorIndex *index = result_info->index;
  if (index == nullptr) {
    LSPAN_ERROR("result_info index is NULL");
    return ko_status_missing;
  }
  if (result_info->msg_type > last_relayed_type) return 0;
  if (index->t_user == nullptr || strcmp(index->t_user, ko_span_peer_name) != 0) return 0;
  src_info unused;
  const int32_t rc = ko_span_search_src_info(&lspan_global.session_list, index->session_num, index->s_ifx, index->dir,
                                             index->acl_id, &unused);
  return rc == 0 ? relay(result_info) : ko_span_del_result(lspan_global.global, index);
}
