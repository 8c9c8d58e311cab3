#include "resync.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <new>
#include <sstream>
#include <vector>

#include "platform_config.h"
#include "platform_log.h"
#include "service_manager.h"

namespace ko_platform {
namespace {

using namespace std::chrono_literals;

constexpr auto patience = 1s;              // with the answers to what was written
constexpr timeval look_interval{0, 5000};  // meanwhile

std::string read_all(const std::string &path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

// A signal that comes while the program is exchanged waits until the new one has a handler.
void block_hangup(bool on) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGHUP);
  sigprocmask(on ? SIG_BLOCK : SIG_UNBLOCK, &set, nullptr);
}

// The lock of the pid file lasts as long as its descriptor.
bool holds_lock(const std::string &fd) {
  const std::string info = read_all("/proc/self/fdinfo/" + fd);
  return info.empty() || info.find("\nlock:") != std::string::npos;
}

// Some libraries open files that a new program would inherit, and nobody would close.
void close_the_rest_on_exec() {
  std::vector<std::string> open;
  std::error_code none;
  for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd", none))
    open.push_back(entry.path().filename());
  for (const std::string &name : open) {
    const int fd = std::atoi(name.c_str());
    if (fd > STDERR_FILENO && !holds_lock(name)) fcntl(fd, F_SETFD, FD_CLOEXEC);
  }
}

}  // namespace

resync::resync(global_context &context) : context_(context), program_(std::filesystem::read_symlink("/proc/self/exe")) {
  event_base *base = context.base.get();
  signal_.reset(evsignal_new(
      base, SIGHUP, [](evutil_socket_t, short, void *self) { static_cast<resync *>(self)->on_signal(); }, this));
  poll_.reset(event_new(
      base, -1, EV_PERSIST, [](evutil_socket_t, short, void *self) { static_cast<resync *>(self)->look(); }, this));
  if (signal_ == nullptr || poll_ == nullptr || event_add(signal_.get(), nullptr) != 0) throw std::bad_alloc();
  block_hangup(false);
}

void resync::on_signal() try { ask(); } catch (const std::bad_alloc &) {
  PLATFORM_ERROR("no resync: memory is exhausted");
}

std::string resync::ask() {
  if (due_) return {};
  std::string why;
  try {
    load_config(default_config_path);
    if (access(program_.c_str(), X_OK) != 0) why = program_ + ": " + std::strerror(errno);
  } catch (const config_error &error) {
    why = error.what();
  }
  if (!why.empty()) {
    PLATFORM_ERROR("no resync: %s; all goes on as it was", why.c_str());
    return why;
  }
  PLATFORM_INFO("resync: %s is executed again", program_.c_str());
  due_ = true;
  latest_ = clock::now() + patience;
  if (context_.store != nullptr) context_.store->pause();
  event_add(poll_.get(), &look_interval);
  return {};
}

void resync::look() {
  const bool quiet = context_.store == nullptr || context_.store->quiet();
  if (quiet || clock::now() >= latest_) event_base_loopbreak(context_.base.get());
}

bool resync::carry_out() {
  if (!due_) return false;
  due_ = false;
  event_del(poll_.get());
  tell_reloading();
  block_hangup(true);
  execute();
  PLATFORM_ERROR("no resync: %s cannot be executed: %s; all goes on as it was", program_.c_str(), std::strerror(errno));
  block_hangup(false);
  tell_ready();
  if (context_.store != nullptr) context_.store->resume();
  return true;
}

// Returns when the program cannot be executed; errno says why.
void resync::execute() {
  std::string words = read_all("/proc/self/cmdline");
  std::vector<char *> arguments;
  for (size_t at = 0; at < words.size(); at += std::strlen(&words[at]) + 1) arguments.push_back(&words[at]);
  arguments.push_back(nullptr);
  close_the_rest_on_exec();
  execve(program_.c_str(), arguments.data(), environ);
}

}  // namespace ko_platform
