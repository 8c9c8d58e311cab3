// Which interfaces are in which outflow group.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "context.h"
#include "store/change.h"
#include "store_client.h"

namespace lspanctl {

// The change that puts an interface into a group, or for a delete takes it out of the one it is in.
ko_store::owned_change membership(uint32_t ifx, uint32_t group, ko_store::change_kind kind);

// The group that the interface of that change is in, 0 for none; nothing when it has no record.
std::optional<uint32_t> group_now(store_client &store, const ko_store::owned_change &membership);

// An interface that may be in a group. Throws as interfaces::parse, and usage_error for none.
uint32_t parse_group_interface(const interfaces &ports, const std::string &text, bool any_number);

// Every stored membership: the group of each interface. Records that name no group are left out.
std::map<uint32_t, uint32_t> load_memberships(context &ctx, store_client &store);

}  // namespace lspanctl
