#include "member_changes.h"

#include "catalog.h"
#include "proc/lspan/ko_lspan.h"
#include "values.h"

namespace lspanctl {
namespace {

using ko_store::change_kind;

int kind_of(const member &what) {
  constexpr int port = 0, acl = 1, vlans = 2;
  if (what.apply_type == U_MONITOR__MIRROR_TYPE__PORT) return port;
  return what.apply_type == U_MONITOR__MIRROR_TYPE__POLICY ? acl : vlans;
}

// Takes the member's answer under the name `owner` away, if there is one.
void append_answer_removal(store_client &store, const ko_store::hash_id &hash, const member &what, const char *owner,
                           transaction &out) {
  const ko_store::owned_change removal = result_removal(hash, what, owner);
  if (store.read(hash, removal.key)) out.push_back(removal);
}

}  // namespace

bool same_kind(const member &a, const member &b) { return kind_of(a) == kind_of(b); }

transaction set_member(store_client &store, const member *before, const member &now) {
  transaction all;
  if (before != nullptr && !same_kind(*before, now)) all.push_back(make_change(*before, change_kind::del));
  if (before != nullptr && *before != now) {
    append_answer_removal(store, results, now, forwarding_owner, all);
    append_answer_removal(store, relayed_results, now, ko_lspan_app_name, all);
  }
  all.push_back(make_change(now, change_kind::set));
  return all;
}

transaction delete_member(store_client &store, const member &what) {
  transaction all{make_change(what, change_kind::del)};
  append_answer_removal(store, relayed_results, what, ko_lspan_app_name, all);
  return all;
}

}  // namespace lspanctl
