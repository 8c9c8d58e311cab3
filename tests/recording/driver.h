// Drives the daemon's core on the recording platform: sends events to its handlers. daemon_state.h looks at what it
// keeps in memory.
#pragma once

#include <cstdint>
#include <string>

#include "daemon_state.h"
#include "proc/ko_span_public.h"
#include "records.h"

namespace driver {

using harness::group_target;
using harness::member;

// Puts recording platform and daemon where main has them when the first event arrives: nothing known, log level 1.
// Frees what the daemon had, so that it can be called between any two events, and at the end for the leak checker.
void reset();

// Events: a member is configured or deleted, an interface joins a group or leaves, a result of `user` comes for the
// member with that key. Each returns the handler's status.
int32_t member_event(const member &what, bool is_del);
int32_t group_event(uint32_t ifx, uint32_t group_id, bool is_del);
int32_t result_event(const member &of, const std::string &user, uint32_t result, uint32_t msg_type);

}  // namespace driver
