#include "wanted.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>

#include "u_monitor.pb-c.h"

namespace ko_forward {
namespace {

const char *name_of_dir(uint32_t dir) {
  constexpr const char *names[] = {"no direction", "rx", "tx", "both"};
  return dir <= dir_both ? names[dir] : "an unknown direction";
}

// One call of make_wanted.
class planner {
 public:
  planner(const records &from, const port_table &ports, const link_table &links, const acl_table &acls,
          program_cache &programs)
      : from_(from), ports_(ports), links_(links), acls_(acls), programs_(programs), devices_(links) {
    for (const auto &[ifx, group] : from.groups) in_group_.emplace(group, ifx);
  }

  wanted run() {
    programs_.turn();
    for (const auto &[key, record] : from_.members) plan(key, record);
    plan_quiet();
    return std::move(out_);
  }

 private:
  // A port that a member names, and its device if there is one.
  struct end {
    std::string name;
    const link *device;
  };

  void plan(const member_key &key, const member_record &record);
  bool has_source(const member_key &key, const member_record &record) const;
  void key_results(const member_key &key, bool to_group, wanted_member &member) const;
  bool is_sound(const member_key &key, const member_record &record, wanted_member &member) const;
  std::vector<end> sources_of(const member_key &key) const;
  std::vector<end> targets_of(const member_key &key, const member_record &record) const;
  std::set<int> targets_of_session(const member_key &key) const;
  bool choose(const member_key &key, const member_record &record, wanted_member &member, frame_choice &choice) const;
  void plan_source(const end &source, const std::vector<end> &targets, frame_choice choice, wanted_member &member);
  void plan_place(const end &source, uint32_t dir, const std::vector<end> &targets,
                  const std::shared_ptr<const program> &code, wanted_member &member);
  bool copies_reach(int from, int to) const;
  void plan_quiet();
  void be_quiet(const std::vector<const port *> &ports);

  static void refuse(wanted_member &member, int code, std::string reason) {
    if (member.answer.code == 0) member.answer = {code, std::move(reason)};
  }
  end end_of(const port &which) const { return {which.name, devices_.of(which)}; }

  const records &from_;
  const port_table &ports_;
  const link_table &links_;
  const acl_table &acls_;
  program_cache &programs_;
  device_finder devices_;
  std::multimap<uint32_t, uint32_t> in_group_;  // group to interface index
  std::map<int, std::set<int>> sent_copies_;    // where copies of what a link sends go, of the members so far
  wanted out_;
};

// ---- one member ----

void planner::plan(const member_key &key, const member_record &record) {
  if (!has_source(key, record)) return;
  wanted_member member;
  member.key = key;
  member.to_group = record.module == U_MONITOR__MIRROR_MODULE__GROUP;
  member.marked = record.marked;
  key_results(key, member.to_group, member);
  frame_choice choice;
  if (is_sound(key, record, member) && choose(key, record, member, choice)) {
    const std::vector<end> targets = targets_of(key, record);
    for (const end &target : targets) {
      if (target.device == nullptr)
        refuse(member, ENODEV, "no such device (" + target.name + ")");
      else if (!target.device->is_up)
        refuse(member, ENETDOWN, target.name + " is down");
      else if (!target.device->has_carrier)
        refuse(member, ENETDOWN, target.name + " has no carrier");
    }
    for (const end &source : sources_of(key)) plan_source(source, targets, choice, member);
  }
  out_.members.push_back(std::move(member));
}

// What the destination record says decides. Another source record of the same key may be left over.
bool planner::has_source(const member_key &key, const member_record &record) const {
  switch (record.apply) {
    case U_MONITOR__MIRROR_TYPE__PORT:
      return from_.port_sources.contains(key);
    case U_MONITOR__MIRROR_TYPE__POLICY:
      return from_.acl_sources.contains(key);
    default:
      return from_.vlan_sources.contains(key);
  }
}

// The keys of the results. More than one port means that one of them is meant and nobody knows which.
void planner::key_results(const member_key &key, bool to_group, wanted_member &member) const {
  const std::vector<const port *> sources = ports_.with_phyid(key.s_phyid);
  const std::vector<const port *> targets = to_group ? std::vector<const port *>{} : ports_.with_phyid(key.d_phyid);
  std::vector<uint32_t> s_ifx;
  std::vector<uint32_t> d_ifx;
  if (key.s_phyid == 0) s_ifx.push_back(0);
  for (const port *at : sources) s_ifx.push_back(at->ifx);
  if (to_group)
    d_ifx.push_back((key.d_phyid & group_tag) == group_tag ? key.d_phyid & ~group_tag : key.d_phyid);
  else if (key.d_phyid == 0)
    d_ifx.push_back(0);
  for (const port *at : targets) d_ifx.push_back(at->ifx);
  for (const uint32_t s : s_ifx)
    for (const uint32_t d : d_ifx) member.results.push_back({key.session, s, d, key.dir, key.acl_id});
}

// Whether the member says something that there is on Linux.
bool planner::is_sound(const member_key &key, const member_record &record, wanted_member &member) const {
  const bool to_group = record.module == U_MONITOR__MIRROR_MODULE__GROUP;
  const auto check_port = [&](uint32_t phyid) {
    const size_t n = ports_.with_phyid(phyid).size();
    if (n == 1) return;
    const std::string id = "physical id " + std::to_string(phyid);
    if (n == 0) refuse(member, EINVAL, id + " belongs to no port of the platform file");
    if (n > 1) refuse(member, EINVAL, id + " belongs to " + std::to_string(n) + " ports of the platform file");
  };
  if (record.role > U_MONITOR__MIRROR_ROLE__ERSPAN_DST)
    refuse(member, EINVAL, "role " + std::to_string(record.role) + " is unknown");
  else if (record.role > U_MONITOR__MIRROR_ROLE__LOCALSPAN_DST)
    refuse(member, EOPNOTSUPP,
           "copies are made for local targets only, and role " + std::to_string(record.role) +
               " is one of a remote target");
  if (key.dir == 0 || key.dir > dir_both)
    refuse(member, EINVAL, "direction " + std::to_string(key.dir) + " is unknown");
  if (record.apply > U_MONITOR__MIRROR_TYPE__VLAN_FILTER)
    refuse(member, EINVAL, "apply type " + std::to_string(record.apply) + " is unknown");
  if (key.s_phyid != 0)
    check_port(key.s_phyid);
  else if (record.apply <= U_MONITOR__MIRROR_TYPE__POLICY)
    refuse(member, EINVAL, "there is no source port");
  else if (!ports_.has_map())
    refuse(member, EINVAL, "all ports are meant, and the platform file names none");
  else if (!ports_.with_phyid(0).empty())
    refuse(member, EINVAL, "no port and the port " + ports_.with_phyid(0).front()->name + " both have physical id 0");
  if (!to_group && key.d_phyid == 0)
    refuse(member, EINVAL, "there is no target");
  else if (!to_group)
    check_port(key.d_phyid);
  return member.answer.code == 0;
}

std::vector<planner::end> planner::sources_of(const member_key &key) const {
  std::vector<end> sources;
  if (key.s_phyid != 0) {
    for (const port *at : ports_.with_phyid(key.s_phyid)) sources.push_back(end_of(*at));
    return sources;
  }
  const std::set<int> targets = targets_of_session(key);
  for (const port &at : ports_.all()) {
    const end source = end_of(at);
    if (source.device != nullptr && !targets.contains(source.device->index)) sources.push_back(source);
  }
  return sources;
}

std::vector<planner::end> planner::targets_of(const member_key &key, const member_record &record) const {
  std::vector<end> targets;
  if (record.module != U_MONITOR__MIRROR_MODULE__GROUP) {
    for (const port *at : ports_.with_phyid(key.d_phyid)) targets.push_back(end_of(*at));
    return targets;
  }
  for (auto [at, last] = in_group_.equal_range(key.d_phyid ^ group_tag); at != last; ++at) {
    const std::vector<const port *> found = ports_.with_ifx(at->second);
    for (const port *one : found) targets.push_back(end_of(*one));
    if (found.empty()) targets.push_back({"interface " + std::to_string(at->second), nullptr});
  }
  return targets;
}

std::set<int> planner::targets_of_session(const member_key &key) const {
  std::set<int> targets;
  for (auto at = from_.members.lower_bound({.session = key.session, .owner = {}}); at != from_.members.end(); ++at) {
    if (at->first.session != key.session) break;
    if (at->first.owner != key.owner) continue;
    for (const end &target : targets_of(at->first, at->second))
      if (target.device != nullptr) targets.insert(target.device->index);
  }
  return targets;
}

bool planner::choose(const member_key &key, const member_record &record, wanted_member &member,
                     frame_choice &choice) const {
  choice.sample_rate = record.sample_rate;
  if (record.apply == U_MONITOR__MIRROR_TYPE__PORT) return true;
  if (record.apply == U_MONITOR__MIRROR_TYPE__POLICY) {
    const auto acl = acls_.find(key.acl_id);
    if (acl == acls_.end()) {
      refuse(member, EOPNOTSUPP, "ACL " + std::to_string(key.acl_id) + " is not in the platform file");
      return false;
    }
    choice.acl = &acl->second;
    return true;
  }
  choice.vlans = &from_.vlan_sources.at(key);
  return true;
}

void planner::plan_source(const end &source, const std::vector<end> &targets, frame_choice choice,
                          wanted_member &member) {
  if (source.device == nullptr) return refuse(member, ENODEV, "no such device (" + source.name + ")");
  if (source.device->is_switched)
    return refuse(member, EOPNOTSUPP, "hardware forwards what " + source.name + " receives, where no filter sees it");
  const auto bridge = links_.find(source.device->bridge);
  if (bridge != links_.end() && bridge->second.filters_vlans) choice.untagged_vlan = source.device->untagged_vlan;
  std::shared_ptr<const program> code;
  try {
    code = programs_.get(choice);
  } catch (const acl_error &error) {
    return refuse(member, EINVAL, "ACL " + std::to_string(member.key.acl_id) + " cannot be used: " + error.what());
  }
  for (const end &target : targets) {
    if (target.device == nullptr || target.device->mtu >= source.device->mtu) continue;
    member.warnings.push_back("copies of frames that " + target.name + " cannot send are lost: its MTU is " +
                              std::to_string(target.device->mtu) + ", and that of " + source.name + " is " +
                              std::to_string(source.device->mtu));
  }
  for (const uint32_t dir : {dir_rx, dir_tx})
    if ((member.key.dir & dir) != 0) plan_place(source, dir, targets, code, member);
}

void planner::plan_place(const end &source, uint32_t dir, const std::vector<end> &targets,
                         const std::shared_ptr<const program> &code, wanted_member &member) {
  const int index = source.device->index;
  if (dir == dir_tx && source.device->hook == hook_kind::ingress)
    return refuse(
        member, EBUSY,
        source.name + " has an ingress qdisc of somebody else's, and so nothing that it sends " + "can be copied");
  std::set<int> to;
  for (const end &target : targets) {
    if (target.device == nullptr) continue;
    const int target_index = target.device->index;
    if (target_index == index)
      refuse(member, ELOOP, target.name + " is source and target");
    else if (dir == dir_tx && copies_reach(target_index, index))
      refuse(member, ELOOP, "copies of what " + source.name + " sends would come back to it through " + target.name);
    else
      to.insert(target_index);
  }
  if (to.empty()) return;
  if (dir == dir_tx) sent_copies_[index].insert(to.begin(), to.end());
  out_.filters[{index, dir}][member.marked] = {code, std::move(to)};
  member.places.push_back({index, dir});
}

// A copy is sent by its target, and so is copied again where what the target sends is copied.
bool planner::copies_reach(int from, int to) const {
  std::set<int> seen;
  std::vector<int> next = {from};
  while (!next.empty()) {
    const int at = next.back();
    next.pop_back();
    if (at == to) return true;
    const auto further = sent_copies_.find(at);
    if (further == sent_copies_.end() || !seen.insert(at).second) continue;
    next.insert(next.end(), further->second.begin(), further->second.end());
  }
  return false;
}

// ---- learning ----

// Two things keep a port quiet: the record of it, and any session whose target it is. Of two sessions to one port, the
// end of one takes the record away.
void planner::plan_quiet() {
  for (const auto &[ifx, who] : from_.quiet) be_quiet(ports_.with_ifx(ifx));
  std::set<target_key> used;  // a record may outlive its session
  for (const auto &[key, record] : from_.members) used.insert({key.owner, key.session, key.d_phyid});
  for (const auto &[key, target] : from_.targets) {
    if (target.learns || !used.contains(key)) continue;
    if (!target.is_group) {
      if (key.d_phyid != 0) be_quiet(ports_.with_phyid(key.d_phyid));
      continue;
    }
    for (auto [at, last] = in_group_.equal_range(key.d_phyid ^ group_tag); at != last; ++at)
      be_quiet(ports_.with_ifx(at->second));
  }
}

void planner::be_quiet(const std::vector<const port *> &ports) {
  if (ports.size() != 1) return;
  const link *device = devices_.of(*ports.front());
  if (device != nullptr) out_.quiet.insert(device->index);
}

}  // namespace

std::string name_of(const wanted_member &member, const port_table &ports) {
  const auto name = [&ports](uint32_t phyid) {
    const std::vector<const port *> found = ports.with_phyid(phyid);
    return found.size() == 1 ? found.front()->name : "physical id " + std::to_string(phyid);
  };
  const member_key &key = member.key;
  return "session " + std::to_string(key.session) + ", " + (key.s_phyid == 0 ? "all ports" : name(key.s_phyid)) +
         " -> " + (member.to_group ? "group " + std::to_string(key.d_phyid ^ group_tag) : name(key.d_phyid)) + ", " +
         name_of_dir(key.dir) + (key.acl_id == 0 ? "" : ", ACL " + std::to_string(key.acl_id));
}

size_t program_cache::key_hash::operator()(const key &what) const {
  return std::hash<vlan_set>{}(what.vlans) ^ std::hash<std::string>{}(what.acl) ^
         size_t { what.sample_rate } * 0x9E3779B9U ^ static_cast<size_t>(what.untagged_vlan) << 32;
}

void program_cache::turn() {
  before_ = std::move(now_);
  now_.clear();
}

std::shared_ptr<const program> program_cache::get(const frame_choice &choice) {
  key wanted{choice.sample_rate, choice.untagged_vlan, choice.vlans != nullptr, choice.acl != nullptr, {}, {}};
  if (choice.vlans != nullptr) wanted.vlans = *choice.vlans;
  if (choice.acl != nullptr) wanted.acl = *choice.acl;
  auto found = now_.find(wanted);
  if (found == now_.end()) {
    entry made;
    if (const auto old = before_.find(wanted); old != before_.end()) {
      made = old->second;
    } else {
      try {
        made.made = std::make_shared<const program>(make_program(choice));
      } catch (const acl_error &error) {
        made.why = error.what();
      }
    }
    found = now_.emplace(std::move(wanted), std::move(made)).first;
  }
  if (found->second.made == nullptr) throw acl_error(found->second.why);
  return found->second.made;
}

wanted make_wanted(const records &from, const port_table &ports, const link_table &links, const acl_table &acls,
                   program_cache &programs) {
  return planner(from, ports, links, acls, programs).run();
}

}  // namespace ko_forward
