#include "interfaces.h"

#include <algorithm>

#include "errors.h"
#include "text.h"
#include "values.h"

namespace lspanctl {

const ko_platform::port *interfaces::find(uint32_t ifx) const {
  const auto found = std::find_if(settings_.ports.begin(), settings_.ports.end(),
                                  [ifx](const ko_platform::port &port) { return port.ifx == ifx; });
  return found == settings_.ports.end() ? nullptr : &*found;
}

uint32_t interfaces::parse(const std::string &text, bool any_number) const {
  if (text == "none" || text == "0") return 0;
  if (is_number(text)) {
    const uint32_t ifx = parse_number(text, "interface");
    if (settings_.has_ports && !any_number && find(ifx) == nullptr)
      throw refused("interface " + text + " is not in the platform file's ports; give one of them or add it there");
    return ifx;
  }
  for (const ko_platform::port &port : settings_.ports)
    if (port.name == text) return port.ifx;
  throw refused("interface " + printable(text) + " is unknown; give a number" +
                (settings_.has_ports ? " or a name of the platform file's ports" : ""));
}

bool interfaces::knows(const std::string &name) const {
  return std::any_of(settings_.ports.begin(), settings_.ports.end(),
                     [&name](const ko_platform::port &port) { return port.name == name; });
}

std::string interfaces::twin_of(uint32_t ifx) const {
  const ko_platform::port *port = find(ifx);
  for (const ko_platform::port &other : settings_.ports)
    if (port != nullptr && &other != port && other.phyid == port->phyid) return other.name;
  return "";
}

uint32_t interfaces::phyid(uint32_t ifx) const {
  const ko_platform::port *port = find(ifx);
  if (!settings_.has_ports) return ifx;
  return port == nullptr ? 0 : port->phyid;
}

std::string interfaces::device(uint32_t ifx) const {
  const ko_platform::port *port = find(ifx);
  if (port == nullptr) return std::to_string(ifx);
  return port->device.empty() ? port->name : port->device;
}

std::string interfaces::text(uint32_t ifx) const {
  if (ifx == 0) return "none";
  const ko_platform::port *port = find(ifx);
  const bool clear = port != nullptr && !is_number(port->name) && port->name != "none" &&
                     !port->name.starts_with("group:") && printable(port->name) == port->name;
  return clear ? port->name : std::to_string(ifx);
}

std::string interfaces::target_text(uint32_t d_ifx, bool is_group) const {
  return is_group ? group_text(d_ifx) : text(d_ifx);
}

}  // namespace lspanctl
