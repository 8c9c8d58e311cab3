// The input is what the store and the kernel say to the forwarding side: any records, and any netlink messages, sound
// ones and others.
//
// Whatever comes, filters copy from no link to itself and in no circle, every program is one that the kernel takes, and
// what was carried out is right the next time. A message is read within its bounds.
#include <linux/rtnetlink.h>

#include <algorithm>
#include <cstring>
#include <functional>

#include "bytes.h"
#include "plan.h"
#include "u_monitor.pb-c.h"

using namespace ko_forward;
using fuzz::must_hold;

namespace {

// ---- messages ----

void read_everything(const nlmsghdr &from) {
  read_link(from);
  read_hook(from);
  read_outcome(from);
  read_tc_link(from);
  const auto filter = read_filter(from);
  if (!filter.has_value() || !filter->is_own) return;
  place_filters in;
  in.own.emplace(place_filters::key{filter->chain, filter->what.pref, filter->what.handle}, *filter);
  const std::map<mark, wanted_filter> wanted = {
      {mark_in(filter->what), {std::make_shared<const program>(filter->what.code), {1, 2}}}};
  for (const filter_change &change : plan_filters(filter->at, wanted, in, 20).changes)
    must_hold(change.what.actions.size() == 2, "the targets are others");
}

// A message of this program's own with some of its bytes changed; or any bytes.
void read_messages(fuzz::bytes &input) {
  std::vector<uint8_t> bytes;
  if (input.one_in(2)) {
    filter what{20, 1, make_program({.sample_rate = input.below(4)}), {}};
    for (uint32_t i = input.below(40) + 1; i > 0; --i)
      what.actions.push_back({static_cast<int>(i), i, i == 1, mark_of({})});
    bytes = put_filter({1, 1 + input.below(2)}, what, true);
    for (uint32_t i = input.below(6); i > 0; --i)
      bytes[(size_t{input.next()} << 8 | input.next()) % bytes.size()] = input.next();
  } else {
    constexpr uint16_t types[] = {RTM_NEWLINK, RTM_DELLINK, RTM_NEWQDISC, RTM_NEWTFILTER, RTM_DELTFILTER, NLMSG_ERROR};
    const std::string_view rest = input.text(200);
    nlmsghdr header{};
    header.nlmsg_len = static_cast<uint32_t>(sizeof(header) + rest.size());
    header.nlmsg_type = types[input.below(6)];
    header.nlmsg_flags = input.next() % 2 == 0 ? NLM_F_ACK_TLVS : 0;
    bytes.resize(header.nlmsg_len);
    std::memcpy(bytes.data(), &header, sizeof(header));
    std::copy(rest.begin(), rest.end(), bytes.begin() + sizeof(header));
  }
  for_each_message(bytes, read_everything);
}

// ---- records ----

struct surroundings {
  ko_platform::config config;
  link_table links;
};

surroundings any_surroundings(fuzz::bytes &input) {
  surroundings out;
  out.config.has_ports = !input.one_in(8);
  out.config.acls = {{1, "udp"}, {2, "vlan 5 and tcp"}, {3, "nonsense nonsense"}, {4, ""}};
  for (uint32_t i = 1; i <= 6; ++i) {
    const uint8_t how = input.next();
    const std::string name = "p" + std::to_string(i);
    out.config.ports.push_back({name, i, how % 16 == 0 ? 0 : how % 16 == 1 ? 1 : i});
    if (how % 8 == 7) continue;
    ko_forward::link &at = out.links[static_cast<int>(i)];
    at.index = static_cast<int>(i);
    at.name = name;
    at.mtu = how % 3 == 0 ? 1500 : 1400;
    at.is_up = how % 5 != 0;
    at.has_carrier = how % 7 != 0;
    at.is_switched = how > 250;
    at.bridge = how % 4 == 0 ? 6 : 0;
    at.untagged_vlan = how;
    at.filters_vlans = how % 2 == 0;
    at.hook = static_cast<hook_kind>(how / 16 % 3);
  }
  return out;
}

uint32_t any_id(fuzz::bytes &input) {
  const uint8_t what = input.next();
  return what < 240 ? what % 8 : what < 250 ? group_tag ^ what % 3 : 0xFFFFFFFFU;
}

void change_records(fuzz::bytes &input, records &in) {
  const member_key key{input.below(4), any_id(input), any_id(input), input.below(5), input.below(5), "ko_lspan"};
  member_record record{input.next() % 8U, input.next() % 8U % 7, input.next() % 5U, 0, mark_of(key)};
  const uint8_t how = input.next();
  record.sample_rate = how % 4 == 0 ? 0xFFFFFFFF : how % 3;
  if (record.module == U_MONITOR__MIRROR_MODULE__GROUP && how % 2 == 0)
    return void(in.groups[how / 8 % 8] = 1 + how % 3);
  in.members[key] = record;
  if (how % 16 != 0) {
    in.port_sources.insert(key);
    in.acl_sources.insert(key);
    vlan_set &vlans = in.vlan_sources[key];
    for (uint32_t i = 0, at = 0; i < how; ++i, at += 1 + input.next() * 7U) vlans.set(at % vlans.size(), how % 5 != 0);
    if (how > 250) vlans.set();
  }
  if (how % 8 == 0) in.targets[{"ko_lspan", key.session, key.d_phyid}] = {how % 3 == 0, how % 2 != 0};
  if (how % 8 == 1) in.quiet.insert({key.s_phyid, "ko_lspan"});
  if (how % 32 == 2) in.members.erase(in.members.begin());
}

// As the kernel checks it: jumps go forward and stay inside, and the end is an answer.
void check_program(const program &code) {
  must_hold(!code.empty() && code.size() <= BPF_MAXINSNS, "a program of no size that the kernel takes");
  for (size_t at = 0; at < code.size(); ++at) {
    if (BPF_CLASS(code[at].code) != BPF_JMP) continue;
    const bool is_jump = BPF_OP(code[at].code) == BPF_JA;
    must_hold(at + 1 + (is_jump ? code[at].k : std::max(code[at].jt, code[at].jf)) < code.size(),
              "a jump out of the program");
  }
  must_hold(BPF_CLASS(code.back().code) == BPF_RET, "a program that does not end");
}

void check_circles(const wanted &what) {
  std::map<int, std::set<int>> sent;
  for (const auto &[at, filters] : what.filters)
    for (const auto &[marked, filter] : filters) {
      must_hold(!filter.targets.empty() && !filter.targets.contains(at.ifindex), "a copy to its own source");
      if (at.dir == dir_tx) sent[at.ifindex].insert(filter.targets.begin(), filter.targets.end());
    }
  std::set<int> open;
  const std::function<void(int)> walk = [&](int at) {
    must_hold(open.insert(at).second, "a circle of copies");
    if (sent.contains(at))
      for (const int next : sent.at(at)) walk(next);
    open.erase(at);
  };
  for (const auto &[from, to] : sent) walk(from);
}

using kernel_state = std::map<place, place_filters>;

filter_plan reach(const wanted &what, kernel_state &state) {
  filter_plan all;
  std::set<place> places;
  for (const auto &[at, filters] : what.filters) places.insert(at);
  for (const auto &[at, filters] : state) places.insert(at);
  static const std::map<mark, wanted_filter> none;
  for (const place &at : places) {
    const auto here = what.filters.find(at);
    place_filters &has = state[at];
    const filter_plan plan = plan_filters(at, here == what.filters.end() ? none : here->second, has, 20);
    for (const filter_change &change : plan.changes) {
      must_hold(change.what.actions.size() <= most_actions, "too many actions");
      kernel_filter made{at, 0, change.what, true, true, true};
      for (size_t i = 0; i < made.what.actions.size(); ++i)
        if (made.what.actions[i].number == 0) made.what.actions[i].number = static_cast<uint32_t>(i + 1);
      has.own.insert_or_assign(place_filters::key{0, change.what.pref, change.what.handle}, std::move(made));
      all.changes.push_back(change);
    }
    for (const kernel_filter &gone : plan.gone) {
      must_hold(has.own.erase({gone.chain, gone.what.pref, gone.what.handle}) == 1, "what is not there cannot go");
      all.gone.push_back(gone);
    }
  }
  return all;
}

void follow_records(fuzz::bytes &input) {
  surroundings around = any_surroundings(input);
  const port_table ports(around.config);
  records from;
  program_cache programs;
  kernel_state state;
  while (!input.empty()) {
    change_records(input, from);
    if (!input.one_in(4)) continue;
    if (input.one_in(16)) around.links.erase(static_cast<int>(input.below(8)));
    const wanted what = make_wanted(from, ports, around.links, around.config.acls, programs);
    check_circles(what);
    for (const auto &[at, filters] : what.filters)
      for (const auto &[marked, filter] : filters) check_program(*filter.code);
    reach(what, state);
    const filter_plan again = reach(what, state);
    must_hold(again.changes.empty() && again.gone.empty(), "what was carried out is not right");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz::bytes input(data, size);
  if (input.one_in(2))
    read_messages(input);
  else
    follow_records(input);
  return 0;
}
