// Drives the daemon's core on the recording platform: sends events to its handlers. daemon_state.h looks at what it
// keeps in memory.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "daemon_state.h"
#include "proc/ko_span_public.h"

namespace driver {

// One session member, as a configuration record carries it.
struct member {
  uint32_t session = 0, s = 0, d = 0, dir = 0, acl = 0;  // key
  uint32_t module = 0, role = 1, apply = 0, mtp_switch = 0, rate = 0;
  std::vector<uint32_t> vlan;
};

constexpr uint32_t group_target(uint32_t group_id) { return ko_span_group_ifx(group_id); }

// Puts recording platform and daemon where main has them when the first event arrives: nothing known, log level 1.
// Frees what the daemon had, so that it can be called between any two events, and at the end for the leak checker.
void reset();

// Events: a member is configured or deleted, an interface joins a group or leaves, a result of `user` comes for the
// member with that key. Each returns the handler's status.
int32_t member_event(const member &what, bool is_del);
int32_t group_event(uint32_t ifx, uint32_t group_id, bool is_del);
int32_t result_event(const member &of, std::string user, uint32_t result, uint32_t msg_type);

}  // namespace driver
