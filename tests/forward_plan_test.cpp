// The forwarding side without a kernel: what records and links make of each other, and how filters change.
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <random>
#include <system_error>

#include "acl.h"
#include "plan.h"
#include "u_monitor.pb-c.h"

namespace {

using namespace ko_forward;

// ---- programs ----

// Whether the kernel takes these bytes, which have no tag beside them.
bool takes(const program &code, const std::string &frame) {
  int ends[2];
  const sock_fprog all{static_cast<uint16_t>(code.size()), const_cast<sock_filter *>(code.data())};
  char first = 0;
  if (socketpair(AF_UNIX, SOCK_DGRAM, 0, ends) != 0) throw std::system_error(errno, std::generic_category());
  EXPECT_EQ(0, setsockopt(ends[0], SOL_SOCKET, SO_ATTACH_FILTER, &all, sizeof(all)));
  EXPECT_EQ(static_cast<ssize_t>(frame.size()), send(ends[1], frame.data(), frame.size(), 0));
  const bool taken = recv(ends[0], &first, 1, MSG_DONTWAIT) > 0;
  close(ends[0]), close(ends[1]);
  return taken;
}

TEST(programs, refuse_what_would_depend_on_where_the_tag_is) {
  for (const auto &[expression, why] : {std::pair<std::string, const char *>{"udp port", "syntax error"},
                                        {"ether[ip[0] & 0xf] = 2", "computes the offset"},
                                        {"ether[11:2] = 3", "before and behind"},
                                        {"vlan and ether[15] = 5", "other pieces"}}) {
    try {
      make_program({.acl = &expression});
      ADD_FAILURE() << expression;
    } catch (const acl_error &error) {
      EXPECT_NE(std::string::npos, std::string(error.what()).find(why)) << expression << ": " << error.what();
    }
  }
}

// ---- records to filters ----

// Ports ge1 to ge5 with interface indexes 1 to 5, physical ids from 101 and links from 11; and some that are not so.
struct world {
  ko_platform::config config;
  link_table links;
  records from;

  world() {
    config.has_ports = true;
    for (uint32_t i = 1; i <= 5; ++i) {
      const std::string name = "ge" + std::to_string(i);
      config.ports.push_back({name, i, 100 + i});
      device(name, static_cast<int>(10 + i));
    }
    config.ports.push_back({"away", 6, 106});
    config.ports.push_back({"zero", 7, 0});
    config.ports.push_back({"twin1", 8, 108});
    config.ports.push_back({"twin2", 9, 108});
    config.acls = {{7, "udp"}, {8, "nonsense nonsense"}};
  }

  ko_forward::link &device(const std::string &name, int index) {
    ko_forward::link &made = links[index];
    made.index = index;
    made.name = name;
    made.mtu = 1500;
    made.is_up = made.has_carrier = true;
    return made;
  }

  void member(uint32_t session, uint32_t s, uint32_t d, uint32_t dir, member_record record = {}, uint32_t acl = 0) {
    const member_key key{session, s, d, dir, acl, "ko_lspan"};
    record.marked = mark_of(key);
    from.members[key] = record;
    from.port_sources.insert(key);
    from.acl_sources.insert(key);
    from.vlan_sources[key].set(5);
  }
  void group(uint32_t session, uint32_t s, uint32_t id, uint32_t dir) {
    member(session, s, id ^ group_tag, dir, {.module = U_MONITOR__MIRROR_MODULE__GROUP});
  }
};

std::string name_of(const world &in, int index) {
  const auto found = in.links.find(index);
  return found == in.links.end() ? "?" : found->second.name;
}

// One line for each filter, each answer and each quiet port.
std::string to_lines(const world &in) {
  program_cache programs;
  const wanted what = make_wanted(in.from, port_table(in.config), in.links, in.config.acls, programs);
  std::string out;
  for (const auto &[at, filters] : what.filters) {
    for (const auto &[marked, filter] : filters) {
      out += name_of(in, at.ifindex) + (at.dir == dir_rx ? " rx" : " tx");
      for (const int target : filter.targets) out += " " + name_of(in, target);
      out += "\n";
    }
  }
  for (const wanted_member &member : what.members) {
    for (const result_key &key : member.results)
      out += std::to_string(key.session) + ":" + std::to_string(key.s_ifx) + ":" + std::to_string(key.d_ifx) + " ";
    out += (member.answer.code == 0 ? "ok" : strerrorname_np(member.answer.code)) + std::string(" ") +
           member.answer.reason + "\n";
    for (const std::string &warning : member.warnings) out += "! " + warning + "\n";
  }
  for (const int index : what.quiet) out += "quiet " + name_of(in, index) + "\n";
  return out;
}

struct wanted_case {
  const char *name;
  std::function<void(world &)> set;
  const char *lines;
};

constexpr member_record by_acl = {.apply = U_MONITOR__MIRROR_TYPE__POLICY};
constexpr member_record by_vlan = {.apply = U_MONITOR__MIRROR_TYPE__VLAN};

const wanted_case wanted_cases[] = {
    {"both directions", [](world &w) { w.member(1, 101, 105, 3); }, "ge1 rx ge5\nge1 tx ge5\n1:1:5 ok \n"},
    {"waits for the source of its kind",
     [](world &w) {
       w.member(1, 101, 105, 1, by_acl, 7);
       w.from.acl_sources.clear();
     },
     ""},
    {"a source without its destination", [](world &w) { w.member(1, 101, 105, 1), w.from.members.clear(); }, ""},
    {"no such device", [](world &w) { w.member(1, 101, 106, 1), w.member(2, 106, 105, 1); },
     "1:1:6 ENODEV no such device (away)\n2:6:5 ENODEV no such device (away)\n"},
    {"a target that is down", [](world &w) { w.member(1, 101, 105, 1), w.links[15].is_up = false; },
     "ge1 rx ge5\n1:1:5 ENETDOWN ge5 is down\n"},
    {"what there is not",
     [](world &w) {
       w.member(1, 101, 105, 0), w.member(2, 101, 105, 4), w.member(3, 101, 105, 1, {.role = 2});
       w.member(4, 101, 105, 1, {.role = 6}), w.member(5, 101, 105, 1, {.apply = 4}), w.member(6, 0, 105, 1);
       w.member(7, 101, 0, 1), w.member(8, 101, 105, 1, by_acl, 9), w.member(9, 101, 105, 1, by_acl, 8);
     },
     "1:1:5 EINVAL direction 0 is unknown\n2:1:5 EINVAL direction 4 is unknown\n"
     "3:1:5 EOPNOTSUPP copies are made for local targets only, and role 2 is one of a remote target\n"
     "4:1:5 EINVAL role 6 is unknown\n5:1:5 EINVAL apply type 4 is unknown\n"
     "6:0:5 6:7:5 EINVAL there is no source port\n7:1:0 7:1:7 EINVAL there is no target\n"
     "8:1:5 EOPNOTSUPP ACL 9 is not in the platform file\n9:1:5 EINVAL ACL 8 cannot be used: can't parse filter "
     "expression: syntax error\n"},
    {"a physical id of no port, of two and 0 beside a port that has it",
     [](world &w) { w.member(1, 101, 199, 1), w.member(2, 108, 105, 1), w.member(3, 0, 105, 1, by_vlan); },
     "EINVAL physical id 199 belongs to no port of the platform file\n"
     "2:8:5 2:9:5 EINVAL physical id 108 belongs to 2 ports of the platform file\n"
     "3:0:5 3:7:5 EINVAL no port and the port zero both have physical id 0\n"},
    {"a group, with one that is away, and with its source",
     [](world &w) {
       w.group(1, 101, 9, 1), w.group(2, 102, 9, 1);
       w.from.groups = {{3, 9}, {6, 9}, {4, 9}, {5, 8}, {1, 9}};
     },
     "ge1 rx ge3 ge4\nge2 rx ge1 ge3 ge4\n1:1:9 ENODEV no such device (away)\n2:2:9 ENODEV no such device (away)\n"},
    {"an empty group", [](world &w) { w.group(1, 101, 9, 1); }, "1:1:9 ok \n"},
    {"VLANs of all ports, less the session's targets",
     [](world &w) {
       std::erase_if(w.config.ports, [](const auto &port) { return port.phyid == 0; });
       w.member(1, 0, 105, 1, by_vlan), w.member(1, 101, 104, 1, by_vlan);
     },
     "ge1 rx ge4\nge1 rx ge5\nge2 rx ge5\nge3 rx ge5\n1:0:5 ok \n1:1:4 ok \n"},
    {"circles: of one port, of two, of three; what is received goes round nowhere",
     [](world &w) {
       w.member(1, 101, 101, 1), w.member(2, 101, 102, 2), w.member(3, 102, 103, 3), w.member(4, 103, 101, 3);
       w.member(5, 102, 101, 1);
     },
     "ge1 tx ge2\nge2 rx ge1\nge2 rx ge3\nge2 tx ge3\nge3 rx ge1\n1:1:1 ELOOP ge1 is source and target\n2:1:2 ok \n"
     "3:2:3 ok \n4:3:1 ELOOP copies of what ge3 sends would come back to it through ge1\n5:2:1 ok \n"},
    {"a foreign ingress qdisc", [](world &w) { w.member(1, 101, 105, 3), w.links[11].hook = hook_kind::ingress; },
     "ge1 rx ge5\n1:1:5 EBUSY ge1 has an ingress qdisc of somebody else's, and so nothing that it sends can be "
     "copied\n"},
    {"hardware", [](world &w) { w.member(1, 101, 105, 1), w.links[11].is_switched = true; },
     "1:1:5 EOPNOTSUPP hardware forwards what ge1 receives, where no filter sees it\n"},
    {"a smaller MTU", [](world &w) { w.member(1, 101, 105, 1), w.links[15].mtu = 1400; },
     "ge1 rx ge5\n1:1:5 ok \n! copies of frames that ge5 cannot send are lost: its MTU is 1400, and that of ge1 is "
     "1500\n"},
    {"quiet: by its record, by a session, by a group's session, and not by one that is over",
     [](world &w) {
       w.member(1, 106, 102, 1), w.member(2, 106, 103, 1), w.group(3, 106, 9, 1);
       w.from.quiet = {{1, "ko_lspan"}, {99, "ko_lspan"}};
       w.from.targets = {{{"ko_lspan", 1, 102}, {false, false}},
                         {{"ko_lspan", 2, 103}, {false, true}},
                         {{"ko_lspan", 3, 9 ^ group_tag}, {true, false}},
                         {{"ko_lspan", 4, 105}, {false, false}}};
       w.from.groups = {{4, 9}, {5, 8}};
     },
     "1:6:2 ENODEV no such device (away)\n2:6:3 ENODEV no such device (away)\n3:6:9 ENODEV no such device (away)\n"
     "quiet ge1\nquiet ge2\nquiet ge4\n"},
    {"no map of ports: an index is the kernel's",
     [](world &w) {
       w.config.has_ports = false, w.config.ports.clear();
       w.member(1, 11, 15, 1), w.member(2, 11, 99, 1), w.member(3, 0, 15, 1, by_vlan);
     },
     "ge1 rx ge5\n1:11:15 ok \n2:11:99 ENODEV no such device (port 99)\n"
     "3:0:15 EINVAL all ports are meant, and the platform file names none\n"},
};

TEST(records_to_filters, table) {
  for (const wanted_case &at : wanted_cases) {
    world in;
    at.set(in);
    std::string lines = to_lines(in);
    EXPECT_EQ(at.lines, lines) << at.name;
  }
}

TEST(records_to_filters, untagged_frames_are_in_the_ports_own_vlan_where_the_bridge_filters) {
  const std::string addresses(12, 2), rest = "\x08" + std::string(60, '\0');
  for (const uint16_t own : {0, 5, 6}) {
    world in;
    in.device("br0", 20).filters_vlans = own != 0;
    in.links[11].bridge = 20;
    in.links[11].untagged_vlan = own == 0 ? 5 : own;
    in.member(1, 101, 105, 1, by_vlan);
    program_cache programs;
    const wanted what = make_wanted(in.from, port_table(in.config), in.links, in.config.acls, programs);
    const program &code = *what.filters.at({11, dir_rx}).begin()->second.code;
    EXPECT_EQ(own == 5, takes(code, addresses + rest)) << own;
    for (const char vlan : {0, 5, 6})
      EXPECT_EQ(vlan == 5 || (vlan == 0 && own == 5), takes(code, addresses + std::string{'\x81', 0, 0, vlan} + rest));
  }
}

// ---- filters to filters ----

constexpr uint32_t pref = 20;
const member_key some_member{1, 101, 105, 1, 0, "ko_lspan"};

// Filters as the kernel would hold them after `plan`.
void carry_out(const filter_plan &plan, place_filters &in) {
  static uint32_t last_number = 0;
  for (const filter_change &change : plan.changes) {
    const place_filters::key key = {0, change.what.pref, change.what.handle};
    EXPECT_EQ(change.fresh, !in.own.contains(key));
    EXPECT_FALSE(in.foreign.contains(key));
    EXPECT_LE(change.what.actions.size(), most_actions);
    kernel_filter made{change.at, 0, change.what, true, true, true};
    for (copy_action &action : made.what.actions)
      if (action.number == 0) action.number = ++last_number;
    in.own.insert_or_assign(key, made);
  }
  for (const kernel_filter &gone : plan.gone) in.own.erase({gone.chain, gone.what.pref, gone.what.handle});
}

wanted_filter copies_to(const std::set<int> &targets) {
  return {std::make_shared<const program>(make_program({})), targets};
}

std::map<int, uint32_t> numbers(const place_filters &in) {
  std::map<int, uint32_t> out;
  for (const auto &[key, filter] : in.own) {
    for (const copy_action &action : filter.what.actions) {
      EXPECT_TRUE(out.emplace(action.target, action.number).second) << "two copies to " << action.target;
      EXPECT_EQ(&action == &filter.what.actions.back(), action.is_last);
    }
  }
  return out;
}

// Whatever comes and goes, a target that stays keeps its action, but for the one that has to end a filter anew.
TEST(filters_to_filters, targets_that_stay_keep_their_actions) {
  std::mt19937 random(3);
  place_filters in;
  in.foreign = {{0, pref, 1}, {0, pref, 3}, {2, pref, 2}};
  std::set<int> targets;
  for (int turn = 0; turn < 400; ++turn) {
    for (uint32_t i = random() % 5; i > 0; --i) {
      const int target = 1 + static_cast<int>(random() % 80);
      if (random() % 2 == 0)
        targets.insert(target);
      else
        targets.erase(target);
    }
    if (turn % 50 == 49) targets.clear();
    std::map<mark, wanted_filter> wanted;
    if (!targets.empty()) wanted.emplace(mark_of(some_member), copies_to(targets));
    const std::map<int, uint32_t> before = numbers(in);
    const size_t filters_before = in.own.size();
    carry_out(plan_filters({1, dir_rx}, wanted, in, pref), in);
    const std::map<int, uint32_t> after = numbers(in);
    size_t renewed = 0;
    for (const int target : targets) {
      ASSERT_TRUE(after.contains(target));
      if (before.contains(target)) renewed += before.at(target) != after.at(target) ? 1 : 0;
    }
    EXPECT_EQ(targets.size(), after.size());
    EXPECT_LE(renewed, filters_before);
    const filter_plan again = plan_filters({1, dir_rx}, wanted, in, pref);
    EXPECT_TRUE(again.changes.empty() && again.gone.empty());
  }
}

struct spoil_case {
  const char *name;
  std::function<void(kernel_filter &)> spoil;
  bool in_place;  // else taken away and made anew
};

const spoil_case spoil_cases[] = {
    {"another program", [](kernel_filter &f) { f.what.code[0].k = 0; }, true},
    {"a longer program", [](kernel_filter &f) { f.what.code.push_back(f.what.code[0]); }, true},
    {"another target", [](kernel_filter &f) { f.what.actions[0].target = 9; }, true},
    {"a target that is gone", [](kernel_filter &f) { f.what.actions[1].target = 0; }, true},
    {"one target twice", [](kernel_filter &f) { f.what.actions[0].target = f.what.actions[1].target; }, true},
    {"it stops before its end", [](kernel_filter &f) { f.what.actions[0].is_last = true; }, true},
    {"an action without its mark", [](kernel_filter &f) { f.what.actions[1].marked = {}; }, true},
    {"what this program never makes", [](kernel_filter &f) { f.is_sound = false; }, true},
    {"another protocol", [](kernel_filter &f) { f.is_sound = f.is_replaceable = false; }, false},
    {"another chain", [](kernel_filter &f) { f.chain = 3, f.is_sound = false; }, false},
    {"another preference", [](kernel_filter &f) { f.what.pref = 21; }, false},
    {"a member that is no more",
     [](kernel_filter &f) {
       for (copy_action &action : f.what.actions) action.marked = mark_of({.session = 4, .owner = {}});
     },
     false},
};

TEST(filters_to_filters, whatever_was_spoilt_is_put_right) {
  const std::map<mark, wanted_filter> wanted = {{mark_of(some_member), copies_to({2, 3})}};
  for (const spoil_case &at : spoil_cases) {
    place_filters in;
    carry_out(plan_filters({1, dir_rx}, wanted, in, pref), in);
    kernel_filter spoilt = in.own.extract(in.own.begin()).mapped();
    at.spoil(spoilt);
    in.own.insert_or_assign({spoilt.chain, spoilt.what.pref, spoilt.what.handle}, spoilt);
    const filter_plan plan = plan_filters({1, dir_rx}, wanted, in, pref);
    EXPECT_EQ(1U, plan.changes.size()) << at.name;
    EXPECT_EQ(at.in_place, plan.replaces()) << at.name;
    EXPECT_EQ(at.in_place ? 0U : 1U, plan.gone.size()) << at.name;
    carry_out(plan, in);
    EXPECT_EQ(2U, numbers(in).size()) << at.name;
    EXPECT_TRUE(plan_filters({1, dir_rx}, wanted, in, pref).changes.empty()) << at.name;
  }
}

}  // namespace
