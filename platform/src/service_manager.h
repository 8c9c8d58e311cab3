// What the service manager is told when it started this process; without one every call does nothing.
#pragma once

namespace ko_platform {

void tell_ready() noexcept;      // the event loop runs
void tell_reloading() noexcept;  // until the next tell_ready the process is not itself

}  // namespace ko_platform
