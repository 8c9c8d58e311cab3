#include "status.h"

#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <new>
#include <nlohmann/json.hpp>

#include "ko_platform/requests.h"
#include "log/last_error.h"
#include "service_manager.h"
#include "store/registration.h"

namespace ko_platform {
namespace {

using namespace std::chrono_literals;
using json = nlohmann::ordered_json;

constexpr std::chrono::microseconds longest_interval = 2s;  // between two reports to the service manager

}  // namespace

std::string time_text(std::chrono::system_clock::time_point when) {
  if (when == std::chrono::system_clock::time_point()) return {};
  const std::time_t seconds = std::chrono::system_clock::to_time_t(when);
  std::tm local{};
  localtime_r(&seconds, &local);
  char text[40];
  std::string out(text, std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S%z", &local));
  return out.insert(out.size() - 2, ":");  // of the offset
}

status::status(global_context &context) : context_(context) {
  register_request(context, "status", [this] { return answer(); });
  const auto watched = watchdog_time();
  if (!has_service_manager()) return;
  const auto interval = watched == 0us ? longest_interval : std::min(watched / 2, longest_interval);
  timer_.reset(event_new(
      context.base.get(), -1, EV_PERSIST,
      [](evutil_socket_t, short, void *self) { static_cast<status *>(self)->tell(); }, this));
  const timeval every = to_timeval(interval);
  if (timer_ == nullptr || event_add(timer_.get(), &every) != 0) throw std::bad_alloc();
}

std::string status::answer() const {
  const ko_store::registration *store = ko_store::registration_of(&context_);
  const ko_store::counters counts = store == nullptr ? ko_store::counters{} : store->counts();
  const noted_error &error = last_error();
  const role &role = context_.role;
  json out{
      {"program", store == nullptr ? context_.proc_name : store->app_name()},
      {"pid", getpid()},
      {"version", KO_VERSION},
      {"since", time_text(since_)},
      {"connected", store != nullptr && store->connected()},
      {"connected_since", store == nullptr ? "" : time_text(store->connected_since())},
      {"state", state()},
      {"events", counts.events},
      {"handler_failures", counts.handler_failures},
      {"rejected", counts.rejected + context_.requests.malformed()},
      {"writes", counts.writes},
      {"refused", counts.refused},
      {"reads", counts.reads},
      {"last_error", error.text},
      {"last_error_at", time_text(error.at)},
      {"active", role.is_active},
  };
  if (role.is_shared)
    out.update({{"host", role.host},
                {"active_host", role.active_host},
                {"active_pid", role.active_pid},
                {"active_since", role.active_since}});
  return out.dump(-1, ' ', false, json::error_handler_t::replace);
}

const char *status::state() const {
  if (!context_.role.is_active) return "standby";
  const ko_store::registration *store = ko_store::registration_of(&context_);
  return store == nullptr ? "starting" : store->state_name();
}

// Who is active, where there are several processes; for people.
std::string status::role_text() const {
  const role &role = context_.role;
  if (!role.is_shared) return "";
  const std::string who = role.is_active ? "active" : role.active_host + " is active";
  return role.active_since.empty() ? "nobody is known to be active; " : who + " since " + role.active_since + "; ";
}

void status::tell() {
  tell_alive();
  const ko_store::registration *store = ko_store::registration_of(&context_);
  if (store == nullptr) return;
  const ko_store::counters &counts = store->counts();
  std::string now = std::string(store->connected() ? "" : "the store cannot be used; ") + state() + "; " + role_text() +
                    std::to_string(counts.events) + " events, " + std::to_string(counts.handler_failures) +
                    " failed, " + std::to_string(counts.writes) + " writes, " + std::to_string(counts.refused) +
                    " refused, " + std::to_string(counts.rejected) + " records passed over";
  if (now == told_) return;
  told_ = std::move(now);
  tell_status(told_.c_str());
}

}  // namespace ko_platform
