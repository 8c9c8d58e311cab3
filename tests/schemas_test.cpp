// The schemas as others have them compiled in: a number or type that changed here would be read as something else
// there.
#include <gtest/gtest.h>

#include <string>

#include "attributes.h"
#include "p_intf.pb-c.h"
#include "p_libpub.pb-c.h"
#include "p_policy.pb-c.h"
#include "u_bridge.pb-c.h"
#include "u_monitor.pb-c.h"

namespace {

// A field is its number, type ([]: repeated, packed), name and attribute word (@).
const char *const golden = R"(
u_monitor.mirror_module: USER 0, SFLOW 1, IPFIX 2, CPU 3, OPEN_FLOW 4, GROUP 5, MOD_TYPE_COUNT 6
u_monitor.mirror_role: LOCALSPAN_SRC 0, LOCALSPAN_DST 1, RSPAN_SRC 2, RSPAN_DST 3, ERSPAN_SRC 4, ERSPAN_DST 5
u_monitor.mirror_type: PORT 0, POLICY 1, VLAN 2, VLAN_FILTER 3
u_monitor.mirror_index: 1 string t_user @1, 2 uint32 session_num, 3 uint32 s_ifx, 4 uint32 d_ifx, 5 uint32 dir, 6
  uint32 acl_id
u_monitor.span_src_info_index: 1 string t_user @1, 2 uint32 session_id, 3 uint32 s_phyid, 4 uint32 d_phyid, 5 uint32
  dir, 6 uint32 acl_id
u_monitor.span_mtp_info_index: 1 string t_user @1, 2 uint32 session_id, 3 uint32 d_phyid
u_bridge.udp_pt_learn_index: 1 string t_app_name @1, 2 uint32 t_ifx @1
p_intf.intfindex: 1 uint32 index
u_monitor.mirror_lspan_info: 5 u_monitor.mirror_index index @2, 6 u_monitor.mirror_module module_type, 7
  u_monitor.mirror_role role, 8 u_monitor.mirror_type apply_type, 9 uint32 mtp_switch, 10 uint32[] vlan_map, 11 uint32
  sample_rate
p_policy.data_intf_conf: 5 p_intf.intfindex index @2, 6 uint32 group_id
u_monitor.mirror_result_info: 5 u_monitor.mirror_index index @2, 6 uint32 result, 7 uint32 msg_type
u_monitor.span_port_src_info: 5 u_monitor.span_src_info_index index @2, 6 u_monitor.mirror_module module_type, 7
  u_monitor.mirror_role role
u_monitor.span_acl_src_info: 5 u_monitor.span_src_info_index index @2, 6 uint32 module_type, 7 uint32 role, 8 uint32
  sample_rate, 9 uint32 src_is_subif, 10 uint32 src_main_phyid
u_monitor.span_vlan_src_info: 5 u_monitor.span_src_info_index index @2, 6 uint32 module_type, 7 uint32 role, 8
  uint32[] vlan_map
u_monitor.span_dst_info: 5 u_monitor.span_src_info_index index @2, 6 uint32 module_type, 7 uint32 role, 8 uint32
  apply_type, 9 uint32 sample_rate, 10 uint32 arp_lif, 11 uint32 ip4_lif, 12 uint32 out_lif, 14 uint32 src_is_subif,
  15 uint32 src_main_phyid
u_monitor.span_vlan_dst_info: 5 u_monitor.span_src_info_index index @2, 6 uint32 rspan_vlan
u_monitor.span_ip_info: 5 uint32 src_ip, 6 uint32 dst_ip, 7 uint32 ttl, 8 uint32 dscp, 9 uint32 vrf
u_monitor.span_ip_dst_info: 5 u_monitor.span_src_info_index index @2, 6 u_monitor.span_ip_info ip_head, 7 uint32
  src_is_subif, 8 uint32 src_main_phyid
u_monitor.span_mtp_info: 5 u_monitor.span_mtp_info_index index @2, 6 uint32 module_type, 7 uint32 role, 8 uint32
  mtp_switch, 9 uint32 arp_lif, 10 uint32 ip4_lif, 11 uint32 out_lif
u_monitor.span_vlan_mtp_info: 5 u_monitor.span_mtp_info_index index @2, 6 uint32 rspan_vlan
u_monitor.span_ip_mtp_info: 5 u_monitor.span_mtp_info_index index @2, 6 u_monitor.span_ip_info ip_head
u_bridge.udp_pt_learn: 5 u_bridge.udp_pt_learn_index index @2, 6 string learn
u_bridge.udp_flushdyn: 5 p_libpub.mac mac @32, 6 uint32 port_type, 7 uint32 ifx, 8 uint32 vid, 9 uint32 flag, 10
  uint32[] vbmp, 11 uint32 brg_type, 12 uint32 subport
p_libpub.mac: 1 bytes data
)";

const ProtobufCEnumDescriptor *const enums[] = {
    &u_monitor__mirror_module__descriptor, &u_monitor__mirror_role__descriptor, &u_monitor__mirror_type__descriptor};
const ProtobufCMessageDescriptor *const messages[] = {&u_monitor__mirror_index__descriptor,
                                                      &u_monitor__span_src_info_index__descriptor,
                                                      &u_monitor__span_mtp_info_index__descriptor,
                                                      &u_bridge__udp_pt_learn_index__descriptor,
                                                      &p_intf__intfindex__descriptor,
                                                      &u_monitor__mirror_lspan_info__descriptor,
                                                      &p_policy__data_intf_conf__descriptor,
                                                      &u_monitor__mirror_result_info__descriptor,
                                                      &u_monitor__span_port_src_info__descriptor,
                                                      &u_monitor__span_acl_src_info__descriptor,
                                                      &u_monitor__span_vlan_src_info__descriptor,
                                                      &u_monitor__span_dst_info__descriptor,
                                                      &u_monitor__span_vlan_dst_info__descriptor,
                                                      &u_monitor__span_ip_info__descriptor,
                                                      &u_monitor__span_ip_dst_info__descriptor,
                                                      &u_monitor__span_mtp_info__descriptor,
                                                      &u_monitor__span_vlan_mtp_info__descriptor,
                                                      &u_monitor__span_ip_mtp_info__descriptor,
                                                      &u_bridge__udp_pt_learn__descriptor,
                                                      &u_bridge__udp_flushdyn__descriptor,
                                                      &p_libpub__mac__descriptor};

std::string text_of(const ProtobufCMessageDescriptor &message, const ProtobufCFieldDescriptor &field) {
  std::string type = "other";
  if (field.type == PROTOBUF_C_TYPE_UINT32) type = "uint32";
  if (field.type == PROTOBUF_C_TYPE_STRING) type = "string";
  if (field.type == PROTOBUF_C_TYPE_BYTES) type = "bytes";
  if (field.type == PROTOBUF_C_TYPE_ENUM) type = static_cast<const ProtobufCEnumDescriptor *>(field.descriptor)->name;
  if (field.type == PROTOBUF_C_TYPE_MESSAGE)
    type = static_cast<const ProtobufCMessageDescriptor *>(field.descriptor)->name;
  const bool packed = (field.flags & PROTOBUF_C_FIELD_FLAG_PACKED) != 0;
  if (field.label == PROTOBUF_C_LABEL_REPEATED) type += packed ? "[]" : "[unpacked]";
  if (field.label == PROTOBUF_C_LABEL_OPTIONAL || field.label == PROTOBUF_C_LABEL_REQUIRED) type += "?";
  const uint32_t word = schema_attribute(&message, &field);
  return std::to_string(field.id) + " " + type + " " + field.name + (word != 0 ? " @" + std::to_string(word) : "");
}

TEST(schemas, are_those_of_everybody_else) {
  std::string now = "\n";
  for (const ProtobufCEnumDescriptor *type : enums) {
    now += std::string(type->name) + ":";
    for (unsigned i = 0; i < type->n_values; ++i)
      now += std::string(i == 0 ? " " : ", ") + type->values[i].name + " " + std::to_string(type->values[i].value);
    now += "\n";
  }
  for (const ProtobufCMessageDescriptor *type : messages) {
    now += std::string(type->name) + ":";
    for (unsigned i = 0; i < type->n_fields; ++i) now += (i == 0 ? " " : ", ") + text_of(*type, type->fields[i]);
    now += "\n";
  }
  std::string wanted = golden;
  for (size_t at = 0; (at = wanted.find("\n  ", at)) != std::string::npos;) wanted.replace(at, 3, " ");
  EXPECT_EQ(now, wanted);
}

}  // namespace
