// What the recording platform's sources share.
#pragma once

#include <array>

#include "recording.h"

namespace recording {

// Calls that can be made to fail, by name.
// clang-format off
#define RECORDING_CALLS(CALL) \
  CALL(vx_mom_ab_init) CALL(vx_mom_reg_ds) CALL(vx_mom_set_ds_opt) CALL(vx_mom_reg_key_event) \
  CALL(vx_mom_reg_all_ds_event) CALL(vx_mom_set) CALL(vx_mom_del) CALL(vx_mom_publish) CALL(vx_global_init) \
  CALL(rdnd_lib_mom_reg) CALL(reg_process_exit_action) CALL(libddm_init) CALL(libddm_get_phyid_by_ifx) \
  CALL(vx_zlog_init) CALL(mirror_list_add_session_info) CALL(mirror_list_add_src_info) \
  CALL(mirror_list_add_dst_info) CALL(mirror_list_add_mtp_info)
// clang-format on

#define RECORDING_ENUMERATOR(name) name,
enum class call : unsigned { RECORDING_CALLS(RECORDING_ENUMERATOR) count };

struct failure {
  call function;
  uint64_t at;  // number of the call of this function that fails
  int32_t code;
};

struct registration {
  uint32_t db_id;
  std::string message;
  uint32_t kind;
  vx_mom_event_cb handler;
};

struct state {
  bool tracing = true, storing = true, lists = false;
  std::vector<std::string> lines;
  std::array<uint64_t, static_cast<size_t>(call::count)> calls{};
  uint64_t all_calls = 0, formatted = 0, failed = 0;
  std::vector<failure> failures;
  uint64_t any_at = 0;  // number of the call of any kind that fails, 0: none
  int32_t any_code = 0;
  std::map<uint32_t, uint32_t> phyids;
  std::map<uint32_t, int32_t> untranslatable;
  store_contents store;
  std::map<std::string, const ProtobufCMessageDescriptor *, std::less<>> types;  // of what was ever stored
  std::vector<mom_ds_entry> inputs;
  std::vector<registration> handlers;
  vx_mom_all_ds_cb all_ds = nullptr;
  rdnd_awake_cb awake = nullptr;
  std::map<const void *, std::string> names;
  std::function<void()> run;
};

extern state now;

// Allocations refused since reset.
uint64_t refused_allocations();
void forget_refused_allocations();

// The scripted code of this call of `function`, or 0.
int32_t answer(call function);

// Puts the line that `text` makes into the trace, when that is on.
template <typename Text>
void record(Text text) {
  if (now.tracing) now.lines.push_back(text());
}

}  // namespace recording
