// What the store says: the daemon's records, as the forwarding side needs them. No input and output here.
#pragma once

#include <array>
#include <bitset>
#include <compare>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include <protobuf-c/protobuf-c.h>

namespace ko_forward {

// Databases of the store.
inline constexpr uint32_t conf_db = 4;
inline constexpr uint32_t fwd_db = 6;
inline constexpr uint32_t udp_db = 8;

// A group as a target stands as its id XOR this where a port's id would stand.
inline constexpr uint32_t group_tag = 0xFD000000;

// What the source and destination records of one session member have in common.
struct member_key {
  uint32_t session = 0;
  uint32_t s_phyid = 0;  // 0: no port
  uint32_t d_phyid = 0;  // of a group: its tagged id
  uint32_t dir = 0;
  uint32_t acl_id = 0;
  std::string owner;

  auto operator<=>(const member_key &) const = default;
};

// By what the kernel's filters are known again: four bytes that are the same for all of this program's, and twelve that
// come from the member.
using mark = std::array<uint8_t, 16>;
mark mark_of(const member_key &key);
bool is_own_mark(const mark &what);

// The destination record, which is the member.
struct member_record {
  uint32_t module = 0;  // u_monitor.mirror_module
  uint32_t role = 0;    // u_monitor.mirror_role
  uint32_t apply = 0;   // u_monitor.mirror_type: which source record belongs to it
  uint32_t sample_rate = 0;
  mark marked{};  // that of its key
};

using vlan_set = std::bitset<4096>;

// The record of a session's target.
struct target_key {
  std::string owner;
  uint32_t session = 0;
  uint32_t d_phyid = 0;  // as in member_key

  auto operator<=>(const target_key &) const = default;
};

struct target_record {
  bool is_group = false;
  bool learns = false;
};

struct records {
  std::map<member_key, member_record> members;
  std::set<member_key> port_sources;
  std::set<member_key> acl_sources;
  std::map<member_key, vlan_set> vlan_sources;
  std::map<target_key, target_record> targets;
  std::set<std::pair<uint32_t, std::string>> quiet;  // interface indexes that do not learn, and who wants that
  std::map<uint32_t, uint32_t> groups;               // interface index to group, not 0
};

// Takes `message`, a record of one of the kinds above that was set (or has gone), into `into`; other messages are
// passed over. Returns the member whose destination or source it is.
std::optional<member_key> take_record(const ProtobufCMessage &message, bool gone, records &into);

}  // namespace ko_forward
