#include "membership.h"

#include "catalog.h"
#include "errors.h"
#include "p_policy.pb-c.h"
#include "records.h"

namespace lspanctl {

ko_store::owned_change membership(uint32_t ifx, uint32_t group, ko_store::change_kind kind) {
  PIntf__Intfindex index = P_INTF__INTFINDEX__INIT;
  index.index = ifx;
  PPolicy__DataIntfConf record = P_POLICY__DATA_INTF_CONF__INIT;
  record.index = &index;
  record.group_id = group;
  return ko_store::make_change(group_memberships.db, kind, record.base);
}

std::optional<uint32_t> group_now(store_client &store, const ko_store::owned_change &membership) {
  const std::optional<std::string> bytes = store.read(membership.hash, membership.key);
  if (!bytes) return std::nullopt;
  const ko_store::message_ptr record = ko_store::unpack(*membership.hash.type, *bytes);
  return record == nullptr ? 0 : reinterpret_cast<const PPolicy__DataIntfConf *>(record.get())->group_id;
}

uint32_t parse_group_interface(const interfaces &ports, const std::string &text, bool any_number) {
  const uint32_t ifx = ports.parse(text, any_number);
  if (ifx == 0) throw usage_error("interface " + text + ": give one that exists");
  return ifx;
}

std::map<uint32_t, uint32_t> load_memberships(context &ctx, store_client &store) {
  std::map<uint32_t, uint32_t> groups;
  for (const decoded_record &record : load_records(ctx, store, group_memberships)) {
    const auto &membership = record.as<PPolicy__DataIntfConf>();
    if (membership.group_id != 0) groups[membership.index->index] = membership.group_id;
  }
  return groups;
}

}  // namespace lspanctl
