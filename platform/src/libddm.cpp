// Interface translation by the platform file's map of ports; without a map an interface index is its own physical id.
#include "libddm.h"

#include <map>
#include <new>
#include <unordered_map>

#include "platform_config.h"
#include "platform_log.h"

namespace {

constexpr int32_t no_memory = -2;
constexpr int32_t not_usable = -4;
constexpr int32_t unknown_port = -7;

struct translation {
  bool identity = true;
  std::unordered_map<uint32_t, uint32_t> phyids;
};

translation &table() {
  static translation instance;
  return instance;
}

}  // namespace

int32_t libddm_init(vx_global *, const char *) try {
  const ko_platform::config &config = ko_platform::process_config();
  translation fresh;
  fresh.identity = !config.has_ports;
  std::map<uint32_t, const char *> names;
  for (const ko_platform::port &port : config.ports) {
    fresh.phyids.emplace(port.ifx, port.phyid);
    const auto [first, is_new] = names.emplace(port.phyid, port.name.c_str());
    if (is_new) continue;
    PLATFORM_WARN("ports %s and %s have one phyid, %u: no forwarding side can tell them apart", first->second,
                  port.name.c_str(), port.phyid);
  }
  table() = std::move(fresh);
  return 0;
  // GCOVR_EXCL_START: the platform file was read before, and would have failed there; memory is exhausted where no
  // ports are copied.
} catch (const ko_platform::config_error &error) {
  PLATFORM_ERROR("%s", error.what());
  return not_usable;
} catch (const std::bad_alloc &) {
  return no_memory;
  // GCOVR_EXCL_STOP
}

int32_t libddm_get_phyid_by_ifx(uint32_t ifx, uint32_t *phyid) {
  const translation &map = table();
  if (map.identity) {
    *phyid = ifx;
    return 0;
  }
  const auto found = map.phyids.find(ifx);
  if (found == map.phyids.end()) return unknown_port;
  *phyid = found->second;
  return 0;
}
