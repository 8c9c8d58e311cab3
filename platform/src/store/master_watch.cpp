#include "store/master_watch.h"

#include <hiredis/hiredis.h>

#include <charconv>
#include <new>
#include <sstream>
#include <utility>

#include "platform_log.h"

namespace ko_store {
namespace {

constexpr timeval at_once{0, 0};
constexpr timeval patience{0, 500'000};  // with one sentinel, before the next is asked
constexpr timeval pause{0, 200'000};     // when none has told, before they are asked again
constexpr timeval renew_interval{1, 0};  // between two looks for lost links
constexpr std::string_view announcement = "+switch-master";

}  // namespace

master_watch::master_watch(event_base *base, ko_platform::store_address settings, listener found, listener told)
    : base_(base), settings_(std::move(settings)), found_(std::move(found)), told_(std::move(told)) {
  for (const ko_platform::sentinel_address &where : settings_.sentinels) {
    sentinel &made = sentinels_.emplace_back();
    made.address.socket.clear();
    made.address.host = where.host;
    made.address.port = where.port;
  }
  ask_timer_.reset(event_new(
      base_, -1, 0, [](evutil_socket_t, short, void *self) { static_cast<master_watch *>(self)->turn(); }, this));
  renew_timer_.reset(event_new(
      base_, -1, EV_PERSIST,
      [](evutil_socket_t, short, void *self) { static_cast<master_watch *>(self)->renew_lost(); }, this));
  if (ask_timer_ == nullptr || renew_timer_ == nullptr) throw std::bad_alloc();
}

// ---- links ----

void master_watch::find() {
  finding_ = true;
  asking_ = false;
  silent_ = 0;
  event_add(ask_timer_.get(), &at_once);
  if (!event_pending(renew_timer_.get(), EV_TIMEOUT, nullptr)) event_add(renew_timer_.get(), &renew_interval);
}

// The timer says that it is time to ask, or that the one that was asked takes too long.
void master_watch::turn() {
  if (asking_) return lose(sentinels_[asked_], "it does not answer");
  asking_ = true;
  event_add(ask_timer_.get(), &patience);
  renew(sentinels_[asked_]);
}

void master_watch::ask_next() {
  asking_ = false;
  asked_ = (asked_ + 1) % sentinels_.size();
  event_add(ask_timer_.get(), ++silent_ % sentinels_.size() == 0 ? &pause : &at_once);
}

void master_watch::renew_lost() {
  for (sentinel &each : sentinels_)
    if (each.lost) renew(each);
}

void master_watch::renew(sentinel &which) try {
  redis_link_user &self = *this;
  which.link = std::make_unique<redis_link>(base_, which.address, self);
  std::string command;
  which.answers = 1 + append_login(command, settings_.sentinel_user, settings_.sentinel_password);
  append_command(command, {"SENTINEL", "get-master-addr-by-name", settings_.master});
  append_command(command, {"SUBSCRIBE", announcement});
  which.link->send(command);
  which.lost = false;
} catch (const std::bad_alloc &) {
  lose(which, "memory is exhausted");
}

void master_watch::lost(redis_link &link, const std::string &why) {
  for (sentinel &each : sentinels_)
    if (&link == each.link.get()) lose(each, why);
}

// The link stays until the next is made: this may happen inside a call of its own.
void master_watch::lose(sentinel &which, std::string_view why) try {
  which.lost = true;
  if (which.link != nullptr) which.link->close();
  if (asking_ && &which == &sentinels_[asked_]) ask_next();
  if (which.reported == why) return;
  which.reported = why;
  PLATFORM_WARN("the sentinel at %s does not tell where the master \"%s\" is: %s", to_string(which.address).c_str(),
                settings_.master.c_str(), which.reported.c_str());
} catch (const std::bad_alloc &) {
  PLATFORM_ERROR("a sentinel cannot be asked, and memory is exhausted");
}

// ---- answers ----

void master_watch::answered(redis_link &link, const redis_answer &answer) {
  for (sentinel &each : sentinels_)
    if (&link == each.link.get()) return on_answer(each, answer);
}

void master_watch::on_answer(sentinel &from, const redis_answer &answer) try {
  if (!answer.errors.empty()) return lose(from, answer.first_error());
  if (from.answers == 0) {
    if (answer.texts.size() == 3 && answer.texts[1] == announcement) on_announced(from, answer.texts[2]);
    return;
  }
  if (--from.answers > 0) return;
  if (answer.texts.size() != 2) return lose(from, "it does not know it");
  from.reported.clear();
  asked_ = (index_of(from) + 1) % sentinels_.size();  // what this one says may turn out to be out of date
  on_master(answer.texts[0], answer.texts[1]);
} catch (const std::bad_alloc &) {
  lose(from, "memory is exhausted");
}

// What is announced: the master's name, where it was, and where it is.
void master_watch::on_announced(sentinel &from, std::string_view text) {
  std::istringstream words{std::string(text)};
  std::string name, skipped, host, port;
  words >> name >> skipped >> skipped >> host >> port;
  if (name != settings_.master || port.empty()) return;
  asked_ = index_of(from);  // the others may not know it yet
  on_master(host, port);
}

void master_watch::on_master(std::string_view host, std::string_view port) {
  ko_platform::store_address master = settings_;
  master.socket.clear();
  master.host = host;
  std::from_chars(port.data(), port.data() + port.size(), master.port);
  asking_ = false;
  event_del(ask_timer_.get());
  if (std::exchange(finding_, false))
    found_(master);
  else
    told_(master);
}

}  // namespace ko_store
