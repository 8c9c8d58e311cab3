#include "catalog.h"

#include <algorithm>
#include <cctype>

#include "errors.h"
#include "p_policy.pb-c.h"
#include "proc/ko_span_public.h"
#include "text.h"
#include "u_bridge.pb-c.h"
#include "u_monitor.pb-c.h"

namespace lspanctl {
namespace {

const record_kind kinds[] = {
    {{CONF_DB, &u_monitor__mirror_lspan_info__descriptor}, true, "session members, as configured"},
    {{CONF_DB, &p_policy__data_intf_conf__descriptor}, true, "outflow groups, the group of each interface"},
    {{CONF_DB, &u_monitor__mirror_result_info__descriptor}, true, "results, relayed by the daemon"},
    {{FWD_DB, &u_bridge__udp_pt_learn__descriptor}, true, "ports whose learning is switched"},
    {{FWD_DB, &u_bridge__udp_flushdyn__descriptor}, false, "requests to flush the MAC entries of a port"},
    {{UDP_DB, &u_monitor__span_port_src_info__descriptor}, true, "sources: a port"},
    {{UDP_DB, &u_monitor__span_acl_src_info__descriptor}, true, "sources: what an ACL matches"},
    {{UDP_DB, &u_monitor__span_vlan_src_info__descriptor}, true, "sources: VLANs"},
    {{UDP_DB, &u_monitor__span_dst_info__descriptor}, true, "destinations of the sources"},
    {{UDP_DB, &u_monitor__span_mtp_info__descriptor}, true, "mirror-target ports of the sessions"},
    {{UDP_DB, &u_monitor__span_vlan_dst_info__descriptor}, true, "destinations behind an RSPAN VLAN"},
    {{UDP_DB, &u_monitor__span_vlan_mtp_info__descriptor}, true, "mirror-target ports behind an RSPAN VLAN"},
    {{UDP_DB, &u_monitor__span_ip_dst_info__descriptor}, true, "destinations behind an ERSPAN tunnel"},
    {{UDP_DB, &u_monitor__span_ip_mtp_info__descriptor}, true, "mirror-target ports behind an ERSPAN tunnel"},
    {{UDP_DB, &u_monitor__mirror_result_info__descriptor}, true, "results, as the forwarding side wrote them"},
};

struct named_db {
  uint32_t db;
  const char *name;
};
constexpr named_db databases[] = {{CONF_DB, "CONF_DB"}, {FWD_DB, "FWD_DB"}, {UDP_DB, "UDP_DB"}};

}  // namespace

const ko_store::hash_id session_members{CONF_DB, &u_monitor__mirror_lspan_info__descriptor};
const ko_store::hash_id group_memberships{CONF_DB, &p_policy__data_intf_conf__descriptor};
const ko_store::hash_id results{UDP_DB, &u_monitor__mirror_result_info__descriptor};
const ko_store::hash_id relayed_results{CONF_DB, &u_monitor__mirror_result_info__descriptor};

std::span<const record_kind> record_kinds() { return kinds; }

const record_kind *find_kind(uint32_t db, std::string_view message) {
  const auto *found = std::find_if(std::begin(kinds), std::end(kinds), [&](const record_kind &kind) {
    return kind.hash.db == db && message == kind.hash.type->name;
  });
  return found == std::end(kinds) ? nullptr : found;
}

std::string_view short_name(const ProtobufCMessageDescriptor &type) {
  const std::string_view name = type.name;
  return name.substr(name.rfind('.') + 1);
}

std::string db_name(uint32_t db) {
  for (const named_db &known : databases)
    if (known.db == db) return known.name;
  return std::to_string(db);
}

std::string place_text(const ko_store::hash_id &hash) { return db_name(hash.db) + " " + hash.type->name; }

uint32_t parse_db(const std::string &text) {
  std::string upper(text);
  std::transform(upper.begin(), upper.end(), upper.begin(), [](unsigned char c) { return std::toupper(c); });
  for (const named_db &known : databases)
    if (upper == known.name || upper == std::to_string(known.db)) return known.db;
  throw usage_error("database " + printable(text) + ": give 4 (CONF_DB), 6 (FWD_DB) or 8 (UDP_DB)");
}

std::string parse_message(const std::string &text) {
  std::string known;
  for (const record_kind &kind : kinds) {
    const ProtobufCMessageDescriptor &type = *kind.hash.type;
    if (text == type.name || text == short_name(type)) return type.name;
    const std::string name = " " + std::string(short_name(type));
    if (!known.ends_with(name) && known.find(name + " ") == std::string::npos) known += name;
  }
  throw usage_error("message " + printable(text) + ": give one of" + known);
}

}  // namespace lspanctl
