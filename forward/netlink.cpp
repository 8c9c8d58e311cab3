#include "netlink.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/gen_stats.h>
#include <linux/if_bridge.h>
#include <linux/if_ether.h>
#include <linux/if_link.h>
#include <linux/pkt_cls.h>
#include <linux/rtnetlink.h>
#include <linux/tc_act/tc_mirred.h>
#include <net/if.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>

namespace ko_forward {
namespace {

constexpr size_t longest_request = size_t{64} << 10;  // a program of 4,096 instructions has 32 KiB
constexpr uint32_t hook_handle = TC_H_MAKE(TC_H_CLSACT, 0);

uint32_t parent_of(uint32_t dir) { return TC_H_MAKE(TC_H_CLSACT, dir == dir_rx ? TC_H_MIN_INGRESS : TC_H_MIN_EGRESS); }

// ---- writing ----

// A request that is being written.
class writer {
 public:
  template <class Header>
  writer(uint16_t type, uint16_t flags, const Header &header) : bytes_(longest_request) {
    message_ = mnl_nlmsg_put_header(bytes_.data());
    message_->nlmsg_type = type;
    message_->nlmsg_flags = NLM_F_REQUEST | flags;
    std::memcpy(mnl_nlmsg_put_extra_header(message_, sizeof(header)), &header, sizeof(header));
  }

  nlmsghdr *operator*() { return message_; }

  request done() {
    bytes_.resize(message_->nlmsg_len);
    return std::move(bytes_);
  }

 private:
  request bytes_;
  nlmsghdr *message_;
};

tcmsg tc_header(int ifindex, uint32_t parent, uint32_t handle = 0, uint32_t info = 0) {
  tcmsg header{};
  header.tcm_family = AF_UNSPEC;
  header.tcm_ifindex = ifindex;
  header.tcm_handle = handle;
  header.tcm_parent = parent;
  header.tcm_info = info;
  return header;
}

ifinfomsg link_header(unsigned char family, int ifindex = 0) {
  ifinfomsg header{};
  header.ifi_family = family;
  header.ifi_index = ifindex;
  return header;
}

uint32_t filter_info(uint32_t pref) { return TC_H_MAKE(pref << 16, htons(ETH_P_ALL)); }

void put_action(nlmsghdr *into, uint16_t position, const copy_action &action) {
  nlattr *outer = mnl_attr_nest_start(into, position);
  mnl_attr_put_strz(into, TCA_ACT_KIND, "mirred");
  mnl_attr_put(into, TCA_ACT_COOKIE, action.marked.size(), action.marked.data());
  nlattr *options = mnl_attr_nest_start(into, TCA_ACT_OPTIONS | NLA_F_NESTED);
  tc_mirred mirred{};
  mirred.index = action.number;
  mirred.action = action.is_last ? TC_ACT_UNSPEC : TC_ACT_PIPE;
  mirred.eaction = TCA_EGRESS_MIRROR;
  mirred.ifindex = static_cast<uint32_t>(action.target);
  mnl_attr_put(into, TCA_MIRRED_PARMS, sizeof(mirred), &mirred);
  mnl_attr_nest_end(into, options);
  mnl_attr_nest_end(into, outer);
}

// ---- reading ----

// Calls `take` for each attribute in `bytes`, up to the first that is malformed.
template <class Take>
void for_each_attribute(const void *bytes, size_t length, const Take &take) {
  const auto each = [](const nlattr *at, void *data) {
    (*static_cast<const Take *>(data))(at);
    return MNL_CB_OK;
  };
  mnl_attr_parse_payload(bytes, length, each, const_cast<Take *>(&take));
}

template <class Take>
void for_each_in(const nlattr *nested, const Take &take) {
  for_each_attribute(mnl_attr_get_payload(nested), mnl_attr_get_payload_len(nested), take);
}

constexpr size_t most_types = 64;  // of attributes; those that are asked for have lower numbers

// The attributes of one level, by type. Those that are too short for what they should hold are left out.
class attributes {
 public:
  explicit attributes(const nlattr *nested) {
    for_each_in(nested, [this](const nlattr *at) { note(at); });
  }
  attributes(const nlmsghdr &from, size_t header) {
    const size_t length = mnl_nlmsg_get_payload_len(&from);
    const size_t before = MNL_ALIGN(header);
    if (before >= length) return;
    const auto *payload = static_cast<const uint8_t *>(mnl_nlmsg_get_payload(&from));
    for_each_attribute(payload + before, length - before, [this](const nlattr *at) { note(at); });
  }

  const nlattr *operator[](size_t type) const { return found_[type]; }

  template <class Value>
  std::optional<Value> value(size_t type) const {
    const nlattr *at = found_[type];
    if (at == nullptr || mnl_attr_get_payload_len(at) < sizeof(Value)) return std::nullopt;
    Value out;
    std::memcpy(&out, mnl_attr_get_payload(at), sizeof(out));
    return out;
  }

  std::string_view text(size_t type) const {
    const nlattr *at = found_[type];
    if (at == nullptr) return {};
    const char *bytes = mnl_attr_get_str(at);
    return {bytes, strnlen(bytes, mnl_attr_get_payload_len(at))};
  }

 private:
  void note(const nlattr *at) {
    const uint16_t type = mnl_attr_get_type(at);
    if (type < found_.size()) found_[type] = at;
  }

  std::array<const nlattr *, most_types> found_{};
};

template <class Header>
std::optional<Header> header_of(const nlmsghdr &from) {
  if (mnl_nlmsg_get_payload_len(&from) < sizeof(Header)) return std::nullopt;
  Header out;
  std::memcpy(&out, mnl_nlmsg_get_payload(&from), sizeof(out));
  return out;
}

constexpr std::array<uint16_t, n_port_flags> flag_attributes = {IFLA_BRPORT_LEARNING, IFLA_BRPORT_LOCKED,
                                                                IFLA_BRPORT_UNICAST_FLOOD, IFLA_BRPORT_MCAST_FLOOD,
                                                                IFLA_BRPORT_BCAST_FLOOD};

port_flags read_flags(const nlattr *nested) {
  const attributes port(nested);
  port_flags flags = no_flags;
  for (size_t i = 0; i < flags.size(); ++i)
    if (const auto flag = port.value<uint8_t>(flag_attributes[i]))
      flags[i] = *flag != 0 ? flag_state::on : flag_state::off;
  return flags;
}

constexpr uint16_t family_part = 26;  // of a link: what its family has to say of it, here VLANs

uint16_t read_untagged_vlan(const nlattr *nested) {
  uint16_t vlan = 0;
  for_each_in(nested, [&vlan](const nlattr *at) {
    bridge_vlan_info info{};
    if (mnl_attr_get_type(at) != IFLA_BRIDGE_VLAN_INFO || mnl_attr_get_payload_len(at) < sizeof(info)) return;
    std::memcpy(&info, mnl_attr_get_payload(at), sizeof(info));
    if ((info.flags & BRIDGE_VLAN_INFO_PVID) != 0) vlan = info.vid;
  });
  return vlan;
}

// What kind of link it is, and what its master makes of it.
void read_link_info(const nlattr *nested, int master, link &into) {
  const attributes info(nested);
  if (info.text(IFLA_INFO_KIND) == "bridge" && info[IFLA_INFO_DATA] != nullptr) {
    const attributes bridge(info[IFLA_INFO_DATA]);
    into.filters_vlans = bridge.value<uint8_t>(IFLA_BR_VLAN_FILTERING).value_or(0) != 0;
  }
  if (info.text(IFLA_INFO_SLAVE_KIND) != "bridge") return;
  into.bridge = master;
  if (info[IFLA_INFO_SLAVE_DATA] != nullptr) into.flags = read_flags(info[IFLA_INFO_SLAVE_DATA]);
}

// gnet_stats_basic without the padding that older kernels do not send: bytes in two words, packets.
using basic_counts = std::array<uint32_t, 3>;

void read_counts(const nlattr *nested, copy_action &into) {
  const attributes stats(nested);
  if (const auto basic = stats.value<basic_counts>(TCA_STATS_BASIC)) {
    std::memcpy(&into.bytes, basic->data(), sizeof(into.bytes));
    into.packets = stats.value<uint64_t>(TCA_STATS_PKT64).value_or((*basic)[2]);
  }
  if (const auto queue = stats.value<gnet_stats_queue>(TCA_STATS_QUEUE)) into.lost = queue->overlimits;
}

// One action; false when it is none of this program's kind.
bool read_action(const nlattr *nested, copy_action &into) {
  const attributes action(nested);
  if (const auto marked = action.value<mark>(TCA_ACT_COOKIE);
      marked.has_value() && mnl_attr_get_payload_len(action[TCA_ACT_COOKIE]) == sizeof(mark))
    into.marked = *marked;
  if (action.text(TCA_ACT_KIND) != "mirred" || action[TCA_ACT_OPTIONS] == nullptr) return false;
  const attributes options(action[TCA_ACT_OPTIONS]);
  const auto mirred = options.value<tc_mirred>(TCA_MIRRED_PARMS);
  if (!mirred.has_value()) return false;
  into.target = static_cast<int>(mirred->ifindex);
  into.number = mirred->index;
  into.is_last = mirred->action == TC_ACT_UNSPEC;
  if (action[TCA_ACT_STATS] != nullptr) read_counts(action[TCA_ACT_STATS], into);
  return mirred->eaction == TCA_EGRESS_MIRROR && (into.is_last || mirred->action == TC_ACT_PIPE);
}

void read_program(const attributes &bpf, program &into) {
  const nlattr *code = bpf[TCA_BPF_OPS];
  if (code == nullptr) return;
  into.resize(mnl_attr_get_payload_len(code) / sizeof(sock_filter));
  std::memcpy(into.data(), mnl_attr_get_payload(code), into.size() * sizeof(sock_filter));
}

void read_bpf(const nlattr *nested, kernel_filter &into) {
  const attributes bpf(nested);
  read_program(bpf, into.what.code);
  into.is_sound = bpf[TCA_BPF_FD] == nullptr && bpf[TCA_BPF_CLASSID] == nullptr && bpf[TCA_BPF_FLAGS] == nullptr;
  if (bpf[TCA_BPF_ACT] == nullptr) return;
  for_each_in(bpf[TCA_BPF_ACT], [&into](const nlattr *at) {
    copy_action action;
    into.is_sound = read_action(at, action) && into.is_sound;
    into.is_own = into.is_own || is_own_mark(action.marked);
    into.what.actions.push_back(action);
  });
}

}  // namespace

// ---- requests ----

request ask_links() {
  writer out(RTM_GETLINK, NLM_F_DUMP, link_header(AF_UNSPEC));
  mnl_attr_put_u32(*out, IFLA_EXT_MASK, RTEXT_FILTER_SKIP_STATS);
  return out.done();
}

request ask_bridge_ports() {
  writer out(RTM_GETLINK, NLM_F_DUMP, link_header(AF_BRIDGE));
  mnl_attr_put_u32(*out, IFLA_EXT_MASK, RTEXT_FILTER_BRVLAN);
  return out.done();
}

request ask_hooks() { return writer(RTM_GETQDISC, NLM_F_DUMP, tc_header(0, 0)).done(); }

request ask_filters(const place &at) {
  return writer(RTM_GETTFILTER, NLM_F_DUMP, tc_header(at.ifindex, parent_of(at.dir))).done();
}

request make_hook(int ifindex) {
  writer out(RTM_NEWQDISC, NLM_F_CREATE | NLM_F_EXCL, tc_header(ifindex, TC_H_CLSACT, hook_handle));
  mnl_attr_put_strz(*out, TCA_KIND, "clsact");
  return out.done();
}

request remove_hook(int ifindex) {
  writer out(RTM_DELQDISC, 0, tc_header(ifindex, TC_H_CLSACT, hook_handle));
  mnl_attr_put_strz(*out, TCA_KIND, "clsact");
  return out.done();
}

request put_filter(const place &at, const filter &what, bool fresh) {
  writer out(RTM_NEWTFILTER, NLM_F_CREATE | (fresh ? NLM_F_EXCL : 0),
             tc_header(at.ifindex, parent_of(at.dir), what.handle, filter_info(what.pref)));
  mnl_attr_put_strz(*out, TCA_KIND, "bpf");
  nlattr *options = mnl_attr_nest_start(*out, TCA_OPTIONS);
  nlattr *actions = mnl_attr_nest_start(*out, TCA_BPF_ACT);
  uint16_t position = 0;
  for (const copy_action &action : what.actions) put_action(*out, ++position, action);
  mnl_attr_nest_end(*out, actions);
  mnl_attr_put_u16(*out, TCA_BPF_OPS_LEN, static_cast<uint16_t>(what.code.size()));
  mnl_attr_put(*out, TCA_BPF_OPS, what.code.size() * sizeof(sock_filter), what.code.data());
  mnl_attr_nest_end(*out, options);
  return out.done();
}

request remove_filter(const kernel_filter &which) {
  writer out(RTM_DELTFILTER, 0,
             tc_header(which.at.ifindex, parent_of(which.at.dir), which.what.handle, filter_info(which.what.pref)));
  mnl_attr_put_strz(*out, TCA_KIND, "bpf");
  mnl_attr_put_u32(*out, TCA_CHAIN, which.chain);
  return out.done();
}

request set_port(int ifindex, const port_flags &flags, bool flush) {
  writer out(RTM_SETLINK, 0, link_header(AF_BRIDGE, ifindex));
  nlattr *port = mnl_attr_nest_start(*out, IFLA_PROTINFO | NLA_F_NESTED);
  for (size_t i = 0; i < flags.size(); ++i)
    if (flags[i] != flag_state::unknown) mnl_attr_put_u8(*out, flag_attributes[i], flags[i] == flag_state::on ? 1 : 0);
  if (flush) mnl_attr_put(*out, IFLA_BRPORT_FLUSH, 0, nullptr);
  mnl_attr_nest_end(*out, port);
  return out.done();
}

// ---- news ----

std::optional<link_news> read_link(const nlmsghdr &from) {
  if (from.nlmsg_type != RTM_NEWLINK && from.nlmsg_type != RTM_DELLINK) return std::nullopt;
  const auto header = header_of<ifinfomsg>(from);
  if (!header.has_value() || header->ifi_index <= 0) return std::nullopt;
  if (header->ifi_family != AF_UNSPEC && header->ifi_family != AF_BRIDGE) return std::nullopt;
  const attributes all(from, sizeof(ifinfomsg));
  link_news news;
  news.is_gone = from.nlmsg_type == RTM_DELLINK;
  news.of_bridge = header->ifi_family == AF_BRIDGE;
  news.what.index = header->ifi_index;
  news.what.name = all.text(IFLA_IFNAME);
  news.what.mtu = all.value<uint32_t>(IFLA_MTU).value_or(0);
  news.what.is_up = (header->ifi_flags & IFF_UP) != 0;
  news.what.has_carrier = (header->ifi_flags & IFF_RUNNING) != 0;
  news.what.is_switched = all[IFLA_PHYS_SWITCH_ID] != nullptr;
  const int master = all.value<int>(IFLA_MASTER).value_or(0);
  if (news.of_bridge) {
    if (all[IFLA_PROTINFO] != nullptr) news.what.flags = read_flags(all[IFLA_PROTINFO]);
    news.has_vlans = all[family_part] != nullptr;
    if (news.has_vlans) news.what.untagged_vlan = read_untagged_vlan(all[family_part]);
  } else if (all[IFLA_LINKINFO] != nullptr) {
    read_link_info(all[IFLA_LINKINFO], master, news.what);
  }
  return news;
}

std::optional<hook_news> read_hook(const nlmsghdr &from) {
  if (from.nlmsg_type != RTM_NEWQDISC) return std::nullopt;
  const auto header = header_of<tcmsg>(from);
  if (!header.has_value() || header->tcm_parent != TC_H_CLSACT) return std::nullopt;
  const attributes all(from, sizeof(tcmsg));
  const bool is_clsact = all.text(TCA_KIND) == "clsact";
  return hook_news{header->tcm_ifindex, is_clsact ? hook_kind::clsact : hook_kind::ingress};
}

std::optional<kernel_filter> read_filter(const nlmsghdr &from) {
  if (from.nlmsg_type != RTM_NEWTFILTER && from.nlmsg_type != RTM_DELTFILTER) return std::nullopt;
  const auto header = header_of<tcmsg>(from);
  if (!header.has_value() || header->tcm_handle == 0) return std::nullopt;
  kernel_filter out;
  out.at.ifindex = header->tcm_ifindex;
  if (header->tcm_parent == parent_of(dir_rx))
    out.at.dir = dir_rx;
  else if (header->tcm_parent == parent_of(dir_tx))
    out.at.dir = dir_tx;
  else
    return std::nullopt;
  const attributes all(from, sizeof(tcmsg));
  out.chain = all.value<uint32_t>(TCA_CHAIN).value_or(0);
  out.what.pref = header->tcm_info >> 16;
  out.what.handle = header->tcm_handle;
  if (all.text(TCA_KIND) == "bpf" && all[TCA_OPTIONS] != nullptr) read_bpf(all[TCA_OPTIONS], out);
  if (out.at.dir == dir_rx)  // where the kernel counts frames without their Ethernet header
    for (copy_action &action : out.what.actions) action.bytes += action.packets * ETH_HLEN;
  const bool every_protocol = (header->tcm_info & 0xFFFF) == htons(ETH_P_ALL);
  out.is_replaceable = all.text(TCA_KIND) == "bpf" && every_protocol;
  out.is_sound = out.is_sound && out.is_replaceable;
  return out;
}

std::optional<int> read_tc_link(const nlmsghdr &from) {
  switch (from.nlmsg_type) {
    case RTM_NEWQDISC:
    case RTM_DELQDISC:
    case RTM_NEWTFILTER:
    case RTM_DELTFILTER:
    case RTM_NEWCHAIN:
    case RTM_DELCHAIN:
      break;
    default:
      return std::nullopt;
  }
  const auto header = header_of<tcmsg>(from);
  if (!header.has_value()) return std::nullopt;
  return header->tcm_ifindex;
}

std::optional<outcome> read_outcome(const nlmsghdr &from) {
  if (from.nlmsg_type != NLMSG_ERROR) return std::nullopt;
  const auto error = header_of<nlmsgerr>(from);
  if (!error.has_value()) return std::nullopt;
  outcome out{-error->error, {}};
  if ((from.nlmsg_flags & NLM_F_ACK_TLVS) == 0) return out;
  size_t before = sizeof(nlmsgerr);
  if ((from.nlmsg_flags & NLM_F_CAPPED) == 0) before += error->msg.nlmsg_len - sizeof(nlmsghdr);
  if (before > mnl_nlmsg_get_payload_len(&from)) return out;
  const attributes all(from, before);
  out.text = all.text(NLMSGERR_ATTR_MSG);
  return out;
}

// Not with libmnl, which takes a length from 2^31 on for a negative number.
void for_each_message(std::span<const uint8_t> bytes, const std::function<void(const nlmsghdr &)> &take) {
  while (bytes.size() >= sizeof(nlmsghdr)) {
    const auto &at = *reinterpret_cast<const nlmsghdr *>(bytes.data());
    if (at.nlmsg_len < sizeof(nlmsghdr) || at.nlmsg_len > bytes.size()) return;
    take(at);
    bytes = bytes.subspan(std::min<size_t>(NLMSG_ALIGN(size_t{at.nlmsg_len}), bytes.size()));
  }
}

}  // namespace ko_forward
