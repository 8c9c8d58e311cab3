#include "store/redis_engine.h"

#include <hiredis/hiredis.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "platform_log.h"
#include "store/layout.h"

namespace ko_store {
namespace {

constexpr int first_pause_ms = 50;
constexpr int longest_pause_ms = 5'000;
constexpr std::string_view page_size = "1000";   // records of one scan step
constexpr size_t most_unanswered = 8192;         // requests; above, long work waits
constexpr size_t few_unanswered = 2048;          // below, it goes on
constexpr size_t most_unsent = size_t{1} << 20;  // bytes
constexpr timeval at_once{0, 0};
constexpr timeval patience{1, 0};   // without an answer, before that is said
constexpr int most_late = 30;       // times that, before the connections are made anew
constexpr timeval idle_time{5, 0};  // without a word, before the server is asked for one

void append_command(std::string &out, std::initializer_list<std::string_view> words) {
  append_head(out, words.size());
  for (const std::string_view word : words) append_word(out, word);
}

}  // namespace

redis_engine::redis_engine(vx_global &global, ko_platform::store_address address)
    : base_(ko_platform::context_of(&global).base.get()), address_(std::move(address)) {
  retry_.reset(event_new(
      base_, -1, 0, [](evutil_socket_t, short, void *self) { static_cast<redis_engine *>(self)->connect(); }, this));
  watch_.reset(event_new(
      base_, -1, 0, [](evutil_socket_t, short, void *self) { static_cast<redis_engine *>(self)->look(); }, this));
  poke_.reset(event_new(
      base_, -1, EV_PERSIST, [](evutil_socket_t, short, void *self) { static_cast<redis_engine *>(self)->poke(); },
      this));
  if (retry_ == nullptr || watch_ == nullptr || poke_ == nullptr) throw std::bad_alloc();
}

void redis_engine::serve(const std::string &program) {
  program_ = program;
  request_channel_ = program.empty() ? "" : program + ".request";
}

void redis_engine::start(engine_user &user, std::vector<hash_id> hashes, size_t n_inputs) {
  close();
  user_ = &user;
  hashes_ = std::move(hashes);
  channels_.clear();
  for (const hash_id &id : hashes_) channels_.push_back(channel_name(id.db, id.type->name));
  n_inputs_ = n_inputs;
  subscription_.clear();
  for (size_t i = 0; i < n_inputs_; ++i) subscription_.append(i == 0 ? "" : ", ").append(channels_[i]);
  while (queued_ > 0) drop_oldest();
  event_add(retry_.get(), &at_once);
  event_add(poke_.get(), &idle_time);
}

// ---- connections ----

// Every database is selected once before anything is written: a command that follows a refused SELECT would go to the
// database before it.
void redis_engine::connect() try {
  ready_ = false;
  subscriptions_ = 0;
  selected_db_ = 0;
  redis_link_user &self = *this;
  writer_ = std::make_unique<redis_link>(base_, address_, self);
  command_.clear();
  unsigned answers = log_in();
  for (const hash_id &id : hashes_) {
    if (selected_db_ == id.db) continue;
    append_command(command_, {"SELECT", std::to_string(id.db)});
    selected_db_ = id.db;
    ++answers;
  }
  ask({.kind = request::login, .answers = answers});
  if (!program_.empty()) {
    command_.clear();
    append_name();
    ask({.kind = request::name, .answers = 1});
  }
  reader_ = std::make_unique<redis_link>(base_, address_, self);
  subscribe();
} catch (const std::bad_alloc &) {
  broken("memory is exhausted");
}

// Appends the login, if there is something to log in with, and a command that a server refuses while it is loading,
// whatever it says to the login. Returns how many answers there will be.
unsigned redis_engine::log_in() {
  const bool named = !address_.user.empty();
  const bool known = !address_.password.empty();
  if (known && named) append_command(command_, {"AUTH", address_.user, address_.password});
  if (known && !named) append_command(command_, {"AUTH", address_.password});
  append_command(command_, {"PING"});
  return known ? 2 : 1;
}

void redis_engine::append_name() { append_command(command_, {"CLIENT", "SETNAME", program_}); }

// The channel of the requests has a command of its own: where it is refused, the inputs are not.
void redis_engine::subscribe() {
  command_.clear();
  reader_logins_ = log_in();
  reader_named_ = program_.empty();
  reader_poked_ = false;
  if (!reader_named_) append_name();
  if (n_inputs_ > 0) {
    append_head(command_, n_inputs_ + 1);
    append_word(command_, "SUBSCRIBE");
    for (size_t i = 0; i < n_inputs_; ++i) append_word(command_, channels_[i]);
  }
  if (!request_channel_.empty()) append_command(command_, {"SUBSCRIBE", request_channel_});
  reader_->send(command_);
  watch();
}

void redis_engine::on_subscription(const redis_answer &answer) {
  if (!answer.error.empty()) return on_subscription_error(answer.error);
  const std::string_view what = answer.texts.empty() ? std::string_view() : answer.texts[0];
  if (reader_logins_ > 0) {
    --reader_logins_;
  } else if (!reader_named_) {
    reader_named_ = true;
  } else if (answer.texts.size() == 2 && what == "pong") {
    reader_poked_ = false;
  } else if (answer.texts.size() == 2 && what == "subscribe" && answer.texts[1] != request_channel_) {
    ++subscriptions_;
    check_up();
  } else if (answer.texts.size() == 3 && what == "message" && up_) {
    on_message(answer);
  }
}

void redis_engine::on_subscription_error(std::string_view why) {
  if (reader_logins_ == 0 && !std::exchange(reader_named_, true))
    return tell_refusal("name its connections", program_, why);
  if (reader_logins_ == 0 && subscriptions_ == n_inputs_) return tell_refusal("listen to", request_channel_, why);
  if (reader_logins_ == 0 && !told_.contains(why))
    PLATFORM_ERROR("the subscription to %s is refused", subscription_.c_str());
  broken(why);
}

// The store serves without it.
void redis_engine::tell_refusal(const char *what, std::string_view where, std::string_view why) {
  if (!refused_.emplace(what).second) return;
  PLATFORM_WARN("the store does not let this process %s %.*s: %.*s", what, static_cast<int>(where.size()), where.data(),
                static_cast<int>(why.size()), why.data());
}

void redis_engine::on_message(const redis_answer &answer) {
  if (answer.texts[1] == request_channel_) return user_->requested(answer.texts[2]);
  const auto channels_end = channels_.begin() + static_cast<std::ptrdiff_t>(n_inputs_);
  const auto channel = std::find(channels_.begin(), channels_end, answer.texts[1]);
  if (channel == channels_end) return;
  const auto input = static_cast<size_t>(channel - channels_.begin());
  const auto what = parse_announcement(hashes_[input], answer.texts[2]);
  if (what.has_value())
    user_->changed(input, *what);
  else
    user_->malformed(input);
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

void redis_engine::lost(redis_link &, const std::string &why) { broken(why); }

void redis_engine::close() {
  event_del(retry_.get());
  reader_.reset();
  writer_.reset();
  up_ = false;
  late_ = 0;
  was_congested_ = false;
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
  close();  // `why` may be gone now
  if (was_up) user_->down();
  for (; queued_ > 0; drop_oldest())
    if (was_up && oldest().kind == request::write) user_->not_written(oldest_change(), {});
  retry_later();
}

void redis_engine::retry_later() {
  pause_ms_ = std::clamp(2 * pause_ms_, first_pause_ms, longest_pause_ms);
  const timeval pause{pause_ms_ / 1000, pause_ms_ % 1000 * 1000L};
  event_add(retry_.get(), &pause);
}

// ---- requests ----

void redis_engine::answered(redis_link &link, const redis_answer &answer) try {
  ++answers_;
  if (std::exchange(silent_, false)) PLATFORM_WARN("the store answers again");
  if (&link == reader_.get())
    on_subscription(answer);
  else
    on_request(answer);
} catch (const std::bad_alloc &) {
  broken("memory is exhausted");
}

void redis_engine::on_request(const redis_answer &answer) {
  if (queued_ == 0) return broken("it answers what it was not asked");
  if (error_.empty()) error_ = answer.error;
  const awaited asked = oldest();
  if (++answered_ < asked.answers) return;
  switch (asked.kind) {
    case request::login:
    case request::select:
      if (!error_.empty()) return broken(error_);
      drop_oldest();
      ready_ = ready_ || asked.kind == request::login;
      return check_up();
    case request::name:
      if (!error_.empty()) tell_refusal("name its connections", program_, error_);
      error_.clear();
      return drop_oldest();
    case request::publish:
      if (!error_.empty()) tell_refusal("answer on", oldest_key(), error_);
      error_.clear();
      return drop_oldest();
    case request::ping:
      error_.clear();
      return drop_oldest();
    case request::page:
      return on_page(answer);
    case request::fetch:
      return on_fetched(answer);
    case request::write:
      return on_outcome(answer);
  }
}

void redis_engine::select(uint32_t db) {
  if (selected_db_ == db) return;
  command_.clear();
  append_command(command_, {"SELECT", std::to_string(db)});
  ask({.kind = request::select, .answers = 1});
  selected_db_ = db;
}

void redis_engine::scan(size_t hash) { ask_page(hash, "0"); }

void redis_engine::ask_page(size_t hash, std::string_view cursor) {
  select(hashes_[hash].db);
  command_.clear();
  append_command(command_, {"HSCAN", hashes_[hash].type->name, cursor, "COUNT", page_size});
  ask({.kind = request::page, .answers = 1, .hash = hash});
}

void redis_engine::on_page(const redis_answer &answer) {
  const size_t hash = oldest().hash;
  drop_oldest();
  const std::string why = std::exchange(error_, {});
  if (!why.empty() || answer.type != REDIS_REPLY_ARRAY || answer.texts.size() % 2 == 0)
    return user_->unreadable(hash, why.empty() ? "the answer is no page" : why);
  std::vector<change> records;
  records.reserve(answer.texts.size() / 2);
  for (size_t i = 1; i < answer.texts.size(); i += 2)
    records.push_back({hashes_[hash], change_kind::set, answer.texts[i], answer.texts[i + 1]});
  const bool last = answer.texts[0] == "0";
  if (!last) ask_page(hash, answer.texts[0]);
  user_->page(hash, records, last);
}

void redis_engine::fetch(size_t input, std::string_view key) {
  select(hashes_[input].db);
  command_.clear();
  append_command(command_, {"HGET", hashes_[input].type->name, key});
  ask({.kind = request::fetch, .answers = 1, .hash = input}, key);
}

// When it cannot be read, what was known of it stands.
void redis_engine::on_fetched(const redis_answer &answer) {
  const size_t input = oldest().hash;
  const std::string key(oldest_key());
  drop_oldest();
  const std::string why = std::exchange(error_, {});
  if (answer.type == REDIS_REPLY_STRING)
    user_->fetched(input, key, answer.texts[0]);
  else if (answer.type == REDIS_REPLY_NIL)
    user_->fetched(input, key, std::nullopt);
  else if (!why.empty() && told_.insert(why).second)
    PLATFORM_ERROR("a record on %s cannot be read again: %s", channels_[input].c_str(), why.c_str());
}

const redis_engine::hash_words &redis_engine::words_of(const hash_id &id) {
  for (const hash_words &known : words_)
    if (known.id == id) return known;
  hash_words made{id, {}, {}};
  append_word(made.name, id.type->name);
  append_word(made.channel, channel_name(id.db, id.type->name));
  return words_.emplace_back(std::move(made));
}

void redis_engine::write(const change &what) {
  const hash_words &words = words_of(what.hash);
  const bool stored = what.kind != change_kind::publish;
  if (stored) select(what.hash.db);
  command_.clear();
  if (stored) {
    command_.append("*1\r\n$5\r\nMULTI\r\n");
    command_.append(what.kind == change_kind::set ? "*4\r\n$4\r\nHSET\r\n" : "*3\r\n$4\r\nHDEL\r\n").append(words.name);
    append_word(command_, what.key);
    if (what.kind == change_kind::set) append_word(command_, what.record);
  }
  command_.append("*3\r\n$7\r\nPUBLISH\r\n").append(words.channel);
  append_length(command_, announcement_size(what));
  append_announcement(what, command_);
  command_.append("\r\n");
  if (stored) command_.append("*1\r\n$4\r\nEXEC\r\n");

  ask({.kind = request::write, .change = what.kind, .answers = stored ? 4U : 1U, .changed = what.hash}, what.key,
      what.record);
}

void redis_engine::publish(std::string_view channel, std::string_view text) {
  command_.clear();
  append_command(command_, {"PUBLISH", channel, text});
  ask({.kind = request::publish, .answers = 1}, channel);
}

// The end of a transaction, or the answer to a lone PUBLISH.
void redis_engine::on_outcome(const redis_answer &answer) {
  if (answer.type == REDIS_REPLY_NIL && error_.empty()) error_ = "the transaction was dropped";
  if (!error_.empty()) {
    user_->not_written(oldest_change(), error_);
    error_.clear();
  }
  drop_oldest();
  if (!was_congested_ || queued_ > few_unanswered) return;
  was_congested_ = false;
  user_->relieved();
}

bool redis_engine::congested() const {
  const bool now = queued_ > most_unanswered || (writer_ != nullptr && writer_->unsent() > most_unsent);
  was_congested_ = was_congested_ || now;
  return now;
}

// ---- requests without an answer ----

// Sends the command and notes that its answers are awaited; or throws, and neither has happened.
void redis_engine::ask(awaited what, std::string_view key, std::string_view record) {
  what.key_size = key.size();
  what.record_size = record.size();
  const size_t size = queue_.size();
  try {
    queue_.append(reinterpret_cast<const char *>(&what), sizeof(what)).append(key).append(record);
    writer_->send(command_);
  } catch (const std::bad_alloc &) {
    queue_.resize(size);
    throw;
  }
  ++queued_;
  if (what.kind == request::write) ++writes_;
  watch();
}

redis_engine::awaited redis_engine::oldest() const {
  awaited found;
  std::memcpy(&found, queue_.data() + queue_start_, sizeof(found));
  return found;
}

change redis_engine::oldest_change() const {
  const awaited what = oldest();
  const char *record = oldest_key().data() + what.key_size;
  return {what.changed, what.change, oldest_key(), {record, what.record_size}};
}

void redis_engine::drop_oldest() {
  const awaited gone = oldest();
  queue_start_ += sizeof(gone) + gone.key_size + gone.record_size;
  --queued_;
  if (gone.kind == request::write) --writes_;
  answered_ = 0;
  if (queued_ > 0 && queue_start_ <= queue_.size() / 2) return;
  queue_.erase(0, std::exchange(queue_start_, 0));  // half of it at least, so that a byte is moved once on average
}

// ---- a server that does not answer ----

void redis_engine::watch() {
  if (watching_) return;
  watching_ = true;
  seen_ = answers_;
  event_add(watch_.get(), &patience);
}

// Looks again while there is something to wait for; the next command starts it otherwise.
void redis_engine::look() {
  watching_ = false;
  const bool awaits = queued_ > 0 || (reader_ != nullptr && (subscriptions_ < n_inputs_ || reader_poked_));
  late_ = awaits && answers_ == seen_ ? late_ + 1 : 0;
  if (!awaits) return;
  if (late_ > 0 && !std::exchange(silent_, true))
    PLATFORM_ERROR("the store does not answer; its answers are waited for");
  if (late_ >= most_late) return broken("it has not answered for half a minute");
  watch();
}

// A server that has nothing to say could be gone, and a connection that nobody uses could have been forgotten on its
// way.
void redis_engine::poke() {
  const bool idle = up_ && queued_ == 0 && answers_ == poked_;
  poked_ = answers_;
  if (!idle) return;
  try {
    command_.clear();
    append_command(command_, {"PING"});
    reader_->send(command_);
    reader_poked_ = true;
    ask({.kind = request::ping, .answers = 1});
  } catch (const std::bad_alloc &) {
    broken("memory is exhausted");
  }
}

}  // namespace ko_store
