#include "member.h"

#include <algorithm>

#include "proc/ko_span_public.h"
#include "record_line.h"
#include "records.h"
#include "values.h"

namespace lspanctl {

std::string to_text(const member &what, const interfaces &ports) {
  const member_key &key = what.key;
  std::string text = "session " + std::to_string(key.session) + ", " + ports.text(key.s_ifx) + " -> " +
                     ports.target_text(key.d_ifx, what.targets_group()) + ", " + direction_text(key.dir);
  if (key.acl_id != 0) text += ", acl " + std::to_string(key.acl_id);
  return text;
}

std::string difference(const member &before, const member &now) {
  const auto unpacked = [](const member &what) {
    const ko_store::owned_change write = make_change(what, ko_store::change_kind::set);
    return ko_store::unpack(*write.hash.type, write.record);
  };
  return difference(*unpacked(before), *unpacked(now));
}

UMonitor__MirrorIndex index_of(const member_key &key) {
  UMonitor__MirrorIndex index = U_MONITOR__MIRROR_INDEX__INIT;
  // The generated structs know no constant texts; packing only reads them.
  index.t_user = const_cast<char *>(key.owner.c_str());
  index.session_num = key.session;
  index.s_ifx = key.s_ifx;
  index.d_ifx = key.d_ifx;
  index.dir = key.dir;
  index.acl_id = key.acl_id;
  return index;
}

ko_store::owned_change make_change(const member &what, ko_store::change_kind kind) {
  UMonitor__MirrorIndex index = index_of(what.key);
  UMonitor__MirrorLspanInfo record = U_MONITOR__MIRROR_LSPAN_INFO__INIT;
  record.index = &index;
  ko_span_set_enum(&record.module_type, what.module_type);
  ko_span_set_enum(&record.role, what.role);
  ko_span_set_enum(&record.apply_type, what.apply_type);
  record.mtp_switch = what.mtp_switch;
  record.n_vlan_map = what.vlan_map.size();
  record.vlan_map = const_cast<uint32_t *>(what.vlan_map.data());
  record.sample_rate = what.sample_rate;
  return ko_store::make_change(CONF_DB, kind, record.base);
}

ko_store::owned_change result_removal(const ko_store::hash_id &hash, const member &what, const char *owner) {
  member_key key = what.key;
  key.owner = owner;
  if (what.targets_group()) key.d_ifx = result_target(key.d_ifx);
  UMonitor__MirrorIndex index = index_of(key);
  UMonitor__MirrorResultInfo result = U_MONITOR__MIRROR_RESULT_INFO__INIT;
  result.index = &index;
  return ko_store::make_change(hash.db, ko_store::change_kind::del, result.base);
}

member from_record(const UMonitor__MirrorLspanInfo &record) {
  const UMonitor__MirrorIndex &index = *record.index;
  member what;
  what.key = {index.session_num, index.s_ifx, index.d_ifx, index.dir, index.acl_id, index.t_user};
  what.module_type = ko_span_enum_number(record.module_type);
  what.role = ko_span_enum_number(record.role);
  what.apply_type = ko_span_enum_number(record.apply_type);
  what.mtp_switch = record.mtp_switch;
  what.vlan_map.assign(record.vlan_map, record.vlan_map + record.n_vlan_map);
  what.sample_rate = record.sample_rate;
  return what;
}

const member *find_member(const std::vector<member> &members, const member_key &key) {
  const auto found =
      std::find_if(members.begin(), members.end(), [&key](const member &each) { return each.key == key; });
  return found == members.end() ? nullptr : &*found;
}

std::vector<member> load_members(context &ctx, store_client &store) {
  std::vector<member> members;
  for (const decoded_record &record : load_records(ctx, store, session_members))
    members.push_back(from_record(record.as<UMonitor__MirrorLspanInfo>()));
  std::sort(members.begin(), members.end(), [](const member &a, const member &b) { return a.key < b.key; });
  return members;
}

}  // namespace lspanctl
