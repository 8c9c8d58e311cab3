#include "store/lease_link.h"

#include <hiredis/hiredis.h>

#include <new>
#include <utility>

#include "platform_log.h"

namespace ko_store {
namespace {

constexpr timeval at_once{0, 0};
constexpr timeval pause{0, 200'000};  // before the link is made anew

std::string_view text_of(const redis_answer &answer) {
  return answer.type == REDIS_REPLY_STRING ? answer.texts[0] : std::string_view();
}

}  // namespace

lease_link::lease_link(event_base *base, ko_platform::store_address address, const std::string &program,
                       std::chrono::milliseconds lease, lease_link_user &user)
    : base_(base),
      address_(std::move(address)),
      lease_key_(program + ".lease"),
      active_key_(program + ".active"),
      lease_ms_(std::to_string(lease.count())),
      user_(user) {
  retry_.reset(event_new(
      base_, -1, 0, [](evutil_socket_t, short, void *self) { static_cast<lease_link *>(self)->begin(); }, this));
  if (retry_ == nullptr || event_add(retry_.get(), &at_once) != 0) throw std::bad_alloc();
  if (address_.sentinels.empty()) return;
  masters_ = std::make_unique<master_watch>(
      base_, address_,
      [this](const ko_platform::store_address &master) {
        address_ = master;
        connect();
      },
      [this](const ko_platform::store_address &master) {
        if (is_connected_ && to_string(master) != to_string(address_)) broken("the master has moved");
      });
}

// ---- the connection ----

void lease_link::begin() {
  if (masters_ == nullptr)
    connect();
  else
    masters_->find();
}

void lease_link::connect() try {
  redis_link_user &self = *this;
  link_ = std::make_unique<redis_link>(base_, address_, self);
  command_.clear();
  expected_ = append_login(command_, address_.user, address_.password);
  link_->send(command_);
  is_connected_ = true;
  user_.connected();
} catch (const std::bad_alloc &) {
  broken("memory is exhausted");
}

// The link itself stays until the next is made: this may happen inside a call of its own.
void lease_link::close() {
  if (link_ != nullptr) link_->close();
  is_connected_ = false;
  asked_ = question::none;
  expected_ = 0;
  event_add(retry_.get(), &pause);
}

void lease_link::reconnect() { close(); }

void lease_link::broken(std::string_view why) {
  try {
    if (reported_.emplace(why).second)
      PLATFORM_ERROR("the store does not say who is active: %.*s; it is asked again", static_cast<int>(why.size()),
                     why.data());
  } catch (const std::bad_alloc &) {
    PLATFORM_ERROR("the store does not say who is active, and memory is exhausted");
  }
  close();
  user_.lost();
}

void lease_link::lost(redis_link &, const std::string &why) { broken(why); }

// ---- questions ----

void lease_link::ask(question what, unsigned answers) {
  asked_ = what;
  expected_ += answers;
  link_->send(command_);
}

void lease_link::look() {
  command_.clear();
  append_command(command_, {"UNWATCH"});
  append_command(command_, {"WATCH", lease_key_});
  append_command(command_, {"GET", lease_key_});
  append_command(command_, {"GET", active_key_});
  ask(question::look, 4);
}

void lease_link::take(std::string_view holder) {
  command_.clear();
  append_command(command_, {"MULTI"});
  append_command(command_, {"SET", lease_key_, holder, "NX", "PX", lease_ms_});
  append_command(command_, {"SET", active_key_, holder});
  append_command(command_, {"EXEC"});
  ask(question::take, 4);
}

// A server before Redis 6.0.9 carries it out when the lease has run out since it was seen; then the GET brings nothing.
void lease_link::renew() {
  command_.clear();
  append_command(command_, {"MULTI"});
  append_command(command_, {"PEXPIRE", lease_key_, lease_ms_});
  append_command(command_, {"GET", lease_key_});
  append_command(command_, {"EXEC"});
  ask(question::renew, 4);
}

void lease_link::give_back() {
  command_.clear();
  append_command(command_, {"MULTI"});
  append_command(command_, {"DEL", lease_key_});
  append_command(command_, {"EXEC"});
  ask(question::give_back, 3);
}

void lease_link::answered(redis_link &, const redis_answer &answer) try {
  if (!answer.errors.empty()) return broken(answer.first_error());
  if (expected_ == 0) return broken("it answers what it was not asked");
  --expected_;
  if (asked_ == question::look && expected_ == 1) holder_ = text_of(answer);
  if (asked_ != question::none && expected_ == 0) on_last(answer);
} catch (const std::bad_alloc &) {
  broken("memory is exhausted");
}

void lease_link::on_last(const redis_answer &answer) {
  const question what = std::exchange(asked_, question::none);
  if (what == question::look) {
    reported_.clear();
    return user_.seen(holder_, text_of(answer));
  }
  const bool is_carried_out = answer.type == REDIS_REPLY_ARRAY;
  user_.changed(is_carried_out && (what != question::renew || !answer.texts.empty()));
}

}  // namespace ko_store
