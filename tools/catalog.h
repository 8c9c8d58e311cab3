// Which records stand in which database, and what they are for. What a record consists of is in its descriptor.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include <protobuf-c/protobuf-c.h>

#include "store/change.h"

namespace lspanctl {

struct record_kind {
  ko_store::hash_id hash;
  bool stored;          // false: only ever published
  const char *meaning;  // a few words for people
};

std::span<const record_kind> record_kinds();

// The kind of that database and full name, or null.
const record_kind *find_kind(uint32_t db, std::string_view message);

// What the tool writes and reads by name.
extern const ko_store::hash_id session_members;    // CONF_DB u_monitor.mirror_lspan_info
extern const ko_store::hash_id group_memberships;  // CONF_DB p_policy.data_intf_conf
extern const ko_store::hash_id results;            // UDP_DB u_monitor.mirror_result_info
extern const ko_store::hash_id relayed_results;    // CONF_DB u_monitor.mirror_result_info

// The name of a message without its package, as in the schemas.
std::string_view short_name(const ProtobufCMessageDescriptor &type);

// "CONF_DB", or the number of a database without a name.
std::string db_name(uint32_t db);

// "CONF_DB u_monitor.mirror_lspan_info"
std::string place_text(const ko_store::hash_id &hash);

// A database by number or name; a message's full name from its name with or without its package. Throw usage_error.
uint32_t parse_db(const std::string &text);
std::string parse_message(const std::string &text);

}  // namespace lspanctl
