// The forwarding side without a kernel: which frames a program takes, what records and links make of each other, and
// how filters change.
#include <gtest/gtest.h>

#include <linux/if_ether.h>

#include <cstring>
#include <functional>
#include <optional>
#include <random>

#include "acl.h"
#include "plan.h"
#include "u_monitor.pb-c.h"

namespace {

using namespace ko_forward;

// ---- programs ----

// A frame with its outermost tag beside it, or none there.
struct test_frame {
  std::vector<uint8_t> bytes;
  std::optional<uint16_t> beside;  // tag control information
};

// What the kernel answers for `code`, but for random numbers, which it takes from `dice`.
class machine {
 public:
  machine(const test_frame &frame, uint32_t dice) : frame_(frame), dice_(dice) {}

  uint32_t run(const program &code) {
    for (size_t at = 0; at < code.size(); ++at) {
      const sock_filter &is = code[at];
      const uint32_t operand = BPF_SRC(is.code) == BPF_X ? x_ : is.k;
      switch (BPF_CLASS(is.code)) {
        case BPF_LD:
          if (!load(is)) return 0;
          break;
        case BPF_LDX:
          x_ = BPF_MODE(is.code) == BPF_MSH   ? 4 * (byte(is.k) & 0xF)
               : BPF_MODE(is.code) == BPF_MEM ? cells_[is.k]
                                              : is.k;
          break;
        case BPF_ST:
          cells_[is.k] = a_;
          break;
        case BPF_STX:
          cells_[is.k] = x_;
          break;
        case BPF_ALU:
          a_ = calculate(BPF_OP(is.code), operand);
          break;
        case BPF_JMP:
          at += BPF_OP(is.code) == BPF_JA ? is.k : holds(BPF_OP(is.code), operand) ? is.jt : is.jf;
          break;
        case BPF_RET:
          return BPF_RVAL(is.code) == BPF_A ? a_ : is.k;
        default:
          (BPF_MISCOP(is.code) == BPF_TAX ? x_ : a_) = BPF_MISCOP(is.code) == BPF_TAX ? a_ : x_;
      }
    }
    ADD_FAILURE() << "the program has no end";
    return 0;
  }

 private:
  uint32_t byte(size_t at) const { return frame_.bytes.at(at); }

  bool load(const sock_filter &is) {
    const uint32_t mode = BPF_MODE(is.code);
    if (mode == BPF_IMM) return a_ = is.k, true;
    if (mode == BPF_MEM) return a_ = cells_[is.k], true;
    if (mode == BPF_LEN) return a_ = static_cast<uint32_t>(frame_.bytes.size()), true;
    switch (is.k - static_cast<uint32_t>(SKF_AD_OFF)) {
      case SKF_AD_VLAN_TAG_PRESENT:
        return a_ = frame_.beside.has_value() ? 1 : 0, true;
      case SKF_AD_VLAN_TAG:
        return a_ = frame_.beside.value_or(0), true;
      case SKF_AD_VLAN_TPID:
        return a_ = frame_.beside.has_value() ? ETH_P_8021Q : 0, true;
      case SKF_AD_RANDOM:
        return a_ = dice_, true;
      default:
        break;
    }
    const size_t from = is.k + (mode == BPF_IND ? x_ : 0);
    const size_t size = BPF_SIZE(is.code) == BPF_W ? 4 : BPF_SIZE(is.code) == BPF_H ? 2 : 1;
    if (from + size > frame_.bytes.size()) return false;
    a_ = 0;
    for (size_t i = 0; i < size; ++i) a_ = a_ << 8 | byte(from + i);
    return true;
  }

  uint32_t calculate(uint32_t op, uint32_t by) const {
    switch (op) {
      case BPF_ADD:
        return a_ + by;
      case BPF_SUB:
        return a_ - by;
      case BPF_AND:
        return a_ & by;
      case BPF_OR:
        return a_ | by;
      case BPF_LSH:
        return a_ << by;
      case BPF_RSH:
        return a_ >> by;
      case BPF_MOD:
        return a_ % by;
      default:
        ADD_FAILURE() << "an operation that the test does not know: " << op;
        return 0;
    }
  }

  bool holds(uint32_t op, uint32_t than) const {
    if (op == BPF_JEQ) return a_ == than;
    if (op == BPF_JGT) return a_ > than;
    return op == BPF_JGE ? a_ >= than : (a_ & than) != 0;
  }

  const test_frame &frame_;
  uint32_t dice_;
  uint32_t a_ = 0;
  uint32_t x_ = 0;
  uint32_t cells_[BPF_MEMWORDS] = {};
};

bool takes(const program &code, const test_frame &frame, uint32_t dice = 0) {
  return machine(frame, dice).run(code) != 0;
}

// A UDP datagram to `to` with these tags before it; the first one beside it when `has_beside`.
test_frame datagram(uint16_t to, const std::vector<std::pair<uint16_t, uint16_t>> &tags, bool has_beside) {
  test_frame frame{std::vector<uint8_t>(12, 2), std::nullopt};
  const auto half = [&frame](uint16_t value) {
    frame.bytes.push_back(static_cast<uint8_t>(value >> 8));
    frame.bytes.push_back(static_cast<uint8_t>(value));
  };
  for (size_t i = 0; i < tags.size(); ++i) {
    if (i == 0 && has_beside)
      frame.beside = tags[i].second;
    else
      half(tags[i].first), half(tags[i].second);
  }
  half(ETH_P_IP);
  for (const uint16_t value : {0x4500, 60, 0, 0, 0x4011, 0, 0x0A00, 1, 0x0A00, 2, 4000})
    half(static_cast<uint16_t>(value));
  half(to);
  frame.bytes.resize(frame.bytes.size() + 30);
  return frame;
}

vlan_set random_map(std::mt19937 &random, uint32_t how) {
  vlan_set vlans;
  const uint32_t grain = 1U << how % 7;  // runs of that length at least
  for (uint32_t first = 0; first < vlans.size(); first += grain)
    if (random() % 3 == 0)
      for (uint32_t i = 0; i < grain; ++i) vlans.set(first + i);
  return vlans;
}

void check_map(const vlan_set &vlans, uint16_t untagged_vlan) {
  const program code = make_program({.vlans = &vlans, .untagged_vlan = untagged_vlan});
  EXPECT_LE(code.size(), 700U);
  const bool untagged = untagged_vlan != 0 && vlans[untagged_vlan];
  EXPECT_EQ(untagged, takes(code, datagram(1, {}, false)));
  for (uint32_t vlan = 0; vlan < vlans.size(); ++vlan) {
    const auto tag = static_cast<uint16_t>(0xE000 | vlan);  // with a priority
    const bool wanted = vlan == 0 ? untagged : vlans[vlan];
    ASSERT_EQ(wanted, takes(code, datagram(1, {{ETH_P_8021Q, tag}}, true))) << vlan;
    ASSERT_EQ(wanted, takes(code, datagram(1, {{ETH_P_8021Q, tag}}, false))) << vlan;
    ASSERT_EQ(wanted, takes(code, datagram(1, {{ETH_P_8021AD, tag}, {ETH_P_8021Q, 9}}, false))) << vlan;
  }
}

TEST(programs, take_exactly_the_vlans_of_any_map) {
  std::mt19937 random(7);
  for (uint32_t i = 0; i < 28; ++i) check_map(random_map(random, i), static_cast<uint16_t>(i % 3 * 5));
  vlan_set one;
  check_map(one, 1);
  check_map(one.set(4095), 4095);
  check_map(one.flip(), 1);
  check_map(one.set(), 0);
}

TEST(programs, sample_by_the_remainder_of_a_random_number) {
  for (const uint32_t rate : {0U, 1U, 2U, 7U, 0xFFFFFFFFU}) {
    const program code = make_program({.sample_rate = rate});
    for (const uint32_t dice : {0U, 1U, 6U, 7U, 14U, 0xFFFFFFFFU})
      EXPECT_EQ(rate < 2 || dice % rate == 0, takes(code, datagram(1, {}, false), dice)) << rate << " " << dice;
  }
}

struct acl_case {
  const char *expression;
  std::string taken;  // of the frames below, + or - for each; or why the expression is refused
};

// Untagged to port 53 and to 54, then VLAN 5 to 53: tag beside it, and in it; VLAN 6 to 53: beside, in; two tags, the
// outer one beside, and in.
const test_frame acl_frames[] = {
    datagram(53, {}, false),
    datagram(54, {}, false),
    datagram(53, {{ETH_P_8021Q, 5}}, true),
    datagram(53, {{ETH_P_8021Q, 5}}, false),
    datagram(53, {{ETH_P_8021Q, 6}}, true),
    datagram(53, {{ETH_P_8021Q, 6}}, false),
    datagram(53, {{ETH_P_8021AD, 5}, {ETH_P_8021Q, 6}}, true),
    datagram(53, {{ETH_P_8021AD, 5}, {ETH_P_8021Q, 6}}, false),
};

const acl_case acl_cases[] = {
    {"udp port 53", "+-++++--"},
    {"not udp port 53", "-+----++"},
    {"udp and not port 53", "-+------"},
    {"vlan", "--++++++"},
    {"not vlan", "++------"},
    {"vlan 5", "--++--++"},
    {"vlan 5 and udp port 53", "--++----"},
    {"vlan 5 and vlan 6", "------++"},
    {"vlan 5 and vlan 6 and udp port 53", "------++"},
    {"ether host 02:02:02:02:02:02", "++++++++"},
    {"ether proto 0x8100", "------++"},
    {"udp[4:2] > 7", "--------"},
    {"", "++++++++"},
    {"udp port", "syntax error"},
    {"ether[ip[0] & 0xf] = 2", "computes the offset"},
    {"ether[11:2] = 3", "before and behind"},
    {"vlan and ether[15] = 5", "other pieces"},
};

TEST(programs, an_acl_means_the_same_wherever_the_tag_is) {
  for (const acl_case &at : acl_cases) {
    std::string taken;
    try {
      const std::string expression = at.expression;
      const program code = make_program({.acl = &expression});
      for (const test_frame &frame : acl_frames) taken += takes(code, frame) ? '+' : '-';
      EXPECT_EQ(at.taken, taken) << at.expression;
    } catch (const acl_error &error) {
      EXPECT_NE(std::string::npos, std::string(error.what()).find(at.taken)) << at.expression << ": " << error.what();
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
  for (const bool filters : {false, true}) {
    world in;
    in.device("br0", 20).filters_vlans = filters;
    in.links[11].bridge = 20;
    in.links[11].untagged_vlan = 5;
    in.member(1, 101, 105, 1, by_vlan);
    program_cache programs;
    const wanted what = make_wanted(in.from, port_table(in.config), in.links, in.config.acls, programs);
    const program &code = *what.filters.at({11, dir_rx}).begin()->second.code;
    EXPECT_EQ(filters, takes(code, datagram(1, {}, false)));
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

// ---- messages ----

TEST(messages, a_filter_is_read_as_it_was_written) {
  std::map<mark, wanted_filter> wanted = {{mark_of(some_member), copies_to({4, 5, 6})}};
  const filter_plan plan = plan_filters({3, dir_tx}, wanted, {}, pref);
  const request bytes = put_filter({3, dir_tx}, plan.changes.at(0).what, true);
  size_t n = 0;
  for_each_message(bytes, [&](const nlmsghdr &from) {
    const auto read = read_filter(from);
    ASSERT_TRUE(read.has_value());
    EXPECT_TRUE(read->is_own && read->is_sound && read->is_replaceable);
    EXPECT_EQ((place{3, dir_tx}), read->at);
    place_filters in;
    in.own.emplace(place_filters::key{0, pref, read->what.handle}, *read);
    EXPECT_TRUE(plan_filters({3, dir_tx}, wanted, in, pref).changes.empty());
    ++n;
  });
  EXPECT_EQ(1U, n);
}

}  // namespace
