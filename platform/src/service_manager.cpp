#include "service_manager.h"

#include <systemd/sd-daemon.h>

#include <cstdlib>
#include <cstring>
#include <ctime>

#include "platform_log.h"

namespace ko_platform {
namespace {

void check(int sent) {
  if (sent < 0) PLATFORM_WARN("the service manager cannot be told: %s", std::strerror(-sent));
}

}  // namespace

bool has_service_manager() { return std::getenv("NOTIFY_SOCKET") != nullptr; }

std::chrono::microseconds watchdog_time() {
  uint64_t us = 0;
  return std::chrono::microseconds(sd_watchdog_enabled(0, &us) > 0 ? us : 0);
}

void tell_ready() noexcept { check(sd_notify(0, "READY=1")); }

void tell_reloading() noexcept {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const long long us = now.tv_sec * 1'000'000LL + now.tv_nsec / 1000;
  check(sd_notifyf(0, "RELOADING=1\nMONOTONIC_USEC=%lld", us));
}

void tell_alive() noexcept { sd_notify(0, "WATCHDOG=1"); }

void tell_status(const char *line) noexcept { sd_notifyf(0, "STATUS=%s", line); }

}  // namespace ko_platform
