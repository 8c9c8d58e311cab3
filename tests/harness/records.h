// Records as the other processes of a switch write them, and as the daemon does.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <protobuf-c/protobuf-c.h>

#include "store/change.h"
#include "u_monitor.pb-c.h"

namespace harness {

// One record and where it belongs; `bytes` is empty when only the key matters.
struct record {
  uint32_t db;
  const ProtobufCMessageDescriptor *type;
  std::string key;
  std::string bytes;

  ko_store::change change(ko_store::change_kind kind) const;
  std::string line() const;  // as sandbox::dump gives it
};

struct member {
  uint32_t session = 0, s_ifx = 0, d_ifx = 0;  // a port, or group_target(...)
  uint32_t dir = 1, acl = 0;
  uint32_t apply = 0;   // 0 port, 1 ACL, 2 VLAN
  uint32_t module = 0;  // 5: d_ifx is a group
  uint32_t mtp_switch = 0, role = 1, sample = 0;
  std::vector<uint32_t> vlans = {};
};

constexpr uint32_t group_target(uint32_t group) { return group ^ 0xFD000000U; }

// What is borrowed has to outlive what is returned.
UMonitor__MirrorIndex index_of(const member &of, const char *user);
UMonitor__MirrorLspanInfo message_of(const member &of, UMonitor__MirrorIndex &index);

record session(const member &of, const char *user = "config");                // u_monitor.mirror_lspan_info
record membership(uint32_t ifx, uint32_t group);                              // p_policy.data_intf_conf
record result(const member &of, uint32_t value = 0, uint32_t msg_type = 0);   // u_monitor.mirror_result_info of du_span
record relayed(const member &of, uint32_t value = 0, uint32_t msg_type = 0);  // what the daemon makes of it
record any(uint32_t db, const ProtobufCMessage &message);

}  // namespace harness
