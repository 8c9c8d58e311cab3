#include "objections.h"

#include <algorithm>

#include "errors.h"
#include "membership.h"
#include "values.h"

namespace lspanctl {
namespace {

constexpr uint32_t sent = 2;  // the bit of a direction for frames that the interface sends
constexpr uint32_t most_direction = 3;

std::string session_text(const member &what) { return "session " + std::to_string(what.key.session); }

// Of two members of one session: whether they differ in their directions only, and these have one in common.
bool copies_the_same(const member &one, const member &other) {
  return one.key.dir != other.key.dir && (one.key.dir & other.key.dir) != 0 && one.key.s_ifx == other.key.s_ifx &&
         one.key.acl_id == other.key.acl_id && one.apply_type == other.apply_type && one.vlan_map == other.vlan_map;
}

}  // namespace

objections::objections(const std::vector<member> &members, const std::map<uint32_t, uint32_t> &groups,
                       const interfaces &ports)
    : ports_(ports) {
  for (const auto &[ifx, group] : groups) groups_[group].push_back(ifx);
  for (const member &each : members) {
    of_session_[each.key.session].push_back(&each);
    of_source_[{each.key.session, each.key.s_ifx, each.key.dir, each.key.acl_id}].push_back(&each);
    if (each.key.s_ifx != 0 && (each.key.dir & sent) != 0) copying_sent_[each.key.s_ifx].push_back(&each);
  }
}

std::string objections::to(const member &what) const {
  for (const auto part : {&objections::to_contents, &objections::to_neighbours, &objections::to_path_of})
    if (std::string why = (this->*part)(what); !why.empty()) return why;
  return "";
}

std::string objections::to_contents(const member &what) const {
  for (const uint32_t ifx : {what.key.s_ifx, what.targets_group() ? 0 : what.key.d_ifx})
    if (const std::string twin = ports_.twin_of(ifx); !twin.empty())
      return ports_.text(ifx) + " and " + twin +
             " have one physical id in the platform file and cannot be told apart; correct it there";
  if (what.key.d_ifx == 0) return "nothing gets the copies; give a target that exists";
  if (what.key.dir == 0 || what.key.dir > most_direction)
    return "direction " + std::to_string(what.key.dir) + " is not known; give rx, tx or both";
  switch (what.apply_type) {
    case U_MONITOR__MIRROR_TYPE__PORT:
      return what.key.s_ifx == 0 ? "it mirrors nothing; give a source or VLANs" : "";
    case U_MONITOR__MIRROR_TYPE__POLICY:
      return what.key.acl_id == 0 ? "it mirrors what an ACL matches, and there is none; give an ACL" : "";
    default: {
      const auto &map = what.vlan_map;
      const bool none = std::all_of(map.begin(), map.end(), [](uint32_t word) { return word == 0; });
      return none ? "it mirrors VLANs, and there are none; give VLANs" : "";
    }
  }
}

// The daemon keeps one target for a session, and one record for a source whoever owns it.
std::string objections::to_neighbours(const member &what) const {
  const auto others = of_session_.find(what.key.session);
  for (const member *other : others == of_session_.end() ? std::vector<const member *>() : others->second) {
    if (other->key.d_ifx != what.key.d_ifx)
      return session_text(what) + " has the target " + ports_.target_text(other->key.d_ifx, other->targets_group()) +
             " already and can have only one; give this member another session";
    if (copies_the_same(*other, what))
      return "its " + direction_text(other->key.dir) +
             " member copies the same frames, which would come twice; delete that one";
  }
  const auto same = of_source_.find({what.key.session, what.key.s_ifx, what.key.dir, what.key.acl_id});
  for (const member *other : same == of_source_.end() ? std::vector<const member *>() : same->second)
    if (other->key.owner != what.key.owner)
      return "owner " + printable(other->key.owner) +
             " has the same member, and the daemon cannot tell them apart; give this one another session";
  return "";
}

std::vector<uint32_t> objections::targets_of(const member &what) const {
  if (!what.targets_group()) return {what.key.d_ifx};
  const auto group = groups_.find(group_id_of(what.key.d_ifx));
  return group == groups_.end() ? std::vector<uint32_t>() : group->second;
}

// A member through which copies that `from` sends reach `to`, at once or by way of others.
const member *objections::way_back(uint32_t from, uint32_t to, std::set<uint32_t> &seen) const {
  if (!seen.insert(from).second) return nullptr;
  const auto next = copying_sent_.find(from);
  if (next == copying_sent_.end()) return nullptr;
  for (const member *each : next->second)
    for (const uint32_t target : targets_of(*each))
      if (target == to || way_back(target, to, seen) != nullptr) return each;
  return nullptr;
}

std::string objections::to_path_of(const member &what) const {
  const uint32_t source = what.key.s_ifx;
  if (source == 0) return "";
  const std::vector<uint32_t> targets = targets_of(what);
  if (std::find(targets.begin(), targets.end(), source) != targets.end())
    return what.targets_group()
               ? "the source " + ports_.text(source) + " is in the target " + group_text(what.key.d_ifx) +
                     "; take it out with lspanctl group leave " + ports_.text(source)
               : "source and target are the same interface; give another target";
  if ((what.key.dir & sent) == 0) return "";
  std::set<uint32_t> seen;
  for (const uint32_t target : targets)
    if (const member *back = way_back(target, source, seen))
      return session_text(*back) + " brings the copies back to " + ports_.text(source) +
             ", and they go round for ever; mirror only rx";
  return "";
}

void refuse_objectionable(context &ctx, store_client &store, std::vector<member> stored,
                          const std::vector<member> &changed) {
  std::erase_if(stored, [&changed](const member &each) { return find_member(changed, each.key) != nullptr; });
  stored.insert(stored.end(), changed.begin(), changed.end());
  const interfaces ports = ctx.ports();
  const std::map<uint32_t, uint32_t> groups = load_memberships(ctx, store);
  const objections raised(stored, groups, ports);
  for (const member &what : changed)
    if (const std::string why = raised.to(what); !why.empty())
      throw refused(to_text(what, ports) + ": " + why + ", or --force it");
}

}  // namespace lspanctl
