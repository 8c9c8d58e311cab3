#include "driver.h"

#include <cstdlib>

#include "proc/lspan/ko_lspan.h"
#include "proc/lspan/outgrb_hash.h"
#include "recording.h"

namespace driver {
void reset() {
  recording::reset();
  static const bool tables_made = outgrb_mbr_hash_init() == 0 && outgrb_group_hash_init() == 0;
  if (!tables_made) std::abort();
  forget_daemon();
  lspan_global_init(recording::category("ko_lspan"), 1);
  lspan_global.global = recording::global();
}

int32_t member_event(const member &what, bool is_del) {
  UMonitor__MirrorIndex index = harness::index_of(what, "cli");
  const UMonitor__MirrorLspanInfo record = harness::message_of(what, index);
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

int32_t result_event(const member &of, const std::string &user, uint32_t result, uint32_t msg_type) {
  UMonitor__MirrorIndex index = harness::index_of(of, user.c_str());
  UMonitor__MirrorResultInfo record = U_MONITOR__MIRROR_RESULT_INFO__INIT;
  record.index = &index;
  record.result = result;
  record.msg_type = msg_type;
  return ko_lspan_mom_result_info_set(nullptr, 0, &record);
}

}  // namespace driver
