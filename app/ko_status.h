// Statuses of the daemon's operations: 0 is success, and codes of the platform's calls are passed on as they are.
#pragma once

#include <cstdint>

inline constexpr int32_t ko_status_missing = -2;       // a record, its index or its session
inline constexpr int32_t ko_status_no_memory = -2;     // exhausted; callers do not tell the two apart
inline constexpr int32_t ko_status_invalid = -4;       // an argument is missing, or holds more than there is room for
inline constexpr int32_t ko_status_not_found = -7;     // an entry to remove or to copy; a file name in a path
inline constexpr int32_t ko_status_unreadable = -8;    // the path of the process's executable file
inline constexpr int32_t ko_status_locked = -11;       // the pid file cannot be opened, or another process holds it
inline constexpr int32_t ko_status_unavailable = -17;  // a log category or the global context
