// Reports to the service manager that started this process; without one every call does nothing.
#pragma once

#include <chrono>

namespace ko_platform {

bool has_service_manager();                 // that takes reports
std::chrono::microseconds watchdog_time();  // it has to hear of us within; 0: it does not watch

void tell_ready() noexcept;      // the event loop runs
void tell_reloading() noexcept;  // until the next tell_ready the process is not itself
void tell_alive() noexcept;      // for the watchdog
void tell_status(const char *line) noexcept;

}  // namespace ko_platform
