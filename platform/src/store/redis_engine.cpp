#include "store/redis_engine.h"

#include <hiredis/async.h>
#include <hiredis/hiredis.h>
#include <hiredis/sds.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "platform_log.h"

namespace ko_store {
namespace {

constexpr int first_pause_ms = 50;
constexpr int longest_pause_ms = 5'000;
constexpr std::string_view page_size = "1000";   // records of one scan step
constexpr size_t most_unanswered = 8192;         // writes; above, long work waits
constexpr size_t few_unanswered = 2048;          // below, it goes on
constexpr size_t most_unsent = size_t{1} << 20;  // bytes
constexpr timeval at_once{0, 0};

std::string_view text_of(const redisReply &reply) { return {reply.str, reply.len}; }

bool is_error(const redisReply *reply) { return reply != nullptr && reply->type == REDIS_REPLY_ERROR; }

// hiredis' hooks into the loop. Reading stays enabled for the connection's life.
struct loop_hooks {
  ko_platform::event_ptr readable;
  ko_platform::event_ptr writable;
};

loop_hooks &hooks_of(void *data) { return *static_cast<loop_hooks *>(data); }

void attach(redisAsyncContext *connection, event_base *base) {
  auto hooks = std::make_unique<loop_hooks>();
  const int file = connection->c.fd;
  hooks->readable.reset(event_new(
      base, file, EV_READ | EV_PERSIST,
      [](evutil_socket_t, short, void *c) { redisAsyncHandleRead(static_cast<redisAsyncContext *>(c)); }, connection));
  hooks->writable.reset(event_new(
      base, file, EV_WRITE,
      [](evutil_socket_t, short, void *c) { redisAsyncHandleWrite(static_cast<redisAsyncContext *>(c)); }, connection));
  if (hooks->readable == nullptr || hooks->writable == nullptr) throw std::bad_alloc();
  connection->ev.addRead = [](void *data) {
    if (event_pending(hooks_of(data).readable.get(), EV_READ, nullptr) == 0)
      event_add(hooks_of(data).readable.get(), nullptr);
  };
  connection->ev.delRead = [](void *data) { event_del(hooks_of(data).readable.get()); };
  connection->ev.addWrite = [](void *data) {
    if (event_pending(hooks_of(data).writable.get(), EV_WRITE, nullptr) == 0)
      event_add(hooks_of(data).writable.get(), nullptr);
  };
  connection->ev.delWrite = [](void *data) { event_del(hooks_of(data).writable.get()); };
  connection->ev.cleanup = [](void *data) { delete &hooks_of(data); };
  connection->ev.data = hooks.release();
  connection->ev.addWrite(connection->ev.data);  // becoming writable is how an open connection shows itself
}

// The library does not survive the failure of an allocation of its own.
void end_if_exhausted(const redisAsyncContext *connection) {
  if (connection != nullptr && connection->err != REDIS_ERR_OOM) return;
  PLATFORM_ERROR("memory is exhausted in the connection to the store; the process ends, to be started again");
  std::_Exit(EXIT_FAILURE);
}

void append_bulk(std::string &out, std::string_view word) {
  out.append("$").append(std::to_string(word.size())).append("\r\n").append(word).append("\r\n");
}

}  // namespace

redis_engine::redis_engine(vx_global &global, ko_platform::store_address address)
    : base_(ko_platform::context_of(&global).base.get()), address_(std::move(address)) {
  retry_.reset(event_new(
      base_, -1, 0, [](evutil_socket_t, short, void *self) { static_cast<redis_engine *>(self)->connect(); }, this));
  if (retry_ == nullptr) throw std::bad_alloc();
}

redis_engine::~redis_engine() { close(); }

void redis_engine::start(engine_user &user, std::vector<hash_id> hashes, size_t n_inputs) {
  close();
  user_ = &user;
  hashes_ = std::move(hashes);
  channels_.clear();
  for (const hash_id &id : hashes_) channels_.push_back(channel_name(id.db, id.type->name));
  n_inputs_ = n_inputs;
  ring_used_ = 0;
  event_add(retry_.get(), &at_once);
}

// ---- connections ----

redisAsyncContext *redis_engine::open(bool subscribes) {
  redisAsyncContext *connection = address_.socket.empty() ? redisAsyncConnect(address_.host.c_str(), address_.port)
                                                          : redisAsyncConnectUnix(address_.socket.c_str());
  end_if_exhausted(connection);
  if (connection->err != 0) {
    const std::string why = connection->errstr;
    redisAsyncFree(connection);
    broken(why);
    return nullptr;
  }
  connection->data = this;
  attach(connection, base_);
  redisAsyncSetConnectCallback(connection, [](const redisAsyncContext *c, int status) {
    auto *self = static_cast<redis_engine *>(c->data);
    if (status == REDIS_OK || self == nullptr) return;
    (c == self->writer_ ? self->writer_ : self->reader_) = nullptr;  // freed by the library
    self->broken(c->errstr);
  });
  redisAsyncSetDisconnectCallback(connection, [](const redisAsyncContext *c, int) {
    auto *self = static_cast<redis_engine *>(c->data);
    if (self == nullptr) return;
    end_if_exhausted(c);
    (c == self->writer_ ? self->writer_ : self->reader_) = nullptr;
    self->broken(c->err == 0 ? "the connection was closed" : c->errstr);
  });
  (subscribes ? reader_ : writer_) = connection;
  return connection;
}

void redis_engine::connect() try {
  ready_ = false;
  subscriptions_ = 0;
  selected_db_ = 0;
  if (open(false) == nullptr || !log_in(writer_, &redis_engine::logged_in)) return;
  if (open(true) == nullptr) return;
  log_in(reader_, &redis_engine::logged_in);
} catch (const std::bad_alloc &) {
  broken("memory is exhausted");
}

// Sends AUTH when there is something to log in with, and a PING otherwise; `then` gets the answer.
bool redis_engine::log_in(redisAsyncContext *connection, void (*then)(redisAsyncContext *, void *, void *)) {
  const bool named = !address_.user.empty();
  std::vector<const char *> words{"AUTH"};
  if (named) words.push_back(address_.user.c_str());
  words.push_back(address_.password.c_str());
  if (address_.password.empty()) words = {"PING"};
  std::vector<size_t> lengths(words.size());
  std::transform(words.begin(), words.end(), lengths.begin(), std::strlen);
  return redisAsyncCommandArgv(connection, then, this, static_cast<int>(words.size()), words.data(), lengths.data()) ==
         REDIS_OK;
}

void redis_engine::logged_in(redisAsyncContext *connection, void *answer, void *self_pointer) {
  auto &self = *static_cast<redis_engine *>(self_pointer);
  const auto *reply = static_cast<const redisReply *>(answer);
  if (reply == nullptr || connection->data == nullptr) return;
  if (is_error(reply)) return self.broken(std::string(text_of(*reply)));
  if (connection == self.reader_) return self.subscribe();
  redisAsyncCommand(connection, &redis_engine::pinged, &self, "PING");
}

// A server that is still loading refuses this, whatever it said to the login.
void redis_engine::pinged(redisAsyncContext *connection, void *answer, void *self_pointer) {
  auto &self = *static_cast<redis_engine *>(self_pointer);
  const auto *reply = static_cast<const redisReply *>(answer);
  if (reply == nullptr || connection->data == nullptr) return;
  if (is_error(reply)) return self.broken(std::string(text_of(*reply)));
  self.ready_ = true;
  self.check_up();
}

void redis_engine::subscribe() {
  std::vector<const char *> words{"SUBSCRIBE"};
  std::vector<size_t> lengths{std::strlen(words[0])};
  for (size_t i = 0; i < n_inputs_; ++i) {
    words.push_back(channels_[i].c_str());
    lengths.push_back(channels_[i].size());
  }
  if (n_inputs_ == 0) return check_up();
  redisAsyncCommandArgv(reader_, &redis_engine::subscribed, this, static_cast<int>(words.size()), words.data(),
                        lengths.data());
}

void redis_engine::subscribed(redisAsyncContext *connection, void *answer, void *self_pointer) {
  auto &self = *static_cast<redis_engine *>(self_pointer);
  const auto *reply = static_cast<const redisReply *>(answer);
  if (reply == nullptr || connection != self.reader_) return;
  if (is_error(reply)) return self.broken(std::string(text_of(*reply)));
  if (reply->type != REDIS_REPLY_ARRAY || reply->elements != 3) return;
  const std::string_view what = text_of(*reply->element[0]);
  if (what == "subscribe") {
    ++self.subscriptions_;
    self.check_up();
  } else if (what == "message") {
    self.on_message(*reply);
  }
}

void redis_engine::check_up() {
  if (up_ || !ready_ || subscriptions_ < n_inputs_) return;
  up_ = true;
  pause_ms_ = 0;
  if (told_.empty())
    PLATFORM_INFO("connected to the store at %s", to_string(address_).c_str());
  else
    PLATFORM_WARN("connected to the store at %s", to_string(address_).c_str());
  told_.clear();
  user_->up();
}

void redis_engine::on_message(const redisReply &reply) {
  if (!up_) return;
  const std::string_view channel = text_of(*reply.element[1]);
  for (size_t i = 0; i < n_inputs_; ++i) {
    if (channels_[i] != channel) continue;
    const auto what = parse_announcement(text_of(*reply.element[2]));
    if (what.has_value())
      user_->changed(i, *what);
    else
      user_->malformed(i);
    return;
  }
}

void redis_engine::close() {
  if (retry_ != nullptr) event_del(retry_.get());
  for (redisAsyncContext **connection : {&reader_, &writer_}) {
    redisAsyncContext *old = std::exchange(*connection, nullptr);
    if (old == nullptr) continue;
    old->data = nullptr;
    redisAsyncFree(old);
  }
  up_ = false;
  scanning_.clear();
  fetching_.clear();
  error_.clear();
}

void redis_engine::broken(const std::string &why) {
  const bool was_up = up_;
  close();
  if (told_.insert(why).second)
    PLATFORM_ERROR("the store at %s cannot be used: %s; it is tried again with growing pauses",
                   to_string(address_).c_str(), why.c_str());
  if (was_up) {
    user_->down();
    for (; ring_used_ > 0; drop_written()) {
      const written &lost = *oldest();
      user_->undone({lost.hash, lost.kind, lost.key, lost.record}, {});
    }
  }
  retry_later();
}

void redis_engine::retry_later() {
  pause_ms_ = std::clamp(2 * pause_ms_, first_pause_ms, longest_pause_ms);
  const timeval pause{pause_ms_ / 1000, pause_ms_ % 1000 * 1000L};
  event_add(retry_.get(), &pause);
}

// ---- commands ----

template <void (redis_engine::*on_reply)(const redisReply *)>
void redis_engine::answer(redisAsyncContext *connection, void *reply, void *self_pointer) {
  auto &self = *static_cast<redis_engine *>(self_pointer);
  if (reply == nullptr || connection != self.writer_) return;  // the connection is gone
  (self.*on_reply)(static_cast<const redisReply *>(reply));
}

// Answers on the way to an outcome: only errors matter.
void redis_engine::noticed(redisAsyncContext *connection, void *reply, void *self_pointer) {
  auto &self = *static_cast<redis_engine *>(self_pointer);
  if (connection != self.writer_ || !is_error(static_cast<const redisReply *>(reply))) return;
  if (self.error_.empty()) self.error_ = text_of(*static_cast<const redisReply *>(reply));
}

void redis_engine::send(std::initializer_list<std::string_view> words,
                        void (*answered)(redisAsyncContext *, void *, void *)) {
  command_.clear();
  command_.append("*").append(std::to_string(words.size())).append("\r\n");
  for (const std::string_view word : words) append_bulk(command_, word);
  redisAsyncFormattedCommand(writer_, answered, this, command_.data(), command_.size());
}

void redis_engine::select(uint32_t db) {
  if (selected_db_ == db) return;
  selected_db_ = db;
  send({"SELECT", std::to_string(db)}, &redis_engine::noticed);
}

void redis_engine::scan(size_t hash) { ask_page(hash, "0"); }

void redis_engine::ask_page(size_t hash, std::string_view cursor) {
  select(hashes_[hash].db);
  scanning_.push_back(hash);
  send({"HSCAN", hashes_[hash].type->name, cursor, "COUNT", page_size}, &answer<&redis_engine::on_page>);
}

void redis_engine::on_page(const redisReply *reply) {
  const size_t hash = scanning_.front();
  scanning_.pop_front();
  if (is_error(reply) || reply->type != REDIS_REPLY_ARRAY || reply->elements != 2) {
    const std::string why = error_.empty() ? std::string(is_error(reply) ? text_of(*reply) : "no page") : error_;
    error_.clear();
    return user_->unreadable(hash, why);
  }
  const std::string cursor(text_of(*reply->element[0]));
  const redisReply &fields = *reply->element[1];
  std::vector<stored_record> records;
  records.reserve(fields.elements / 2);
  for (size_t i = 0; i + 1 < fields.elements; i += 2)
    records.push_back({text_of(*fields.element[i]), text_of(*fields.element[i + 1])});
  const bool last = cursor == "0";
  if (!last) ask_page(hash, cursor);
  user_->page(hash, records, last);
}

void redis_engine::fetch(size_t input, std::string_view key) {
  select(hashes_[input].db);
  fetching_.push_back({input, std::string(key)});
  send({"HGET", hashes_[input].type->name, key}, &answer<&redis_engine::on_fetched>);
}

void redis_engine::on_fetched(const redisReply *reply) {
  const fetching asked = std::move(fetching_.front());
  fetching_.pop_front();
  if (reply->type == REDIS_REPLY_STRING)
    user_->fetched(asked.input, asked.key, text_of(*reply));
  else if (reply->type == REDIS_REPLY_NIL)
    user_->fetched(asked.input, asked.key, std::nullopt);
}

void redis_engine::write(const change &what) {
  written &entry = add_written();
  entry.hash = what.hash;
  entry.kind = what.kind;
  entry.key = what.key;
  entry.record = what.record;

  const std::string_view name = what.hash.type->name;
  thread_local std::string bytes;
  thread_local std::string channel;
  bytes.clear();
  append_announcement({what.kind, what.key, what.record}, bytes);
  channel = channel_name(what.hash.db, name);
  if (what.kind == change_kind::publish) return send({"PUBLISH", channel, bytes}, &answer<&redis_engine::on_outcome>);
  select(what.hash.db);
  send({"MULTI"}, &redis_engine::noticed);
  if (what.kind == change_kind::set)
    send({"HSET", name, what.key, what.record}, &redis_engine::noticed);
  else
    send({"HDEL", name, what.key}, &redis_engine::noticed);
  send({"PUBLISH", channel, bytes}, &redis_engine::noticed);
  send({"EXEC"}, &answer<&redis_engine::on_outcome>);
}

// The end of a transaction, or the answer to a lone PUBLISH.
void redis_engine::on_outcome(const redisReply *reply) {
  std::string why = std::move(error_);
  error_.clear();
  if (is_error(reply) && why.empty()) why = text_of(*reply);
  if (reply->type == REDIS_REPLY_NIL && why.empty()) why = "the transaction was dropped";
  for (size_t i = 0; why.empty() && reply->type == REDIS_REPLY_ARRAY && i < reply->elements; ++i)
    if (is_error(reply->element[i])) why = text_of(*reply->element[i]);
  if (!why.empty()) {
    const written &refused = *oldest();
    user_->undone({refused.hash, refused.kind, refused.key, refused.record}, why);
  }
  drop_written();
  if (!was_congested_ || ring_used_ > few_unanswered) return;
  was_congested_ = false;
  user_->relieved();
}

bool redis_engine::congested() const {
  const bool now = ring_used_ > most_unanswered || (writer_ != nullptr && sdslen(writer_->c.obuf) > most_unsent);
  was_congested_ = was_congested_ || now;
  return now;
}

// ---- writes without an answer ----

redis_engine::written &redis_engine::add_written() {
  if (ring_used_ == ring_.size()) {
    std::rotate(ring_.begin(), ring_.begin() + static_cast<std::ptrdiff_t>(ring_start_), ring_.end());
    ring_start_ = 0;
    ring_.resize(std::max<size_t>(64, 2 * ring_.size()));
  }
  return ring_[(ring_start_ + ring_used_++) & (ring_.size() - 1)];
}

redis_engine::written *redis_engine::oldest() { return &ring_[ring_start_]; }

void redis_engine::drop_written() {
  ring_start_ = (ring_start_ + 1) & (ring_.size() - 1);
  --ring_used_;
}

}  // namespace ko_store
