#include "driver.h"

#include <cstdlib>

#include "proc/lspan/ko_lspan.h"
#include "proc/lspan/outgrb_hash.h"
#include "recording.h"

namespace driver {
namespace {

int32_t send(const member &what, uint32_t is_del) {
  UMonitor__MirrorIndex index = U_MONITOR__MIRROR_INDEX__INIT;
  char owner[] = "cli";
  index.t_user = owner;
  index.session_num = what.session;
  index.s_ifx = what.s;
  index.d_ifx = what.d;
  index.dir = what.dir;
  index.acl_id = what.acl;
  UMonitor__MirrorLspanInfo record = U_MONITOR__MIRROR_LSPAN_INFO__INIT;
  record.index = &index;
  record.module_type = static_cast<UMonitor__MirrorModule>(what.module);
  record.role = static_cast<UMonitor__MirrorRole>(what.role);
  record.apply_type = static_cast<UMonitor__MirrorType>(what.apply);
  record.mtp_switch = what.mtp_switch;
  record.sample_rate = what.rate;
  std::vector<uint32_t> words = what.vlan;
  record.n_vlan_map = words.size();
  record.vlan_map = words.data();
  return ko_lspan_info_handle(nullptr, is_del, &record);
}

int32_t send_membership(uint32_t ifx, uint32_t group_id, uint32_t is_del) {
  PIntf__Intfindex index = P_INTF__INTFINDEX__INIT;
  index.index = ifx;
  PPolicy__DataIntfConf record = P_POLICY__DATA_INTF_CONF__INIT;
  record.index = &index;
  record.group_id = group_id;
  const int32_t status = ko_lspan_outgrb_handle(nullptr, is_del, &record);
  note_membership(ifx, group_id, is_del != 0, status);
  return status;
}

}  // namespace

void reset() {
  recording::reset();
  static const bool tables_made = outgrb_mbr_hash_init() == 0 && outgrb_group_hash_init() == 0;
  if (!tables_made) std::abort();
  forget_daemon();
  lspan_global.global = recording::global();
  lspan_global.zlog_category = recording::category("ko_lspan");
  lspan_zlog_level = 1;
}

int32_t set_member(const member &what) {
  const uint64_t failures = recording::failure_count();
  const int32_t status = send(what, 0);
  note_saved(what.session, recording::failure_count() != failures);
  return status;
}

int32_t del_member(const member &what) {
  const int32_t status = send(what, 1);
  note_saved(what.session, false);
  return status;
}

int32_t join(uint32_t ifx, uint32_t group_id) { return send_membership(ifx, group_id, 0); }

int32_t leave(uint32_t ifx, uint32_t group_id) { return send_membership(ifx, group_id, 1); }

int32_t report(const result &what) {
  UMonitor__MirrorIndex index = U_MONITOR__MIRROR_INDEX__INIT;
  std::string user = what.user;
  index.t_user = user.data();
  index.session_num = what.session;
  index.s_ifx = what.s;
  index.d_ifx = what.d;
  index.dir = what.dir;
  index.acl_id = what.acl;
  UMonitor__MirrorResultInfo record = U_MONITOR__MIRROR_RESULT_INFO__INIT;
  record.index = &index;
  record.result = what.code;
  record.msg_type = what.msg_type;
  return ko_lspan_mom_result_info_set(nullptr, 0, &record);
}

}  // namespace driver
