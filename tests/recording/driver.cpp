#include "driver.h"

#include <cstdlib>

#include "proc/lspan/ko_lspan.h"
#include "proc/lspan/outgrb_hash.h"
#include "recording.h"

namespace driver {
namespace {

UMonitor__MirrorIndex index_of(const member &what, char *user) {
  UMonitor__MirrorIndex index = U_MONITOR__MIRROR_INDEX__INIT;
  index.t_user = user;
  index.session_num = what.session;
  index.s_ifx = what.s;
  index.d_ifx = what.d;
  index.dir = what.dir;
  index.acl_id = what.acl;
  return index;
}

}  // namespace

void reset() {
  recording::reset();
  static const bool tables_made = outgrb_mbr_hash_init() == 0 && outgrb_group_hash_init() == 0;
  if (!tables_made) std::abort();
  forget_daemon();
  lspan_global_init(recording::category("ko_lspan"), 1);
  lspan_global.global = recording::global();
}

int32_t member_event(const member &what, bool is_del) {
  char user[] = "cli";
  UMonitor__MirrorIndex index = index_of(what, user);
  UMonitor__MirrorLspanInfo record = U_MONITOR__MIRROR_LSPAN_INFO__INIT;
  record.index = &index;
  record.module_type = static_cast<UMonitor__MirrorModule>(what.module);
  record.role = static_cast<UMonitor__MirrorRole>(what.role);
  record.apply_type = static_cast<UMonitor__MirrorType>(what.apply);
  record.mtp_switch = what.mtp_switch;
  record.sample_rate = what.rate;
  record.n_vlan_map = what.vlan.size();
  record.vlan_map = const_cast<uint32_t *>(what.vlan.data());
  const uint64_t failures = recording::failure_count();
  const int32_t status = ko_lspan_info_handle(nullptr, is_del, &record);
  note_saved(what.session, !is_del && recording::failure_count() != failures);
  return status;
}

int32_t group_event(uint32_t ifx, uint32_t group_id, bool is_del) {
  PIntf__Intfindex index = P_INTF__INTFINDEX__INIT;
  index.index = ifx;
  PPolicy__DataIntfConf record = P_POLICY__DATA_INTF_CONF__INIT;
  record.index = &index;
  record.group_id = group_id;
  const int32_t status = ko_lspan_outgrb_handle(nullptr, is_del, &record);
  note_membership(ifx, group_id, is_del, status);
  return status;
}

int32_t result_event(const member &of, std::string user, uint32_t result, uint32_t msg_type) {
  UMonitor__MirrorIndex index = index_of(of, user.data());
  UMonitor__MirrorResultInfo record = U_MONITOR__MIRROR_RESULT_INFO__INIT;
  record.index = &index;
  record.result = result;
  record.msg_type = msg_type;
  return ko_lspan_mom_result_info_set(nullptr, 0, &record);
}

}  // namespace driver
