// Learning on mirror targets. A port that carries copies must not learn the copied senders' addresses, so its learning
// goes off and what it learned is flushed, unless the session says otherwise.
#include "proc/ko_span_public.h"
#include "proc/lspan/ko_list.h"
#include "proc/lspan/ko_lspan.h"
#include "proc/lspan/outgrb_hash.h"
#include "u_bridge.pb-c.h"

namespace {

constexpr uint32_t flush_port = 4;  // flag of a flush request: the dynamic entries of `ifx`

}  // namespace

// Every call writes again: the daemon does not remember which ports it switched. Learning comes back by taking the
// daemon's record away.
void ko_lspan_mtp_info_switch(uint32_t ifx, uint32_t on) {
  UBridge__UdpPtLearnIndex key;
  UBridge__UdpPtLearn learning;
  UBridge__UdpFlushdyn flush;
  u_bridge__udp_pt_learn_index__init(&key);
  u_bridge__udp_pt_learn__init(&learning);
  u_bridge__udp_flushdyn__init(&flush);
  key.t_app_name = const_cast<char *>(ko_lspan_app_name);
  key.t_ifx = ifx;
  learning.index = &key;
  flush.ifx = ifx;
  flush.flag = flush_port;
  if (on != 0) {
    const int32_t rv = vx_mom_del(lspan_global.global, FWD_DB, &learning.base, 0, 0);
    LSPAN_DEBUG("pt_learn set to FWD_DB(fwd_learn):rv=%d, d_ifx=%d", rv, ifx);
    return;
  }
  learning.learn = const_cast<char *>("unfwd_notlearn");
  int32_t rv = vx_mom_set(lspan_global.global, FWD_DB, &learning.base, 0, 0);
  LSPAN_DEBUG("pt_learn set to FWD_DB(unfwd_notlearn):rv=%d, d_ifx=%d", rv, ifx);
  rv = vx_mom_publish(lspan_global.global, FWD_DB, &flush.base, 0, 0);
  LSPAN_DEBUG("flushsdyn publish to FWD_DB:rv=%d, d_ifx=%d", rv, ifx);
}

bool ko_lspan_target_switch(const span_info *info, uint32_t on) {
  if (!ko_span_targets_group(info)) {
    ko_lspan_mtp_info_switch(info->d_ifx, on);
    return true;
  }
  const uint32_t group_id = ko_span_group_id(info->d_ifx);
  outgrb_group_info *group = outgrb_group_hash_get(&group_id);
  if (group == nullptr) return false;
  for (mirror_link *at = group->mbr_list.next; at != &group->mbr_list; at = at->next)
    ko_lspan_mtp_info_switch(ko_list_entry<outgrb_mbr_node>(at)->ifx, on);
  return true;
}
