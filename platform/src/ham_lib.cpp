// High-availability monitor: the service manager. It watches the process by itself and is only told that it is up.
#include "ham_lib.h"

#include <systemd/sd-daemon.h>

// Without a service manager (NOTIFY_SOCKET is not set) nobody has to be told. What happens when the process ends is
// written in the service's unit file, whatever the action.
int32_t reg_process_exit_action(pid_t, uint32_t) {
  const int sent = sd_notify(0, "READY=1");
  return sent < 0 ? sent : 0;
}
