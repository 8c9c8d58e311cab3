#include "daemon_state.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <set>
#include <type_traits>

#include "proc/ko_span_target.h"
#include "proc/lspan/ko_lspan.h"
#include "proc/lspan/outgrb_hash.h"

namespace driver {
namespace {

// Membership as the events should have made it.
struct group_model {
  bool exists = false;
  std::vector<uint32_t> members;  // in list order, repeated joins included
};

std::map<uint32_t, group_model> groups;  // every group that an event ever named
std::map<uint32_t, uint32_t> group_of;   // every interface that an event ever named; 0: in none
std::set<uint32_t> left_empty;           // sessions without an entry, after a save in which something failed

template <typename Entry>
std::vector<Entry *> entries(mirror_link &head) {
  std::vector<Entry *> found;
  for (mirror_link *at = head.next; at != &head; at = at->next) found.push_back(reinterpret_cast<Entry *>(at));
  return found;
}

bool whole(const mirror_link &head) {
  const mirror_link *at = &head;
  do {
    if (at->next == nullptr || at->next->prev != at || at->prev == nullptr || at->prev->next != at) return false;
    at = at->next;
  } while (at != &head);
  return true;
}

outgrb_group_info *find_group(uint32_t group_id) { return outgrb_group_hash_get(&group_id); }

outgrb_mbr_info *find_member(uint32_t ifx) { return outgrb_mbr_hash_get(&ifx); }

template <typename Entry>
void free_all(mirror_link &head) {
  for (Entry *entry : entries<Entry>(head)) {
    if constexpr (std::is_same_v<Entry, mtp_info>) ko_span_target_remove(entry);
    mirror_list_del(&entry->link);
    std::free(entry);
  }
}

void forget_groups() {
  for (const auto &[group_id, model] : groups) {
    outgrb_group_info *group = find_group(group_id);
    if (group == nullptr) continue;
    for (const auto &[ifx, of] : group_of) outgrb_mbr_list_remove(&group->mbr_list, ifx);
    outgrb_group_hash_del(group);
  }
  for (const auto &[ifx, of] : group_of)
    if (outgrb_mbr_info *entry = find_member(ifx)) outgrb_mbr_hash_del(entry);
  groups.clear();
  group_of.clear();
}

void forget_sessions() {
  if (lspan_global.session_list.next == nullptr) return;
  for (mirror_info *session : entries<mirror_info>(lspan_global.session_list)) {
    free_all<src_info>(session->src_list);
    free_all<dst_info>(session->dst_list);
    free_all<mtp_info>(session->mtp_list);
  }
  free_all<mirror_info>(lspan_global.session_list);
  left_empty.clear();
}

bool is_empty(const mirror_info &session) {
  return session.src_list.next == &session.src_list && session.dst_list.next == &session.dst_list &&
         session.mtp_list.next == &session.mtp_list;
}

bool has_empty_session(uint32_t session_id) {
  for (const mirror_info *session : entries<mirror_info>(lspan_global.session_list))
    if (session->session_id == session_id) return is_empty(*session);
  return false;
}

// Takes the interface out of the list of the group it is in.
group_model *model_depart(uint32_t ifx) {
  const auto group = groups.find(group_of[ifx]);
  if (group == groups.end()) return nullptr;
  std::erase(group->second.members, ifx);
  return &group->second;
}

void model_leave(uint32_t ifx) {
  if (group_model *group = model_depart(ifx); group != nullptr && group->members.empty()) group->exists = false;
  group_of[ifx] = 0;
}

// A join that ran out of memory changed nothing when it was the member entry's turn; afterwards the member entry names
// the new group already, in whose list it does not stand.
void model_failed_join(uint32_t ifx, uint32_t group_id) {
  if (group_of[ifx] == 0 && find_member(ifx) == nullptr) return;
  if (group_of[ifx] != group_id) model_depart(ifx);
  group_of[ifx] = group_id;
  groups[group_id].exists |= find_group(group_id) != nullptr;
}

void model_join(uint32_t ifx, uint32_t group_id) {
  if (group_of[ifx] != group_id) model_depart(ifx);
  group_of[ifx] = group_id;
  groups[group_id].exists = true;
  groups[group_id].members.push_back(ifx);
}

std::string link_text(const mtp_info *target) {
  return target == nullptr ? "" : " target of session " + std::to_string(target->session_id);
}

std::string number(const char *name, uint32_t value) {
  return value == 0 ? "" : std::string(" ") + name + '=' + std::to_string(value);
}

std::string tunnel_text(const mirror_ip_head &head) {
  return number("src_ip", head.src_ip) + number("dst_ip", head.dst_ip) + number("ttl", head.ttl) +
         number("dscp", head.dscp) + number("vrf", head.vrf);
}

std::string vlan_text(const uint32_t *words) {
  uint32_t used = MIRROR_VLAN_WORDS;
  while (used > 0 && words[used - 1] == 0) --used;
  std::string text;
  for (uint32_t i = 0; i < used; ++i) text += (i == 0 ? " vlan_map=[" : ",") + std::to_string(words[i]);
  return used == 0 ? "" : text + "]";
}

void session_text(mirror_info &session, std::vector<std::string> &lines) {
  lines.push_back("session " + std::to_string(session.session_id) + number("mod_type", session.mod_type));
  for (const src_info *entry : entries<src_info>(session.src_list))
    lines.push_back("  src" + number("s_phyid", entry->s_phyid) + number("d_phyid", entry->d_phyid) +
                    number("dir", entry->dir) + number("apply_type", entry->apply_type) +
                    number("acl_id", entry->acl_id) + vlan_text(entry->vlan_map));
  for (const dst_info *entry : entries<dst_info>(session.dst_list))
    lines.push_back("  dst" + number("dir", entry->dir) + number("acl_id", entry->acl_id) +
                    number("s_phyid", entry->s_phyid) + number("d_phyid", entry->d_phyid) +
                    number("sample_rate", entry->sample_rate));
  for (const mtp_info *entry : entries<mtp_info>(session.mtp_list))
    lines.push_back("  mtp" + number("session_id", entry->session_id) + number("d_phyid", entry->d_phyid) +
                    number("mtp_switch", entry->mtp_switch) + number("module_type", entry->module_type) +
                    number("role", entry->role) + number("mtp_type", entry->mtp_type) +
                    number("rspan_vlan", entry->rspan_vlan) + tunnel_text(entry->ip_head));
}

std::string broken_session(mirror_info &session, std::set<const mtp_info *> &targets) {
  if (!whole(session.src_list) || !whole(session.dst_list) || !whole(session.mtp_list)) return "list not whole";
  const auto of_session = entries<mtp_info>(session.mtp_list);
  targets.insert(of_session.begin(), of_session.end());
  if (of_session.size() > 1) return "two mirror targets";
  return is_empty(session) && !left_empty.contains(session.session_id) ? "no entries" : "";
}

// The first entry of the session list that targets the group.
const mtp_info *first_target(uint32_t group_id) {
  for (mirror_info *session : entries<mirror_info>(lspan_global.session_list))
    for (const mtp_info *target : entries<mtp_info>(session->mtp_list))
      if (target->module_type == U_MONITOR__MIRROR_MODULE__GROUP && ko_span_group_id(target->d_phyid) == group_id)
        return target;
  return nullptr;
}

std::string broken_group(uint32_t group_id, const group_model &model, const std::set<const mtp_info *> &targets) {
  if (ko_span_target_find({true, group_id}) != first_target(group_id)) return "not the first target is found";
  outgrb_group_info *group = find_group(group_id);
  if ((group != nullptr) != model.exists) return model.exists ? "not in the table" : "still in the table";
  if (group == nullptr) return "";
  if (group->group_id != group_id) return "under a wrong key";
  if (!whole(group->mbr_list)) return "member list not whole";
  const auto nodes = entries<outgrb_mbr_node>(group->mbr_list);
  const bool same = std::equal(nodes.begin(), nodes.end(), model.members.begin(), model.members.end(),
                               [](const outgrb_mbr_node *node, uint32_t ifx) { return node->ifx == ifx; });
  if (group->mtp_info != nullptr && !targets.contains(group->mtp_info)) return "names a mirror target that is gone";
  return same ? "" : "not the members that joined";
}

std::string broken_member(uint32_t ifx, uint32_t group_id) {
  const outgrb_mbr_info *entry = find_member(ifx);
  if (entry == nullptr) return group_id == 0 ? "" : "not in the member table";
  if (group_id == 0) return "still in the member table";
  return entry->ifx == ifx && entry->group_id == group_id ? "" : "in the member table with another group";
}

}  // namespace

void forget_daemon() {
  forget_groups();
  forget_sessions();
}

void note_saved(uint32_t session_id, bool something_failed) {
  if (!has_empty_session(session_id))
    left_empty.erase(session_id);
  else if (something_failed)
    left_empty.insert(session_id);
}

void note_membership(uint32_t ifx, uint32_t group_id, bool is_del, int32_t status) {
  groups[group_id];
  group_of[ifx];
  if (is_del || group_id == 0)
    model_leave(ifx);
  else if (status == 0)
    model_join(ifx, group_id);
  else
    model_failed_join(ifx, group_id);
}

std::vector<std::string> memory_text() {
  std::vector<std::string> lines;
  for (mirror_info *session : entries<mirror_info>(lspan_global.session_list)) session_text(*session, lines);
  for (const auto &[group_id, model] : groups) {
    outgrb_group_info *group = find_group(group_id);
    if (group == nullptr) continue;
    std::string line = "group " + std::to_string(group_id) + ':';
    for (const outgrb_mbr_node *node : entries<outgrb_mbr_node>(group->mbr_list))
      line += ' ' + std::to_string(node->ifx);
    lines.push_back(line + link_text(group->mtp_info));
  }
  for (const auto &[ifx, model] : group_of)
    if (const outgrb_mbr_info *entry = find_member(ifx))
      lines.push_back("interface " + std::to_string(ifx) + " in group " + std::to_string(entry->group_id));
  return lines;
}

std::string broken() {
  if (!whole(lspan_global.session_list)) return "session list not whole";
  std::set<const mtp_info *> targets;
  for (mirror_info *session : entries<mirror_info>(lspan_global.session_list))
    if (std::string why = broken_session(*session, targets); !why.empty())
      return "session " + std::to_string(session->session_id) + ": " + why;
  for (const auto &[group_id, model] : groups)
    if (std::string why = broken_group(group_id, model, targets); !why.empty())
      return "group " + std::to_string(group_id) + ": " + why;
  for (const auto &[ifx, group_id] : group_of)
    if (std::string why = broken_member(ifx, group_id); !why.empty())
      return "interface " + std::to_string(ifx) + ": " + why;
  return "";
}

}  // namespace driver
