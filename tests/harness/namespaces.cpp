#include "namespaces.h"

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <fstream>
#include <string>

namespace harness {

bool enter_namespaces(int kinds) {
  const std::string user = std::to_string(getuid()), group = std::to_string(getgid());
  if (unshare(CLONE_NEWNS | kinds | (user == "0" ? 0 : CLONE_NEWUSER)) != 0) return false;
  if (user != "0") {
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << "0 " << user << " 1";
    std::ofstream("/proc/self/gid_map") << "0 " << group << " 1";
  }
  return mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

}  // namespace harness
