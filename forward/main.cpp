// The forwarding side of local port mirroring on Linux: the daemon's records in, filters in the kernel out.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <system_error>

#include "agent.h"
#include "forward_log.h"
#include "standard_files.h"

namespace {

using ko_forward::agent;

constexpr int cannot_work = 1;
constexpr int wrong_use = 2;
constexpr int already_running = 3;

struct global_finisher {
  void operator()(vx_global *global) const { vx_global_finish(global); }
};

// Tells why the program ends: in the log, and at the terminal when the log is elsewhere.
int end_with(int status, const char *reason) {
  FORWARD_ERROR("%s", reason);
  const bool is_told = ko_platform::process_log_settings().file.empty() || isatty(STDERR_FILENO) != 0;
  if (!is_told) std::fprintf(stderr, "%s: %s\n", ko_forward::app_name, reason);
  return status;
}

// One program for each network namespace: an abstract socket is known in its namespace only, and goes with the process.
// Returns -1 when another has it.
int take_namespace() {
  const int lock = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path + 1, ko_forward::app_name, sizeof(address.sun_path) - 2);
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + std::strlen(ko_forward::app_name));
  if (lock >= 0 && bind(lock, reinterpret_cast<const sockaddr *>(&address), length) == 0) return lock;
  if (lock >= 0) close(lock);
  return -1;
}

// Ends the loop, and with it the process; what is in the kernel stays.
ko_platform::event_ptr on_signal(event_base *base, int number) {
  ko_platform::event_ptr made(event_new(
      base, number, EV_SIGNAL | EV_PERSIST,
      [](evutil_socket_t, short, void *loop) { event_base_loopbreak(static_cast<event_base *>(loop)); }, base));
  if (made == nullptr || event_add(made.get(), nullptr) != 0) throw std::bad_alloc();
  return made;
}

int serve() {
  const std::unique_ptr<vx_global, global_finisher> global(vx_global_init(ko_forward::app_name));
  if (global == nullptr) return cannot_work;
  event_base *base = ko_platform::context_of(global.get()).base.get();
  const auto on_terminate = on_signal(base, SIGTERM);
  const auto on_interrupt = on_signal(base, SIGINT);
  agent forwarding(*global, ko_platform::process_config());
  if (!forwarding.start()) return cannot_work;
  vx_global_run(global.get());
  return 0;
}

int clear() {
  ko_forward::reconciler kernel(ko_platform::process_config());
  kernel.clear();
  const bool are_results_gone = ko_forward::remove_results();
  if (!kernel.failure().empty()) return end_with(cannot_work, kernel.failure().c_str());
  if (are_results_gone) return 0;
  return end_with(cannot_work, "the kernel is clear, and the results stay in the store, which cannot be used");
}

int run(bool is_clearing) {
  const int lock = take_namespace();
  if (lock < 0) return end_with(already_running, "another ko_lspan_fwd runs in this network namespace; stop it first");
  std::signal(SIGPIPE, SIG_IGN);
  return is_clearing ? clear() : serve();
}

}  // namespace

int main(int argc, char **argv) try {
  ko_platform::hold_standard_files();
  CLI::App app("Copies packets as the records of ko_lspan say, with filters of the Linux kernel.",
               ko_forward::app_name);
  app.footer(
      "It needs CAP_NET_ADMIN, and stays in the foreground; lspanctl(1) sets up sessions. More: man ko_lspan_fwd\n");
  std::string platform_file = ko_platform::default_config_path;
  bool is_clearing = false;
  CLI::Option *named = app.add_option("--platform-file", platform_file, "The store, the ports and the ACLs")
                           ->type_name("FILE")
                           ->capture_default_str();
  app.add_flag("--clear", is_clearing, "Take everything of this program's out of the kernel and the store, and end");
  app.set_version_flag("--version", std::string(ko_forward::app_name) + " " + KO_VERSION);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &error) {
    return app.exit(error) == 0 ? 0 : wrong_use;
  }
  if (*named && access(platform_file.c_str(), F_OK) != 0)
    throw ko_platform::config_error(platform_file + ": " + std::strerror(errno));
  ko_platform::use_config(ko_platform::load_config(platform_file));
  return run(is_clearing);
} catch (const std::exception &error) {
  return end_with(cannot_work, error.what());
}
