#include "reconcile.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "forward_log.h"

namespace ko_forward {
namespace {

constexpr int most_passes = 3;  // of one reconciliation, while others change what was just read

constexpr port_flags quiet_flags = {flag_state::off, flag_state::on, flag_state::off, flag_state::off, flag_state::off};

// The flags that have to be set to come from `now` to `target`; those that the kernel does not know stay unknown.
port_flags difference(const port_flags &now, const port_flags &target) {
  port_flags out = no_flags;
  for (size_t i = 0; i < out.size(); ++i)
    if (now[i] != flag_state::unknown && target[i] != flag_state::unknown && now[i] != target[i]) out[i] = target[i];
  return out;
}

counts counts_of(const copy_action &action) { return {action.packets, action.bytes, action.lost}; }

std::string reason_of(const outcome &what) {
  if (what.code == EPERM) return "Operation not permitted, as this program lacks CAP_NET_ADMIN";
  return what.text.empty() ? std::strerror(what.code) : what.text;
}

}  // namespace

counts &counts::operator+=(const counts &more) {
  packets += more.packets;
  bytes += more.bytes;
  lost += more.lost;
  return *this;
}

reconciler::reconciler(const ko_platform::config &settings)
    : settings_(settings), ports_(settings), saved_(settings.forward.saved_flags) {}

std::vector<wanted_member> reconciler::run(const records &from, const std::set<uint32_t> &flushes) {
  wanted target;
  std::set<uint32_t> to_flush = flushes;
  for (int i = 0; i < most_passes; ++i) {
    kernel_.refresh();
    keep_lost_counts();
    target = make_wanted(from, ports_, kernel_.links(), settings_.acls, programs_);
    failures_.clear();
    failure_.clear();
    pass(target, std::exchange(to_flush, {}));
    if (!kernel_.take_news()) break;
  }
  answer(target);
  members_.clear();
  for (const wanted_member &member : target.members) members_.emplace(member.marked, member.key);
  std::erase_if(counted_before_, [this](const auto &entry) { return !members_.contains(entry.first); });
  return std::move(target.members);
}

// The order: a target is quiet before copies come, and until the last has come; a filter that changes is never away;
// new ones are there before old ones go.
void reconciler::pass(const wanted &target, const std::set<uint32_t> &flushes) {
  quiet_ports(target, flushes);
  make_hooks(target);
  change_filters(target);
  give_ports_back(target.quiet);
}

// ---- ports ----

// What a port's flags were is kept before they are changed. Without that they are left alone.
void reconciler::quiet_ports(const wanted &target, const std::set<uint32_t> &flushes) {
  saved_state state = saved_.state();
  std::map<int, port_change> changes;
  for (const int index : target.quiet) {
    const link &port = kernel_.links().at(index);
    const port_flags change = difference(port.flags, quiet_flags);
    if (port.bridge == 0 || change == no_flags) continue;
    changes[index] = {index, change, true};
    const auto kept = state.ports.find(index);
    if (kept == state.ports.end() || kept->second.bridge != port.bridge)
      state.ports.insert_or_assign(index, saved_port{port.name, port.bridge, port.flags});
  }
  if (!saved_.keep(state)) {
    fail("what ports were before cannot be kept, and so their learning stays on");
    changes.clear();
  }
  if (!flushes.empty()) add_flushes(flushes, changes);
  set_ports(changes);
}

void reconciler::add_flushes(const std::set<uint32_t> &flushes, std::map<int, port_change> &changes) const {
  const device_finder devices(kernel_.links());
  for (const uint32_t ifx : flushes) {
    for (const port *at : ports_.with_ifx(ifx)) {
      const link *device = devices.of(*at);
      if (device != nullptr && device->bridge != 0)
        changes.try_emplace(device->index, port_change{device->index, no_flags, true});
    }
  }
}

// Returns the links at which it could not be done.
std::set<int> reconciler::set_ports(const std::map<int, port_change> &changes) {
  std::set<int> failed;
  std::vector<port_change> list;
  list.reserve(changes.size());
  for (const auto &[index, change] : changes) list.push_back(change);
  const std::vector<outcome> outcomes = kernel_.set_ports(list);
  for (size_t i = 0; i < list.size(); ++i) {
    if (outcomes[i].code == 0) continue;
    failed.insert(list[i].ifindex);
    fail("the learning of " + name_of(list[i].ifindex) +
         " cannot be switched, or its addresses be flushed: " + reason_of(outcomes[i]));
  }
  return failed;
}

void reconciler::give_ports_back(const std::set<int> &quiet) {
  saved_state state = saved_.state();
  std::map<int, port_change> changes;
  std::set<int> done;
  for (const auto &[index, port] : state.ports) {
    const auto found = kernel_.links().find(index);
    const bool is_there = found != kernel_.links().end() && found->second.bridge == port.bridge;
    if (is_there && quiet.contains(index)) continue;
    done.insert(index);
    const port_flags change = is_there ? difference(found->second.flags, port.flags) : no_flags;
    if (change != no_flags) changes[index] = {index, change, false};
  }
  const std::set<int> failed = set_ports(changes);
  std::erase_if(state.ports, [&](const auto &at) { return done.contains(at.first) && !failed.contains(at.first); });
  saved_.keep(state);
}

// ---- hooks and filters ----

void reconciler::make_hooks(const wanted &target) {
  std::vector<int> links;
  saved_state state = saved_.state();
  std::erase_if(state.hooks, [this](const auto &hook) { return !kernel_.links().contains(hook.first); });
  for (const auto &[at, filters] : target.filters) {
    const link &port = kernel_.links().at(at.ifindex);
    if (port.hook != hook_kind::none || (!links.empty() && links.back() == at.ifindex)) continue;
    links.push_back(at.ifindex);
    state.hooks.insert_or_assign(at.ifindex, port.name);
  }
  if (links.empty()) return;
  saved_.keep(state);
  const std::vector<outcome> outcomes = kernel_.make_hooks(links);
  for (size_t i = 0; i < links.size(); ++i) {
    if (outcomes[i].code == 0) continue;
    state.hooks.erase(links[i]);  // another's
    if (outcomes[i].code == EEXIST) continue;
    for (const uint32_t dir : {dir_rx, dir_tx}) {
      const auto filters = target.filters.find({links[i], dir});
      if (filters == target.filters.end()) continue;
      outcome why = outcomes[i];
      if (why.code == ENOENT) why = {EOPNOTSUPP, "the kernel has no clsact qdisc: " + reason_of(outcomes[i])};
      for (const auto &[marked, filter] : filters->second) note_failure(filters->first, marked, why);
    }
  }
  saved_.keep(state);
}

void reconciler::change_filters(const wanted &target) {
  static const std::map<mark, wanted_filter> none;
  std::set<place> places;
  for (const auto &[at, filters] : target.filters) places.insert(at);
  for (const auto &[at, filters] : kernel_.filters())
    if (!filters.own.empty()) places.insert(at);

  filter_plan all;
  for (const place &at : places) {
    if (kernel_.links().at(at.ifindex).hook == hook_kind::none) continue;
    const auto filters = target.filters.find(at);
    const std::map<mark, wanted_filter> &here = filters == target.filters.end() ? none : filters->second;
    filter_plan plan = plan_filters(at, here, kernel_.filters_at(at), settings_.forward.pref);
    if (plan.replaces() || !plan.gone.empty()) {
      kernel_.read_place(at);
      plan = plan_filters(at, here, kernel_.filters_at(at), settings_.forward.pref);
    }
    std::move(plan.changes.begin(), plan.changes.end(), std::back_inserter(all.changes));
    std::move(plan.gone.begin(), plan.gone.end(), std::back_inserter(all.gone));
  }
  put_filters(all.changes);
  remove_filters(all.gone);
}

void reconciler::put_filters(const std::vector<filter_change> &changes) {
  if (changes.empty()) return;
  keep_lost_counts();
  for (const filter_change &change : changes) {
    const auto &own = kernel_.filters_at(change.at).own;
    const auto old = own.find({0, change.what.pref, change.what.handle});
    if (old != own.end()) keep_counts(old->second, change.what.actions);
  }
  const std::vector<outcome> outcomes = kernel_.put(changes);
  for (size_t i = 0; i < changes.size(); ++i) {
    outcome why = outcomes[i];
    if (why.code == 0) continue;
    // What a new filter needs and the kernel does not find is a part of itself.
    if (why.code == ENOENT) why = {EOPNOTSUPP, "the kernel lacks cls_bpf or act_mirred: " + reason_of(outcomes[i])};
    note_failure(changes[i].at, mark_in(changes[i].what), why);
  }
}

void reconciler::remove_filters(const std::vector<kernel_filter> &gone) {
  if (gone.empty()) return;
  for (const kernel_filter &old : gone) keep_counts(old, {});
  const std::vector<outcome> outcomes = kernel_.remove(gone);
  for (size_t i = 0; i < gone.size(); ++i) {
    if (outcomes[i].code == 0 || outcomes[i].code == ENOENT) continue;
    fail("a filter of " + name_of(gone[i].at.ifindex) + " cannot be taken away: " + reason_of(outcomes[i]));
  }
}

// ---- answers ----

void reconciler::fail(std::string what) {
  if (failure_.empty()) failure_ = std::move(what);
}

std::string reconciler::name_of(int ifindex) const {
  const auto link = kernel_.links().find(ifindex);
  return link == kernel_.links().end() ? "a port that is gone" : link->second.name;
}

void reconciler::note_failure(const place &at, const mark &marked, const outcome &what) {
  fail("a filter of " + name_of(at.ifindex) + " cannot be set: " + reason_of(what));
  failures_.insert_or_assign({at, marked}, what);
}

void reconciler::answer(wanted &target) const {
  for (wanted_member &member : target.members) {
    for (const place &at : member.places) {
      const auto failed = failures_.find({at, member.marked});
      if (failed == failures_.end() || member.answer.code != 0) continue;
      member.answer.code = failed->second.code;
      member.answer.reason = name_of(at.ifindex) + ": " + reason_of(failed->second);
    }
  }
}

// ---- counts ----

// Adds what the actions of `old` have counted that are not among `kept`.
void reconciler::keep_counts(const kernel_filter &old, const std::vector<copy_action> &kept) {
  for (const copy_action &action : old.what.actions) {
    const bool stays = std::any_of(kept.begin(), kept.end(),
                                   [&](const copy_action &at) { return at.number != 0 && at.number == action.number; });
    if (!stays) counted_before_[mark_in(old.what)] += counts_of(action);
  }
}

void reconciler::keep_lost_counts() {
  for (const copy_action &action : kernel_.take_lost()) counted_before_[action.marked] += counts_of(action);
}

std::vector<member_counts> reconciler::count() {
  std::map<mark, counts> sums;
  std::vector<place> places;
  for (const auto &[at, filters] : kernel_.filters())
    if (!filters.own.empty()) places.push_back(at);
  for (const place &at : places) {
    kernel_.read_place(at);
    for (const auto &[key, filter] : kernel_.filters_at(at).own)
      for (const copy_action &action : filter.what.actions) sums[mark_in(filter.what)] += counts_of(action);
  }
  keep_lost_counts();
  for (const auto &[marked, before] : counted_before_) sums[marked] += before;
  std::vector<member_counts> out;
  for (const auto &[marked, key] : members_) out.push_back({key, sums[marked]});
  return out;
}

// ---- the end ----

void reconciler::clear() {
  kernel_.refresh();
  const saved_state state = saved_.state();
  change_filters({});
  give_ports_back({});
  std::vector<int> hooks;
  for (const auto &[index, name] : state.hooks) {
    const auto found = kernel_.links().find(index);
    if (found == kernel_.links().end() || found->second.hook != hook_kind::clsact) continue;
    bool is_empty = true;
    for (const uint32_t dir : {dir_rx, dir_tx}) {
      kernel_.read_place({index, dir});
      const place_filters &left = kernel_.filters_at({index, dir});
      is_empty = is_empty && left.own.empty() && left.foreign.empty();
    }
    if (is_empty) hooks.push_back(index);
  }
  const std::vector<outcome> outcomes = kernel_.remove_hooks(hooks);
  for (size_t i = 0; i < hooks.size(); ++i)
    if (outcomes[i].code != 0)
      fail("the clsact qdisc of " + name_of(hooks[i]) + " cannot be taken away: " + reason_of(outcomes[i]));
  if (failure_.empty()) saved_.keep({});
}

}  // namespace ko_forward
