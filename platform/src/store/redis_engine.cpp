#include "store/redis_engine.h"

#include <hiredis/async.h>
#include <hiredis/hiredis.h>
#include <hiredis/sds.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdlib>
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
constexpr timeval patience{1, 0};     // without an answer, before that is said
constexpr int dead_peer_ms = 30'000;  // what was sent to another machine and not confirmed

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

// A connection to another machine that has gone without a word is noticed, too.
void expect_life(redisAsyncContext *connection) {
  redisEnableKeepAlive(&connection->c);
  setsockopt(connection->c.fd, IPPROTO_TCP, TCP_USER_TIMEOUT, &dead_peer_ms, sizeof(dead_peer_ms));
}

template <class Words>
void append_command(std::string &out, const Words &words) {
  out.append("*").append(std::to_string(words.size())).append("\r\n");
  for (const std::string_view word : words)
    out.append("$").append(std::to_string(word.size())).append("\r\n").append(word).append("\r\n");
}

}  // namespace

redis_engine::redis_engine(vx_global &global, ko_platform::store_address address)
    : base_(ko_platform::context_of(&global).base.get()), address_(std::move(address)) {
  retry_.reset(event_new(
      base_, -1, 0, [](evutil_socket_t, short, void *self) { static_cast<redis_engine *>(self)->connect(); }, this));
  watch_.reset(event_new(
      base_, -1, 0, [](evutil_socket_t, short, void *self) { static_cast<redis_engine *>(self)->look(); }, this));
  if (retry_ == nullptr || watch_ == nullptr) throw std::bad_alloc();
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

// Every answer comes through here. Nothing is thrown into the library, and nothing of a closed connection is looked at:
// its last answers are null, or come while it waits to be freed.
template <void (redis_engine::*on_reply)(const redisReply &)>
void redis_engine::answer(redisAsyncContext *connection, void *reply, void *self_pointer) {
  if (reply == nullptr || connection->data == nullptr) return;
  auto &self = *static_cast<redis_engine *>(self_pointer);
  ++self.answers_;
  if (std::exchange(self.silent_, false)) PLATFORM_WARN("the store answers again");
  try {
    (self.*on_reply)(*static_cast<const redisReply *>(reply));
  } catch (const std::bad_alloc &) {
    self.broken("memory is exhausted");
  }
}

// Begins a connection. False when that failed at once; another attempt is under way then.
bool redis_engine::open(bool subscribes) {
  redisAsyncContext *connection = address_.socket.empty() ? redisAsyncConnect(address_.host.c_str(), address_.port)
                                                          : redisAsyncConnectUnix(address_.socket.c_str());
  end_if_exhausted(connection);
  connection->data = this;
  (subscribes ? reader_ : writer_) = connection;
  if (connection->err != 0) {
    const std::string why = connection->errstr;
    broken(why);
    return false;
  }
  attach(connection, base_);
  if (address_.socket.empty()) expect_life(connection);
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
  return true;
}

void redis_engine::connect() try {
  ready_ = false;
  subscriptions_ = 0;
  if (!open(false)) return;
  log_in(writer_, &answer<&redis_engine::on_writer_login>);
  if (!open(true)) return;
  log_in(reader_, &answer<&redis_engine::on_reader_login>);
} catch (const std::bad_alloc &) {
  broken("memory is exhausted");
}

// Sends AUTH when there is something to log in with, and a PING otherwise; `then` gets the answer.
void redis_engine::log_in(redisAsyncContext *connection, callback then) {
  std::vector<std::string_view> words{"AUTH"};
  if (!address_.user.empty()) words.push_back(address_.user);
  words.push_back(address_.password);
  if (address_.password.empty()) words = {"PING"};
  submit(connection, words, then);
}

void redis_engine::submit(redisAsyncContext *connection, const std::vector<std::string_view> &words, callback then) {
  command_.clear();
  append_command(command_, words);
  watch();
  redisAsyncFormattedCommand(connection, then, this, command_.data(), command_.size());
}

// Every database is selected once before anything is written: a command that follows a refused SELECT would go to the
// database before it.
void redis_engine::on_writer_login(const redisReply &reply) {
  if (is_error(&reply)) return broken(text_of(reply));
  selected_db_ = 0;
  for (const hash_id &id : hashes_) select(id.db);
  submit(writer_, {"PING"}, &answer<&redis_engine::on_ready>);
}

void redis_engine::on_selected(const redisReply &reply) {
  if (is_error(&reply)) broken(text_of(reply));
}

// A server that is still loading refuses this, whatever it said to the login.
void redis_engine::on_ready(const redisReply &reply) {
  if (is_error(&reply)) return broken(text_of(reply));
  ready_ = true;
  check_up();
}

void redis_engine::on_reader_login(const redisReply &reply) {
  if (is_error(&reply)) return broken(text_of(reply));
  std::vector<std::string_view> words{"SUBSCRIBE"};
  words.insert(words.end(), channels_.begin(), channels_.begin() + static_cast<std::ptrdiff_t>(n_inputs_));
  if (n_inputs_ == 0) return check_up();
  submit(reader_, words, &answer<&redis_engine::on_subscription>);
}

void redis_engine::on_subscription(const redisReply &reply) {
  if (is_error(&reply)) return broken(text_of(reply));
  if (reply.type != REDIS_REPLY_ARRAY || reply.elements != 3) return;
  const std::string_view what = text_of(*reply.element[0]);
  if (what == "message") return on_message(reply);
  if (what != "subscribe") return;
  ++subscriptions_;
  check_up();
}

void redis_engine::check_up() {
  if (up_ || !ready_ || subscriptions_ < n_inputs_) return;
  up_ = true;
  up_since_ = std::chrono::steady_clock::now();
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
  event_del(retry_.get());
  for (redisAsyncContext **connection : {&reader_, &writer_}) {
    redisAsyncContext *old = std::exchange(*connection, nullptr);
    if (old == nullptr) continue;
    old->data = nullptr;
    redisAsyncFree(old);
  }
  up_ = false;
  silent_ = false;
  was_congested_ = false;
  scanning_.clear();
  fetching_.clear();
  error_.clear();
}

// A connection that did not last long goes on with the pauses that it began with.
void redis_engine::broken(std::string_view why) {
  const bool was_up = up_;
  const auto lasted = std::chrono::steady_clock::now() - up_since_;
  if (was_up && lasted > std::chrono::milliseconds(longest_pause_ms)) pause_ms_ = 0;
  try {
    if (!told_.contains(why)) {
      told_.emplace(why);
      PLATFORM_ERROR("the store at %s cannot be used: %.*s; it is tried again with growing pauses",
                     to_string(address_).c_str(), static_cast<int>(why.size()), why.data());
    }
  } catch (const std::bad_alloc &) {
    PLATFORM_ERROR("the store cannot be used, and memory is exhausted");
  }
  close();
  if (was_up) {
    user_->down();
    for (; ring_used_ > 0; drop_written()) {
      const written &lost = oldest();
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

// Answers on the way to an outcome: only errors matter.
void redis_engine::on_queued(const redisReply &reply) {
  if (is_error(&reply) && error_.empty()) error_ = text_of(reply);
}

void redis_engine::send(std::initializer_list<std::string_view> words, callback then) {
  command_.clear();
  append_command(command_, words);
  watch();
  redisAsyncFormattedCommand(writer_, then, this, command_.data(), command_.size());
}

void redis_engine::select(uint32_t db) {
  if (selected_db_ == db) return;
  selected_db_ = db;
  send({"SELECT", std::to_string(db)}, &answer<&redis_engine::on_selected>);
}

void redis_engine::scan(size_t hash) { ask_page(hash, "0"); }

void redis_engine::ask_page(size_t hash, std::string_view cursor) {
  select(hashes_[hash].db);
  scanning_.push_back(hash);
  send({"HSCAN", hashes_[hash].type->name, cursor, "COUNT", page_size}, &answer<&redis_engine::on_page>);
}

void redis_engine::on_page(const redisReply &reply) {
  const size_t hash = scanning_.front();
  scanning_.pop_front();
  if (is_error(&reply)) return user_->unreadable(hash, text_of(reply));
  if (reply.type != REDIS_REPLY_ARRAY || reply.elements != 2) return user_->unreadable(hash, "the answer is no page");
  const std::string cursor(text_of(*reply.element[0]));
  const redisReply &fields = *reply.element[1];
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

// When it cannot be read, what was known of it stands.
void redis_engine::on_fetched(const redisReply &reply) {
  const fetching asked = std::move(fetching_.front());
  fetching_.pop_front();
  if (reply.type == REDIS_REPLY_STRING)
    user_->fetched(asked.input, asked.key, text_of(reply));
  else if (reply.type == REDIS_REPLY_NIL)
    user_->fetched(asked.input, asked.key, std::nullopt);
}

// Everything that needs memory comes first: half a transaction would be taken for the begin of the next.
void redis_engine::write(const change &what) {
  const std::string_view name = what.hash.type->name;
  announcement_.clear();
  append_announcement({what.kind, what.key, what.record}, announcement_);
  channel_.assign(std::to_string(what.hash.db)).append(":").append(name);
  if (what.kind != change_kind::publish) select(what.hash.db);

  command_.clear();
  size_t ends[4] = {};
  size_t n = 0;
  const auto append = [&](std::initializer_list<std::string_view> words) {
    append_command(command_, words);
    ends[n++] = command_.size();
  };
  if (what.kind != change_kind::publish) append({"MULTI"});
  if (what.kind == change_kind::set) append({"HSET", name, what.key, what.record});
  if (what.kind == change_kind::del) append({"HDEL", name, what.key});
  append({"PUBLISH", channel_, announcement_});
  if (what.kind != change_kind::publish) append({"EXEC"});
  add_written(what);
  watch();
  for (size_t i = 0, start = 0; i < n; start = ends[i++]) {
    const callback then = i + 1 < n ? &answer<&redis_engine::on_queued> : &answer<&redis_engine::on_outcome>;
    redisAsyncFormattedCommand(writer_, then, this, command_.data() + start, ends[i] - start);
  }
}

// The end of a transaction, or the answer to a lone PUBLISH.
void redis_engine::on_outcome(const redisReply &reply) {
  if (is_error(&reply) && error_.empty()) error_ = text_of(reply);
  if (reply.type == REDIS_REPLY_NIL && error_.empty()) error_ = "the transaction was dropped";
  for (size_t i = 0; error_.empty() && reply.type == REDIS_REPLY_ARRAY && i < reply.elements; ++i)
    if (is_error(reply.element[i])) error_ = text_of(*reply.element[i]);
  if (!error_.empty()) {
    const written &refused = oldest();
    user_->undone({refused.hash, refused.kind, refused.key, refused.record}, error_);
    error_.clear();
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

void redis_engine::add_written(const change &what) {
  if (ring_used_ == ring_.size()) {
    std::rotate(ring_.begin(), ring_.begin() + static_cast<std::ptrdiff_t>(ring_start_), ring_.end());
    ring_start_ = 0;
    ring_.resize(std::max<size_t>(64, 2 * ring_.size()));
  }
  written &entry = ring_[(ring_start_ + ring_used_) & (ring_.size() - 1)];
  entry.hash = what.hash;
  entry.kind = what.kind;
  entry.key = what.key;
  entry.record = what.record;
  ++ring_used_;
}

void redis_engine::drop_written() {
  ring_start_ = (ring_start_ + 1) & (ring_.size() - 1);
  --ring_used_;
}

// ---- a server that does not answer ----

void redis_engine::watch() {
  if (evtimer_pending(watch_.get(), nullptr) != 0) return;
  seen_ = answers_;
  event_add(watch_.get(), &patience);
}

// Looks again while there is something to wait for; the next command starts it otherwise.
void redis_engine::look() {
  const auto waits = [](const redisAsyncContext *c) { return c != nullptr && c->replies.head != nullptr; };
  if (!waits(writer_) && !waits(reader_)) return;
  if (answers_ == seen_ && !std::exchange(silent_, true))
    PLATFORM_ERROR("the store does not answer; its answers are waited for");
  watch();
}

}  // namespace ko_store
