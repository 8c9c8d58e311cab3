#include "lease_service.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <new>
#include <random>
#include <sstream>

#include "platform_log.h"
#include "status.h"

namespace ko_platform {
namespace {

using namespace std::chrono_literals;
using machine = ko_store::lease_machine;
using moment = machine::moment;
using process = machine::process;

constexpr moment patience = 1s;            // with the answers to what was written, at a stop
constexpr timeval look_interval{0, 5000};  // meanwhile

// Names the process and what it calls itself in the store, for the program that is executed in its place.
constexpr const char *holder_variable = "KO_PLATFORM_LEASE";

// Of a clock that counts the time in which the machine is suspended.
moment boot_time() {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return std::chrono::duration_cast<moment>(std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec));
}

std::string host_name() {
  char name[256] = {};
  return gethostname(name, sizeof(name) - 1) == 0 && name[0] != '\0' ? name : "unknown";
}

// Who and since when, and a number by which nobody else has the same text.
std::string new_holder() {
  std::random_device random;
  char number[24];
  std::snprintf(number, sizeof(number), "%08x%08x", random(), random());
  return host_name() + " " + std::to_string(getpid()) + " " + time_text(std::chrono::system_clock::now()) + " " +
         number;
}

// What hand_on left in this process; empty: nothing.
std::string handed_on() {
  const char *left = std::getenv(holder_variable);
  std::istringstream words(left == nullptr ? "" : left);
  pid_t from = 0;
  std::string holder;
  words >> from >> std::ws;
  std::getline(words, holder);
  unsetenv(holder_variable);
  return from == getpid() ? holder : "";
}

}  // namespace

const sigset_t *block_stop_signals(bool on) {
  static const sigset_t set = [] {
    sigset_t made;
    sigemptyset(&made);
    sigaddset(&made, SIGTERM);
    sigaddset(&made, SIGINT);
    return made;
  }();
  sigprocmask(on ? SIG_BLOCK : SIG_UNBLOCK, &set, nullptr);
  return &set;
}

void call_awake(event_base *base, rdnd_awake_cb awake) {
  const int32_t status = awake(nullptr);
  if (status == 0) return;
  PLATFORM_ERROR("the wake-up failed with status %d; nothing is left to do, the event loop ends", status);
  event_base_loopbreak(base);
}

lease_service::lease_service(global_context &context, ko_store::registration &store, const rdnd_mom_reg_info &process,
                             const config &settings)
    : context_(context),
      store_(store),
      process_(process),
      machine_(std::chrono::seconds(settings.redundancy.lease_seconds)),
      holder_(handed_on()),
      link_(context.base.get(), settings.store, store.app_name(),
            std::chrono::seconds(settings.redundancy.lease_seconds), *this),
      stop_signals_(signalfd(-1, block_stop_signals(true), SFD_NONBLOCK | SFD_CLOEXEC)) {
  event_base *base = context.base.get();
  stop_.reset(event_new(
      base, stop_signals_, EV_READ | EV_PERSIST,
      [](evutil_socket_t, short, void *self) { static_cast<lease_service *>(self)->on_stop_signal(); }, this));
  timer_.reset(event_new(
      base, -1, 0,
      [](evutil_socket_t, short, void *self) {
        auto &service = *static_cast<lease_service *>(self);
        service.carry_out(service.machine_.timer(boot_time()));
      },
      this));
  quiet_.reset(event_new(
      base, -1, EV_PERSIST,
      [](evutil_socket_t, short, void *self) { static_cast<lease_service *>(self)->look_quiet(); }, this));
  if (timer_ == nullptr || quiet_ == nullptr || stop_ == nullptr || event_add(stop_.get(), nullptr) != 0) {
    close(stop_signals_);
    throw std::bad_alloc();
  }
  tell_role({});
}

lease_service::~lease_service() {
  stop_.reset();
  close(stop_signals_);
}

// ---- the machine ----

void lease_service::connected() { carry_out(machine_.connected(boot_time())); }

void lease_service::lost() {
  machine_.lost();
  listen();
  set_timer();
}

void lease_service::seen(std::string_view holder, std::string_view last) {
  const auto who = [this](std::string_view text) {
    if (text.empty()) return process::nobody;
    return text == holder_ ? process::itself : process::another;
  };
  tell_role(holder);
  if (who(holder) == process::another) listen();
  carry_out(machine_.seen(who(holder), who(last), boot_time()));
}

// To requests, while it stands by.
void lease_service::listen() {
  if (!is_listening_ && machine_.now() == machine::state::waiting) store_.listen();
  is_listening_ = true;
}

void lease_service::changed(bool is_carried_out) { carry_out(machine_.changed(is_carried_out, boot_time())); }

void lease_service::carry_out(machine::action next) {
  using action = machine::action;
  if (next == action::look) link_.look();
  if (next == action::take) link_.take(holder_ = new_holder());
  if (next == action::renew) link_.renew();
  if (next == action::give_back) link_.give_back();
  if (next == action::wake) wake(process_.awake);
  if (next == action::wake_peer) wake(process_.awake_peer);
  if (next == action::sleep) fall_asleep();
  if (next == action::end) event_base_loopbreak(context_.base.get());
  if (next == action::reconnect) {
    link_.reconnect();
    machine_.lost();
  }
  set_timer();
}

// The timer's own clock stands still while the machine is suspended; whoever sends asks the other one.
void lease_service::set_timer() {
  const moment due = machine_.due();
  if (due == moment::max()) return void(event_del(timer_.get()));
  const moment left = std::max(due - boot_time(), moment(0));
  const timeval wait = ko_platform::to_timeval(left);
  event_add(timer_.get(), &wait);
}

// What is known of who is active, for who asks this process.
void lease_service::tell_role(std::string_view holder) {
  role &now = context_.role;
  now.is_shared = true;
  now.is_active = machine_.now() == machine::state::active || machine_.now() == machine::state::leaving;
  now.host = host_name();
  std::istringstream words{std::string(holder)};
  now.active_host = now.active_pid = now.active_since = "";
  words >> now.active_host >> now.active_pid >> now.active_since;
  context_.requests.stands_by = !now.is_active;
}

// ---- the process ----

void lease_service::wake(rdnd_awake_cb awake) {
  PLATFORM_WARN("this process is active now, as %s", holder_.c_str());
  tell_role(holder_);
  const auto holds = [this] { return machine_.may_write(boot_time()); };
  store_.put_behind({link_.fence_key(), holder_, holds}, [this] { fall_asleep(); });
  call_awake(context_.base.get(), awake);
}

void lease_service::fall_asleep() {
  PLATFORM_ERROR("the lease is lost: this process is active no more, and starts anew");
  holder_.clear();
  context_.start_anew();
}

// So that what is executed in its place goes on with the lease.
void lease_service::hand_on(bool is_executed) {
  if (is_executed && machine_.now() == machine::state::active && !holder_.empty())
    setenv(holder_variable, (std::to_string(getpid()) + " " + holder_).c_str(), 1);
  else
    unsetenv(holder_variable);
}

void lease_service::on_stop_signal() {
  signalfd_siginfo which{};
  const bool is_read = read(stop_signals_, &which, sizeof(which)) == static_cast<ssize_t>(sizeof(which));
  if (!is_read || is_ending()) return;
  latest_stop_ = boot_time() + patience;
  store_.pause();
  event_add(quiet_.get(), &look_interval);
}

void lease_service::look_quiet() {
  if (!store_.quiet() && boot_time() < latest_stop_) return;
  event_del(quiet_.get());
  carry_out(machine_.leave(boot_time()));
}

}  // namespace ko_platform
