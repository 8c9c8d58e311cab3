#include "ports.h"

namespace ko_forward {
namespace {

port of_number(uint32_t number) { return {"port " + std::to_string(number), number, number, {}}; }

}  // namespace

port_table::port_table(const ko_platform::config &config) : has_map_(config.has_ports) {
  for (const ko_platform::port &entry : config.ports) {
    by_phyid_.emplace(entry.phyid, ports_.size());
    by_ifx_.emplace(entry.ifx, ports_.size());
    ports_.push_back({entry.name, entry.ifx, entry.phyid, entry.device.empty() ? entry.name : entry.device});
  }
}

std::vector<const port *> port_table::with_phyid(uint32_t phyid) const {
  if (!has_map_) return with_number(phyid);
  std::vector<const port *> found;
  for (auto [at, end] = by_phyid_.equal_range(phyid); at != end; ++at) found.push_back(&ports_[at->second]);
  return found;
}

std::vector<const port *> port_table::with_ifx(uint32_t ifx) const {
  if (!has_map_) return with_number(ifx);
  const auto found = by_ifx_.find(ifx);
  return found == by_ifx_.end() ? std::vector<const port *>{} : std::vector<const port *>{&ports_[found->second]};
}

std::vector<const port *> port_table::with_number(uint32_t number) const {
  if (number == 0) return {};
  const auto known = numbered_.find(number);
  return {known != numbered_.end() ? &known->second : &numbered_.emplace(number, of_number(number)).first->second};
}

device_finder::device_finder(const link_table &links) : links_(links) {
  for (const auto &[index, link] : links) by_name_.emplace(link.name, &link);
}

const link *device_finder::of(const port &which) const {
  if (which.device.empty()) {
    const auto found = links_.find(static_cast<int>(which.ifx));
    return found == links_.end() ? nullptr : &found->second;
  }
  const auto found = by_name_.find(which.device);
  return found == by_name_.end() ? nullptr : found->second;
}

}  // namespace ko_forward
