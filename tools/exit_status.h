// The meanings of the program's exit status.
#pragma once

namespace lspanctl {

inline constexpr int exit_done = 0;
inline constexpr int exit_refused = 1;       // or a check found a difference; the reason is on standard error
inline constexpr int exit_wrong_use = 2;     // the reason is on standard error
inline constexpr int exit_would_change = 3;  // a dry run found something to do
inline constexpr int exit_timed_out = 4;     // the awaited state did not come in time
inline constexpr int exit_not_accepted = 5;  // the forwarding side refused a change that was waited for
inline constexpr int exit_standby = 6;       // no daemon is active; one stands by

}  // namespace lspanctl
