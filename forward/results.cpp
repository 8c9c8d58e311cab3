#include "results.h"

#include <chrono>
#include <memory>

#include "global_context.h"
#include "store/registration.h"
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

constexpr auto patience = std::chrono::seconds(5);
constexpr timeval look_interval{0, 10000};

struct global_finisher {
  void operator()(vx_global *global) const { vx_global_finish(global); }
};

}  // namespace

bool declare_results(vx_mom_ab *store, std::span<const mom_ds_entry> inputs) {
  uint32_t number = 0;
  with_record({}, 0, [&](const ProtobufCMessage *record) {
    mom_ds_entry output = {};
    output.record = record;
    output.db_id = udp_db;
    output.enabled = 1;
    output.is_output = 1;
    number = vx_mom_reg_ds(store, inputs.data(), static_cast<uint32_t>(inputs.size()), &output, 1);
  });
  const uint32_t on = 1;
  return vx_mom_set_ds_opt(store, number, VX_MOM_OPT_OWN_RECORDS, &on) == 0;
}

bool remove_results() {
  const std::unique_ptr<vx_global, global_finisher> global(vx_global_init(app_name));
  const vx_mom_ab_opt options = {};
  vx_mom_ab *store = global == nullptr ? nullptr : vx_mom_ab_init(global.get(), app_name, &options);
  if (store == nullptr || !declare_results(store, {})) return false;
  event_base *base = ko_platform::context_of(global.get()).base.get();
  const ko_platform::event_ptr look(event_new(
      base, -1, EV_PERSIST, [](evutil_socket_t, short, void *) {}, nullptr));
  if (look == nullptr || event_add(look.get(), &look_interval) != 0) return false;
  const ko_store::registration &written = *ko_store::registration_of(global.get());
  const auto latest = std::chrono::steady_clock::now() + patience;
  while (!written.settled() || !written.quiet()) {
    if (std::chrono::steady_clock::now() >= latest) return false;
    event_base_loop(base, EVLOOP_ONCE);
  }
  return true;
}

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
