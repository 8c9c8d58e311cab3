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
#include <iterator>
#include <new>
#include <nlohmann/json.hpp>
#include <sstream>
#include <vector>

#include "platform_config.h"
#include "platform_log.h"
#include "service_manager.h"
#include "store/registration.h"

namespace ko_platform {
namespace {

using namespace std::chrono_literals;

constexpr auto patience = 1s;              // with the answers to writes
constexpr timeval look_interval{0, 5000};  // meanwhile

// Names the process and the channels of those who asked it for the resync; blanks between them.
constexpr const char *replies_variable = "KO_PLATFORM_RESYNC";
constexpr size_t most_replies = 16;

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
      base, SIGHUP, [](evutil_socket_t, short, void *self) { static_cast<resync *>(self)->ask({}); }, this));
  poll_.reset(event_new(
      base, -1, EV_PERSIST, [](evutil_socket_t, short, void *self) { static_cast<resync *>(self)->look(); }, this));
  if (signal_ == nullptr || poll_ == nullptr || event_add(signal_.get(), nullptr) != 0) throw std::bad_alloc();
  context.start_anew = [this] { start_anew(); };
  context.requests.add("resync", [this](const std::string &reply) { ask(reply); });
  take_over_replies();
  block_hangup(false);
}

// ---- asked for ----

// The reason why there can be no resync; empty when there is none.
std::string resync::obstacle() const {
  try {
    load_config(process_config().path);
  } catch (const config_error &error) {
    return error.what();
  }
  return access(program_.c_str(), X_OK) == 0 ? "" : program_ + ": " + std::strerror(errno);
}

void resync::ask(const std::string &reply) try {
  if (replies_.size() == most_replies) return context_.requests.refuse(reply, "too many ask for a resync");
  if (!reply.empty()) replies_.push_back(reply);
  if (due_) return;
  const std::string why = obstacle();
  if (!why.empty()) return give_up(why);
  PLATFORM_INFO("resync: %s is executed again", program_.c_str());
  due_ = true;
  latest_ = clock::now() + patience;
  if (context_.store != nullptr) context_.store->pause();
  event_add(poll_.get(), &look_interval);
} catch (const std::bad_alloc &) {
  PLATFORM_ERROR("no resync: memory is exhausted; all goes on as it was");
}

void resync::give_up(const std::string &why) {
  PLATFORM_ERROR("no resync: %s; all goes on as it was", why.c_str());
  for (const std::string &reply : replies_) context_.requests.refuse(reply, why);
  replies_.clear();
}

void resync::look() {
  const bool quiet = context_.store == nullptr || context_.store->quiet();
  if (quiet || clock::now() >= latest_) event_base_loopbreak(context_.base.get());
}

void resync::start_anew() {
  replies_.clear();
  due_ = is_anew_ = true;
  event_base_loopbreak(context_.base.get());
}

// ---- carried out ----

bool resync::carry_out() {
  if (!due_) return false;
  due_ = false;
  event_del(poll_.get());
  if (context_.redundancy != nullptr && context_.redundancy->is_ending()) {
    give_up("the process is told to stop");
    return !is_anew_ && !context_.redundancy->quiet();
  }
  tell_reloading();
  block_hangup(true);
  if (context_.redundancy != nullptr) context_.redundancy->hand_on(true);
  execute();
  const int error = errno;
  unsetenv(replies_variable);
  if (context_.redundancy != nullptr) context_.redundancy->hand_on(false);
  block_hangup(false);
  if (is_anew_) {
    PLATFORM_ERROR("%s cannot be executed: %s; the process ends", program_.c_str(), std::strerror(error));
    return false;
  }
  tell_ready();
  give_up(program_ + " cannot be executed: " + std::strerror(error));
  if (context_.store != nullptr) context_.store->resume();
  return true;
}

// Returns when the program cannot be executed; errno says why.
void resync::execute() {
  std::string words = read_all("/proc/self/cmdline");
  std::vector<char *> arguments;
  for (size_t at = 0; at < words.size(); at += std::strlen(&words[at]) + 1) arguments.push_back(&words[at]);
  arguments.push_back(nullptr);
  std::string replies = std::to_string(getpid());
  for (const std::string &reply : replies_) replies += ' ' + reply;
  if (!replies_.empty()) setenv(replies_variable, replies.c_str(), 1);
  close_the_rest_on_exec();
  execve(program_.c_str(), arguments.data(), environ);
}

// ---- afterwards ----

void resync::take_over_replies() {
  const char *left = std::getenv(replies_variable);
  if (left == nullptr) return;
  std::istringstream words(left);
  pid_t from = 0;
  words >> from;
  if (from == getpid()) replies_.assign(std::istream_iterator<std::string>(words), {});
  unsetenv(replies_variable);
  ko_store::registration *store = ko_store::registration_of(&context_);
  if (store != nullptr && !replies_.empty()) store->on_live = [this] { answer_done(); };
}

void resync::answer_done() {
  ko_store::registration &store = *ko_store::registration_of(&context_);
  const ko_store::counters &counts = store.counts();
  const nlohmann::ordered_json done{
      {"done", true}, {"written", counts.writes - counts.deletes - counts.published}, {"deleted", counts.deletes}};
  for (const std::string &reply : replies_) context_.requests.answer(reply, done.dump());
  replies_.clear();
  store.on_live = nullptr;
}

}  // namespace ko_platform
