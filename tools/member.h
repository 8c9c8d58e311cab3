// A session member as the tool handles it, and its record.
#pragma once

#include <compare>
#include <cstdint>
#include <string>
#include <vector>

#include "context.h"
#include "store/change.h"
#include "store_client.h"
#include "u_monitor.pb-c.h"

namespace lspanctl {

inline constexpr const char *tool_owner = "lspanctl";       // owner of the members that the tool configures
inline constexpr const char *forwarding_owner = "du_span";  // owner of the forwarding side's answers

// The key of a member, in the order in which members are listed.
struct member_key {
  uint32_t session = 0;
  uint32_t s_ifx = 0;
  uint32_t d_ifx = 0;
  uint32_t dir = 0;
  uint32_t acl_id = 0;
  std::string owner;
  auto operator<=>(const member_key &) const = default;
};

struct member {
  member_key key;
  uint32_t module_type = U_MONITOR__MIRROR_MODULE__USER;
  uint32_t role = U_MONITOR__MIRROR_ROLE__LOCALSPAN_DST;
  uint32_t apply_type = U_MONITOR__MIRROR_TYPE__PORT;
  uint32_t mtp_switch = 0;  // 0: the target stops learning
  std::vector<uint32_t> vlan_map;
  uint32_t sample_rate = 0;
  bool operator==(const member &) const = default;
  bool targets_group() const { return module_type == U_MONITOR__MIRROR_MODULE__GROUP; }
};

// "session 3, ge5 -> ge9, rx, acl 7"
std::string to_text(const member &what, const interfaces &ports);

// "sample_rate: 0 -> 64": the fields of the records that differ.
std::string difference(const member &before, const member &now);

// The key message of a member or result; borrows from `key`.
UMonitor__MirrorIndex index_of(const member_key &key);

// The change that writes or deletes the member's record.
ko_store::owned_change make_change(const member &what, ko_store::change_kind kind);

// The change that deletes the answer to the member that `owner` gave or, as the daemon, relayed.
ko_store::owned_change result_removal(const ko_store::hash_id &hash, const member &what, const char *owner);

member from_record(const UMonitor__MirrorLspanInfo &record);

// The one with that key, or null.
const member *find_member(const std::vector<member> &members, const member_key &key);

// The stored members, in the order of their keys.
std::vector<member> load_members(context &ctx, store_client &store);

}  // namespace lspanctl
