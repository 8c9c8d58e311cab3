#include "records.h"

#include <algorithm>

#include "p_policy.pb-c.h"
#include "u_bridge.pb-c.h"
#include "u_monitor.pb-c.h"

namespace ko_forward {
namespace {

constexpr std::array<uint8_t, 4> magic = {'k', 'o', 'f', 'w'};

// FNV-1a, from a start of its own.
uint64_t hash_of(const std::string &bytes, uint64_t start) {
  uint64_t hash = start;
  for (const char byte : bytes) hash = (hash ^ static_cast<uint8_t>(byte)) * 0x100000001B3;
  return hash;
}

std::string text_of(const char *text) { return text == nullptr ? "" : text; }

member_key key_of(const UMonitor__SpanSrcInfoIndex &index) {
  return {.session = index.session_id,
          .s_phyid = index.s_phyid,
          .d_phyid = index.d_phyid,
          .dir = index.dir,
          .acl_id = index.acl_id,
          .owner = text_of(index.t_user)};
}

// VLAN n is bit n%32 of word n/32. What is missing is 0; what is too much has no VLANs.
vlan_set vlans_of(const UMonitor__SpanVlanSrcInfo &record) {
  vlan_set vlans;
  const size_t end = std::min(vlans.size(), 32 * record.n_vlan_map);
  for (size_t vlan = 0; vlan < end; ++vlan) vlans[vlan] = (record.vlan_map[vlan / 32] >> vlan % 32 & 1) != 0;
  return vlans;
}

template <class Container, class Entry>
void set_or_erase(Container &container, bool gone, Entry entry) {
  if constexpr (requires { container.insert_or_assign(entry.first, entry.second); }) {
    if (gone)
      container.erase(entry.first);
    else
      container.insert_or_assign(entry.first, std::move(entry.second));
  } else if (gone) {
    container.erase(entry);
  } else {
    container.insert(std::move(entry));
  }
}

template <class Record>
const Record &as(const ProtobufCMessage &message) {
  return reinterpret_cast<const Record &>(message);
}

std::optional<member_key> take_source(const ProtobufCMessage &message, bool gone, records &into) {
  const ProtobufCMessageDescriptor *type = message.descriptor;
  if (type == &u_monitor__span_port_src_info__descriptor) {
    const member_key key = key_of(*as<UMonitor__SpanPortSrcInfo>(message).index);
    set_or_erase(into.port_sources, gone, key);
    return key;
  }
  if (type == &u_monitor__span_acl_src_info__descriptor) {
    const member_key key = key_of(*as<UMonitor__SpanAclSrcInfo>(message).index);
    set_or_erase(into.acl_sources, gone, key);
    return key;
  }
  if (type == &u_monitor__span_vlan_src_info__descriptor) {
    const auto &record = as<UMonitor__SpanVlanSrcInfo>(message);
    const member_key key = key_of(*record.index);
    set_or_erase(into.vlan_sources, gone, std::pair(key, vlans_of(record)));
    return key;
  }
  return std::nullopt;
}

}  // namespace

mark mark_of(const member_key &key) {
  std::string bytes;
  for (const uint32_t number : {key.session, key.s_phyid, key.d_phyid, key.dir, key.acl_id})
    bytes.append(std::to_string(number)).append(1, ' ');
  bytes += key.owner;
  const uint64_t first = hash_of(bytes, 0xCBF29CE484222325);
  const uint64_t second = hash_of(bytes, 0x9E3779B97F4A7C15);
  mark out{};
  std::copy(magic.begin(), magic.end(), out.begin());
  for (size_t i = 0; i < 8; ++i) out[4 + i] = static_cast<uint8_t>(first >> 8 * i);
  for (size_t i = 0; i < 4; ++i) out[12 + i] = static_cast<uint8_t>(second >> 8 * i);
  return out;
}

bool is_own_mark(const mark &what) { return std::equal(magic.begin(), magic.end(), what.begin()); }

std::optional<member_key> take_record(const ProtobufCMessage &message, bool gone, records &into) {
  const ProtobufCMessageDescriptor *type = message.descriptor;
  if (type == &u_monitor__span_dst_info__descriptor) {
    const auto &record = as<UMonitor__SpanDstInfo>(message);
    const member_key key = key_of(*record.index);
    const member_record member{record.module_type, record.role, record.apply_type, record.sample_rate, mark_of(key)};
    set_or_erase(into.members, gone, std::pair(key, member));
    return key;
  }
  if (type == &u_monitor__span_mtp_info__descriptor) {
    const auto &record = as<UMonitor__SpanMtpInfo>(message);
    const target_key key{text_of(record.index->t_user), record.index->session_id, record.index->d_phyid};
    const target_record target{record.module_type == U_MONITOR__MIRROR_MODULE__GROUP, record.mtp_switch != 0};
    set_or_erase(into.targets, gone, std::pair(key, target));
  } else if (type == &u_bridge__udp_pt_learn__descriptor) {
    const UBridge__UdpPtLearnIndex &index = *as<UBridge__UdpPtLearn>(message).index;
    set_or_erase(into.quiet, gone, std::pair(index.t_ifx, text_of(index.t_app_name)));
  } else if (type == &p_policy__data_intf_conf__descriptor) {
    const auto &record = as<PPolicy__DataIntfConf>(message);
    set_or_erase(into.groups, gone || record.group_id == 0, std::pair(record.index->index, record.group_id));
  }
  return take_source(message, gone, into);
}

}  // namespace ko_forward
