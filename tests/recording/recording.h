// Recording platform: implements every call of platform/include/, answers as scripted, and records what happened.
//
// A test can then inspect three things: the trace (every platform call and every log line, in order, as text),
// the store (what the record calls would have left in the databases), and the counters. Link ko_lspan_app first, then
// ko_recording; driver.h sends events and looks at the daemon's own state.
//
// Trace lines:
//   vx_mom_set(UDP_DB, u_monitor.span_mtp_info {t_user="ko_lspan" session_id=3 d_phyid=1009} role=1)
//   vx_mom_del(UDP_DB, ...) = -5                       an answer that is not 0
//   libddm_get_phyid_by_ifx(5) -> 1005                 what the call handed out
//   debug ko_lspan_add: ======ko lspan add start========
//   [dl] error dl_init_ham: \033[31m<init> ...         a category other than "ko_lspan" is named
// Records show only fields that are not at their default, in the order of their numbers; the key (`index`) comes first
// in bare braces, other messages as name={...}. In texts, control characters are escaped: \r, \n, \" and \033.
//
// For one thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "mirror_list.h"
#include "rdnd_lib.h"
#include "vx_global.h"
#include "vx_mom.h"
#include "vx_zlog.h"

namespace recording {

// Forgets trace, store, scripted answers, translations, registrations and counters; the trace is on, list calls are not
// recorded, no allocation fails.
void reset();

// ---- trace ----

void trace_on(bool on);             // off: no text is made at all
void record_lists(bool on);         // mirror_list_... calls come into the trace, too
std::vector<std::string> &trace();  // what was recorded since reset or take_trace
std::vector<std::string> take_trace();
void note(std::string line);  // appends a line of the test's own to the trace, if that is on

uint64_t format_count();  // at_snprintf calls since reset

// ---- scripted answers ----

// The `k`-th next call (1: the next one) of `function` answers `code` and does nothing; "": of any function that can
// fail. Pointers answered are null, vx_mom_reg_ds answers the code itself. Several may wait at once.
void fail(std::string_view function, uint64_t k, int32_t code);

void fail_none();           // cancels failures that have not happened yet, of allocations too
size_t pending_failures();  // scripted answers that have not been given yet

// Failures since reset: scripted answers other than 0, failed translations, refused allocations.
uint64_t failure_count();

// Translation: `ifx` + 1000 unless said otherwise. `code` not 0: every translation of `ifx` fails with it.
void translate(uint32_t ifx, uint32_t phyid);
void translation_fails(uint32_t ifx, int32_t code);

// ---- allocations of the code under test (malloc, calloc, realloc of everything linked statically) ----

// The `k`-th next allocation (1: the next one) returns null, with `forever` also all after it; 0: none. Restarts
// alloc_count.
void alloc_fail_at(uint64_t k, bool forever);
uint64_t alloc_count();  // allocations asked for since alloc_fail_at or reset, failed ones included

// ---- store ----

std::vector<std::string> store_text();  // one line per record: "UDP_DB u_monitor.span_mtp_info {...} role=1"

// ---- start-up ----

vx_global *global();                           // the context that vx_mom_ab_init and vx_global_init answer with
vx_zlog_category *category(const char *name);  // as vx_zlog_init, without recording or failing

// Makes `pointer` appear under `name` in the trace (callbacks and the like); others appear as "?".
void name_pointer(const void *pointer, const std::string &name);

// What vx_global_run does before it returns.
void on_run(std::function<void()> body);

// The wake-up callback of the last rdnd_lib_mom_reg, or null.
rdnd_awake_cb awake();

// The handler of the last vx_mom_reg_all_ds_event, or null.
vx_mom_all_ds_cb all_ds_handler();

}  // namespace recording
