#include "results.h"

#include "u_monitor.pb-c.h"

namespace ko_forward {
namespace {

// Calls `use` with the record of a result.
template <class Use>
void with_record(const result_key &key, uint32_t result, const Use &use) {
  UMonitor__MirrorResultInfo record;
  UMonitor__MirrorIndex index;
  u_monitor__mirror_result_info__init(&record);
  u_monitor__mirror_index__init(&index);
  index.t_user = const_cast<char *>(result_owner);
  index.session_num = key.session;
  index.s_ifx = key.s_ifx;
  index.d_ifx = key.d_ifx;
  index.dir = key.dir;
  index.acl_id = key.acl_id;
  record.index = &index;
  record.result = result;
  use(&record.base);
}

}  // namespace

void result_book::write(vx_global *store, const std::map<result_key, uint32_t> &answers,
                        const std::set<result_key> &again) {
  for (const auto &[key, result] : written_)
    if (!answers.contains(key))
      with_record(key, 0, [&](const ProtobufCMessage *record) { vx_mom_del(store, udp_db, record, 0, 0); });
  for (const auto &[key, result] : answers) {
    const auto known = written_.find(key);
    if (known != written_.end() && known->second == result && !again.contains(key)) continue;
    with_record(key, result, [&](const ProtobufCMessage *record) { vx_mom_set(store, udp_db, record, 0, 0); });
  }
  written_ = answers;
}

}  // namespace ko_forward
