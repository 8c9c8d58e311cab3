// What is written when a member is added, replaced or deleted: more than its own record.
#pragma once

#include "member.h"
#include "store_client.h"

namespace lspanctl {

// Whether the daemon keeps the two in one kind of source record: a port, an ACL or VLANs.
bool same_kind(const member &a, const member &b);

// Adds a member, or replaces `before` (null: there is none). One of another kind is deleted and added in one go, as the
// daemon otherwise leaves its source record behind. What was answered to other contents is taken away, so that an
// answer always belongs to the present ones.
transaction set_member(store_client &store, const member *before, const member &now);

// Deletes a member, and the daemon's copy of its answer, which the daemon leaves behind.
transaction delete_member(store_client &store, const member &what);

}  // namespace lspanctl
