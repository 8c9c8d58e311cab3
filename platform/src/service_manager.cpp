#include "service_manager.h"

#include <systemd/sd-daemon.h>

#include <cstring>
#include <ctime>

#include "platform_log.h"

namespace ko_platform {
namespace {

void check(int sent) {
  if (sent < 0) PLATFORM_WARN("the service manager cannot be told: %s", std::strerror(-sent));
}

}  // namespace

void tell_ready() noexcept { check(sd_notify(0, "READY=1")); }

void tell_reloading() noexcept {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const long long us = now.tv_sec * 1'000'000LL + now.tv_nsec / 1000;
  check(sd_notifyf(0, "RELOADING=1\nMONOTONIC_USEC=%lld", us));
}

}  // namespace ko_platform
