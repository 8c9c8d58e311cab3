// rtnetlink's messages: what this program asks of the kernel, and what the kernel says. Over buffers, without sockets.
#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "ports.h"
#include "program.h"
#include "wanted.h"

namespace ko_forward {

// ---- what filters are made of ----

inline constexpr size_t most_actions = 32;  // of a filter

// One action of a filter: a copy to a link.
struct copy_action {
  int target = 0;        // index of the link; 0: it is gone
  uint32_t number = 0;   // the kernel's, which counts with it; 0 in a request: a new one
  bool is_last = false;  // after it the classification goes on with the next filter; else with the next action
  mark marked{};
  uint64_t packets = 0;  // that came to it
  uint64_t bytes = 0;    // of whole frames, without the VLAN tag where the kernel keeps that beside
  uint64_t lost = 0;     // packets of these that the target did not take
};

struct filter {
  uint32_t pref = 0;
  uint32_t handle = 0;
  program code;
  std::vector<copy_action> actions;
};

// A filter as the kernel has it.
struct kernel_filter {
  place at;
  uint32_t chain = 0;
  filter what;
  bool is_own = false;          // one of its actions carries this program's mark
  bool is_replaceable = false;  // its kind and protocol are those of this program's filters
  bool is_sound = false;        // so is all else that `what` does not tell
};

// ---- requests, without sequence numbers ----

using request = std::vector<uint8_t>;

request ask_links();
request ask_bridge_ports();
request ask_hooks();
request ask_filters(const place &at);
request make_hook(int ifindex);    // clsact; fails where there is any hook
request remove_hook(int ifindex);  // clsact, with all its filters
// A fresh filter must not be there yet; else it takes the place of the one with its pref and handle.
request put_filter(const place &at, const filter &what, bool fresh);
request remove_filter(const kernel_filter &which);
// Sets those flags of a bridge port that are known; with `flush`, its dynamic entries are forgotten as well.
request set_port(int ifindex, const port_flags &flags, bool flush);

// ---- news ----

struct link_news {
  bool is_gone = false;    // the link; of a bridge's view: it is no port any more
  bool of_bridge = false;  // a bridge's view of its port: only index, flags and untagged_vlan tell something
  bool has_vlans = false;  // untagged_vlan tells something
  link what;               // but for its hook
};

struct hook_news {
  int ifindex = 0;
  hook_kind hook = hook_kind::none;
};

// Each gives nothing for a message of another kind, or one that cannot be read.
std::optional<link_news> read_link(const nlmsghdr &from);
std::optional<hook_news> read_hook(const nlmsghdr &from);        // the answer to ask_hooks
std::optional<kernel_filter> read_filter(const nlmsghdr &from);  // at places where this program has filters
std::optional<int> read_tc_link(const nlmsghdr &from);  // the link that a message on qdiscs or filters is about

// The outcome of a request: 0 or an errno number, and the kernel's words for it.
struct outcome {
  int code = 0;
  std::string text;
};
std::optional<outcome> read_outcome(const nlmsghdr &from);

// Calls `take` for every whole message in `bytes`.
void for_each_message(std::span<const uint8_t> bytes, const std::function<void(const nlmsghdr &)> &take);

}  // namespace ko_forward
