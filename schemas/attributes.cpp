#include "attributes.h"

#include <cstring>

namespace {

struct attribute_row {
  const char *message; /* full name, null: any message */
  const char *field;
  uint32_t word;
};

constexpr attribute_row attributes[] = {
    {nullptr, "index", SCHEMA_ATTR_KEY},
    {"u_monitor.mirror_index", "t_user", SCHEMA_ATTR_OWNER},
    {"u_monitor.span_src_info_index", "t_user", SCHEMA_ATTR_OWNER},
    {"u_monitor.span_mtp_info_index", "t_user", SCHEMA_ATTR_OWNER},
    {"u_bridge.udp_pt_learn_index", "t_app_name", SCHEMA_ATTR_OWNER},
    {"u_bridge.udp_pt_learn_index", "t_ifx", SCHEMA_ATTR_OWNER},
    {"u_bridge.udp_flushdyn", "mac", SCHEMA_ATTR_FILTER},
};

}  // namespace

uint32_t schema_attribute(const ProtobufCMessageDescriptor *message, const ProtobufCFieldDescriptor *field) {
  /* p_intf.intfindex names its number "index" too; only a message field is a key. */
  for (const attribute_row &row : attributes) {
    if (row.word == SCHEMA_ATTR_KEY && field->type != PROTOBUF_C_TYPE_MESSAGE) continue;
    if (row.message != nullptr && std::strcmp(row.message, message->name) != 0) continue;
    if (std::strcmp(row.field, field->name) == 0) return row.word;
  }
  return SCHEMA_ATTR_NONE;
}
