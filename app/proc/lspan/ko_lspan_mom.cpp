// The daemon and the store: opening it at start-up, and on wake-up declaring the records that the daemon reads and
// writes and the handlers of their events. Everything after that is in the handlers.
#include <cstddef>
#include <cstring>

#include "libddm.h"
#include "proc/lspan/ko_lspan.h"
#include "proc/lspan/outgrb_hash.h"
#include "rdnd_lib.h"
#include "u_bridge.pb-c.h"
#include "vx_mom.h"

namespace {

const uint32_t lspan_db_list[] = {CONF_DB, UDP_DB, FWD_DB};

constexpr uint32_t no_db = 0;

// A kind of record that the daemon reads or writes.
struct ds_source {
  const ProtobufCMessageDescriptor *record;
  const char *owner_field;  // text field of the key that names the daemon; null: the key has none
  uint32_t in_db;           // read from there, or no_db
  uint32_t out_db;          // written there, or no_db
  vx_mom_event_cb set;      // handlers of an input; null: none
  vx_mom_event_cb del;
};

// In the order in which the inputs, and the outputs, are declared.
const ds_source lspan_sources[] = {
    {&u_monitor__mirror_lspan_info__descriptor, "t_user", CONF_DB, no_db, ko_lspan_info_handle, ko_lspan_info_handle},
    {&p_policy__data_intf_conf__descriptor, nullptr, CONF_DB, no_db, ko_lspan_outgrb_handle, ko_lspan_outgrb_handle},
    {&u_monitor__span_port_src_info__descriptor, "t_user", no_db, UDP_DB, nullptr, nullptr},
    {&u_monitor__span_acl_src_info__descriptor, "t_user", no_db, UDP_DB, nullptr, nullptr},
    {&u_monitor__span_vlan_src_info__descriptor, "t_user", no_db, UDP_DB, nullptr, nullptr},
    {&u_monitor__span_dst_info__descriptor, "t_user", no_db, UDP_DB, nullptr, nullptr},
    {&u_monitor__span_mtp_info__descriptor, "t_user", no_db, UDP_DB, nullptr, nullptr},
    {&u_monitor__mirror_result_info__descriptor, "t_user", UDP_DB, CONF_DB, ko_lspan_mom_result_info_set, nullptr},
    {&u_bridge__udp_pt_learn__descriptor, "t_app_name", no_db, FWD_DB, nullptr, nullptr},
};

constexpr size_t n_sources = sizeof(lspan_sources) / sizeof(lspan_sources[0]);

// Room for one record template and its key, whatever their types.
struct ds_template {
  union {
    ProtobufCMessage message;
    UMonitor__MirrorLspanInfo lspan_info;
    PPolicy__DataIntfConf intf_conf;
    UMonitor__SpanPortSrcInfo port_src_info;
    UMonitor__SpanAclSrcInfo acl_src_info;
    UMonitor__SpanVlanSrcInfo vlan_src_info;
    UMonitor__SpanDstInfo dst_info;
    UMonitor__SpanMtpInfo mtp_info;
    UMonitor__MirrorResultInfo result_info;
    UBridge__UdpPtLearn pt_learn;
  } record;
  union {
    ProtobufCMessage message;
    UMonitor__MirrorIndex mirror;
    PIntf__Intfindex intf;
    UMonitor__SpanSrcInfoIndex src;
    UMonitor__SpanMtpInfoIndex mtp;
    UBridge__UdpPtLearnIndex pt_learn;
  } index;
};

// Sets the pointer field `name` of `message`.
void set_pointer(ProtobufCMessage *message, const char *name, const void *value) {
  const ProtobufCFieldDescriptor *field = protobuf_c_message_descriptor_get_field_by_name(message->descriptor, name);
  std::memcpy(reinterpret_cast<unsigned char *>(message) + field->offset, &value, sizeof(value));
}

// Everything at its default, but for the key and the owner in it.
void fill_template(const ds_source &source, ds_template *tmpl) {
  protobuf_c_message_init(source.record, &tmpl->record);
  const ProtobufCFieldDescriptor *index = protobuf_c_message_descriptor_get_field_by_name(source.record, "index");
  protobuf_c_message_init(static_cast<const ProtobufCMessageDescriptor *>(index->descriptor), &tmpl->index);
  set_pointer(&tmpl->record.message, "index", &tmpl->index);
  if (source.owner_field != nullptr) set_pointer(&tmpl->index.message, source.owner_field, ko_lspan_app_name);
}

// The declaration of one wake-up. The library copies what it keeps.
struct ds_declaration {
  ds_template templates[n_sources];
  mom_ds_entry inputs[n_sources];
  vx_mom_event_cb set[n_sources];  // by input
  vx_mom_event_cb del[n_sources];
  uint32_t n_inputs;
  mom_ds_entry outputs[n_sources];
  uint32_t n_outputs;
};

mom_ds_entry ds_entry(const ds_template &tmpl, uint32_t db_id, uint32_t is_output) {
  mom_ds_entry entry = {};
  entry.record = &tmpl.record.message;
  entry.db_id = db_id;
  entry.enabled = 1;
  entry.is_output = is_output;
  return entry;
}

void fill_declaration(ds_declaration *ds) {
  for (size_t i = 0; i < n_sources; i++) {
    const ds_source &source = lspan_sources[i];
    fill_template(source, &ds->templates[i]);
    if (source.in_db != no_db) {
      ds->set[ds->n_inputs] = source.set;
      ds->del[ds->n_inputs] = source.del;
      ds->inputs[ds->n_inputs++] = ds_entry(ds->templates[i], source.in_db, 0);
    }
    if (source.out_db != no_db) ds->outputs[ds->n_outputs++] = ds_entry(ds->templates[i], source.out_db, 1);
  }
}

// Registers the handlers of one event kind with the inputs that have one. *failed is the input that was refused.
int32_t register_handlers(const ds_declaration &ds, uint32_t kind, const vx_mom_event_cb *handlers, uint32_t *failed) {
  for (uint32_t i = 0; i < ds.n_inputs; i++) {
    if (handlers[i] == nullptr) continue;
    *failed = i;
    const int32_t rv = vx_mom_reg_key_event(lspan_global.mom_ab, &ds.inputs[i], kind, handlers[i], nullptr);
    if (rv != 0) return rv;
  }
  return 0;
}

int32_t register_with_redundancy() {
  static rdnd_mom_reg_info info;  // the library may keep its address
  info = {};
  info.instance = lspan_global.global->instance;
  info.app_name = ko_lspan_app_name;
  info.global = lspan_global.global;
  info.awake = ko_lspan_mom_rdnd_awake_cb;
  info.awake_peer = ko_lspan_mom_rdnd_awake_cb;
  info.db_list = lspan_db_list;
  info.n_db = sizeof(lspan_db_list) / sizeof(lspan_db_list[0]);
  return rdnd_lib_mom_reg(&info);
}

}  // namespace

int32_t ko_lspan_mom_init(uint8_t *run) {
  *run = 0;
  static const vx_mom_ab_opt opt = {};  // the library may keep its address
  lspan_global.mom_ab = vx_mom_ab_init(nullptr, ko_lspan_app_name, &opt);
  if (lspan_global.mom_ab == nullptr) {
    LSPAN_ERROR("mom_ab init fail");
    return 0;
  }
  if (outgrb_mbr_hash_init() != 0 || outgrb_group_hash_init() != 0) {
    LSPAN_ERROR("outgrb hash init fail");
    return ko_status_no_memory;
  }
  lspan_global.global = lspan_global.mom_ab->global;
  const int32_t rv = register_with_redundancy();
  if (rv != 0) {
    LSPAN_ERROR("RDND_ELEMENT_REG_UNAWARE failed %d.", rv);
    return 0;
  }
  *run = 1;
  return 0;
}

int32_t ko_lspan_mom_rdnd_awake_cb(void *) {
  ds_declaration ds = {};
  fill_declaration(&ds);
  int32_t rv = libddm_init(lspan_global.global, ko_lspan_app_name);
  if (rv != 0) {
    LSPAN_ERROR("libddm_init failed %d.\r\n", rv);
    return rv;
  }
  const uint32_t number = vx_mom_reg_ds(lspan_global.mom_ab, ds.inputs, ds.n_inputs, ds.outputs, ds.n_outputs);
  const uint32_t own_records = 1;
  rv = vx_mom_set_ds_opt(lspan_global.mom_ab, number, VX_MOM_OPT_OWN_RECORDS, &own_records);
  if (rv != 0) {
    LSPAN_ERROR("vx_mom_set_ds_opt fail, rv=%d\r\n", rv);
    return rv;
  }
  LSPAN_INFO("vx_mom_set_ds_opt init sucess\r\n");
  uint32_t i = 0;
  rv = register_handlers(ds, VX_MOM_EVENT_SET, ds.set, &i);
  if (rv != 0) {
    LSPAN_ERROR("mom set add_event fail, rv=%d, i=%d\r\n", rv, i);
    return rv;
  }
  rv = register_handlers(ds, VX_MOM_EVENT_DEL, ds.del, &i);
  if (rv != 0) {
    LSPAN_ERROR("mom set del_event fail, rv=%d, i=%d\r\n", rv, i);
    return rv;
  }
  vx_mom_reg_all_ds_event(lspan_global.mom_ab, 0, ko_lspan_all_ds_over_handler, nullptr);
  return 0;
}

int32_t ko_lspan_all_ds_over_handler(void *) {
  LSPAN_INFO("lspan ds over.\r\n");
  return 0;
}
