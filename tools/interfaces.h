// The interfaces that the platform file names; without a `ports` map every number is one.
#pragma once

#include <cstdint>
#include <string>

#include "platform_config.h"

namespace lspanctl {

class interfaces {
 public:
  // Borrows `settings`.
  explicit interfaces(const ko_platform::config &settings) : settings_(settings) {}

  // A number or a name to the index. "none" and 0 stand for no interface. Throws refused for one that the map does not
  // have; with `any_number`, which serves to take away what is configured already, numbers are not looked up.
  uint32_t parse(const std::string &text, bool any_number = false) const;

  // Whether a port has that name.
  bool knows(const std::string &name) const;

  // Another port with the physical id of this one, by name; empty: there is none.
  std::string twin_of(uint32_t ifx) const;

  // The physical id: without a `ports` map the index; with one, 0 for an index that it does not have.
  uint32_t phyid(uint32_t ifx) const;

  // Whether the platform file has an ACL of that number.
  bool has_acl(uint32_t id) const { return settings_.acls.contains(id); }

  // The name of its network device: the one in the platform file, else its own name, else its number.
  std::string device(uint32_t ifx) const;

  // The name where the map has one that cannot be taken for something else, else the number; "none" for 0.
  std::string text(uint32_t ifx) const;

  // The same, for a target that may be a group; `is_group` says so.
  std::string target_text(uint32_t d_ifx, bool is_group) const;

 private:
  const ko_platform::port *find(uint32_t ifx) const;
  const ko_platform::config &settings_;
};

}  // namespace lspanctl
