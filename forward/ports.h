// Ports and the network devices behind them: what the platform file says, and what the kernel has.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "platform_config.h"

namespace ko_forward {

// How a bridge treats a port. A kernel may not know all of them.
enum port_flag { learning, locked, flood, mcast_flood, bcast_flood, n_port_flags };
enum class flag_state : int8_t { unknown = -1, off = 0, on = 1 };
using port_flags = std::array<flag_state, n_port_flags>;
inline constexpr port_flags no_flags = {flag_state::unknown, flag_state::unknown, flag_state::unknown,
                                        flag_state::unknown, flag_state::unknown};

// The queueing discipline at whose classes filters can be hung.
enum class hook_kind { none, clsact, ingress };

// A network device.
struct link {
  int index = 0;  // the kernel's, from 1 on
  std::string name;
  uint32_t mtu = 0;          // bytes
  bool is_up = false;        // it was set up
  bool has_carrier = false;  // and can send
  bool is_switched = false;  // hardware forwards what it receives, without the kernel
  int bridge = 0;            // index of the bridge that it is a port of; 0: none
  port_flags flags = no_flags;
  uint16_t untagged_vlan = 0;  // PVID of the bridge port; 0: none
  bool filters_vlans = false;  // it is a bridge that does
  hook_kind hook = hook_kind::none;
};

// By index.
using link_table = std::map<int, link>;

// A port of the platform file. Without a map of ports the port of each number is the device of that index.
struct port {
  std::string name;
  uint32_t ifx = 0;
  uint32_t phyid = 0;
  std::string device;  // empty: the one whose index is ifx
};

class port_table {
 public:
  explicit port_table(const ko_platform::config &config);

  bool has_map() const { return has_map_; }
  const std::vector<port> &all() const { return ports_; }
  // The ports with that physical id, or interface index: one, unless the platform file is wrong or does not name it.
  std::vector<const port *> with_phyid(uint32_t phyid) const;
  std::vector<const port *> with_ifx(uint32_t ifx) const;

 private:
  std::vector<const port *> with_number(uint32_t number) const;

  bool has_map_;
  std::vector<port> ports_;
  std::multimap<uint32_t, size_t> by_phyid_;
  std::map<uint32_t, size_t> by_ifx_;
  mutable std::map<uint32_t, port> numbered_;  // without a map: those that were asked for
};

// Finds the devices of ports: one look at all links, then by name.
class device_finder {
 public:
  explicit device_finder(const link_table &links);
  // Null when there is no such device.
  const link *of(const port &which) const;

 private:
  const link_table &links_;
  std::map<std::string, const link *, std::less<>> by_name_;
};

}  // namespace ko_forward
