#include "store/redis_engine.h"

#include <hiredis/hiredis.h>

#include <algorithm>
#include <new>
#include <utility>

#include "platform_log.h"
#include "store/layout.h"

namespace ko_store {
namespace {

constexpr int first_pause_ms = 50;
constexpr int longest_pause_ms = 5'000;
constexpr std::string_view page_size = "1000";  // records of one scan step
constexpr timeval at_once{0, 0};
constexpr timeval patience{1, 0};   // without an answer, before that is reported
constexpr int most_late = 30;       // times that, before the connections are made anew
constexpr timeval idle_time{5, 0};  // without a word, before the server is asked for one

// What one transaction holds at most; the server serves nobody else meanwhile.
constexpr size_t batch_writes = 500;
constexpr size_t batch_bytes = size_t{256} << 10;  // a single write may be larger

// Long work pauses above one of these, and resumes below both.
constexpr size_t pause_requests = 8192, resume_requests = 2048;
constexpr size_t pause_bytes = size_t{2} << 20, resume_bytes = size_t{1} << 19;

constexpr int64_t unknown_db = -1;
constexpr unsigned fence_commands = 3;
constexpr std::string_view multi = "*1\r\n$5\r\nMULTI\r\n";
constexpr std::string_view exec = "*1\r\n$4\r\nEXEC\r\n";

// Names and values, among them the role of the server that greets.
bool is_of_master(const redis_answer &greeting) {
  const auto role = std::find(greeting.texts.begin(), greeting.texts.end(), "role");
  return greeting.texts.end() - role > 1 && role[1] == "master";
}

}  // namespace

redis_engine::redis_engine(vx_global &global, ko_platform::store_address address)
    : base_(ko_platform::context_of(&global).base.get()), address_(std::move(address)) {
  retry_.reset(event_new(
      base_, -1, 0, [](evutil_socket_t, short, void *self) { static_cast<redis_engine *>(self)->begin(); }, this));
  send_.reset(event_new(
      base_, -1, 0, [](evutil_socket_t, short, void *self) { static_cast<redis_engine *>(self)->send_due(); }, this));
  watch_.reset(event_new(
      base_, -1, 0, [](evutil_socket_t, short, void *self) { static_cast<redis_engine *>(self)->look(); }, this));
  poke_.reset(event_new(
      base_, -1, EV_PERSIST, [](evutil_socket_t, short, void *self) { static_cast<redis_engine *>(self)->poke(); },
      this));
  if (retry_ == nullptr || send_ == nullptr || watch_ == nullptr || poke_ == nullptr) throw std::bad_alloc();
  if (address_.sentinels.empty()) return;
  masters_ = std::make_unique<master_watch>(
      base_, address_,
      [this](const ko_platform::store_address &master) {
        address_ = master;
        connect();
      },
      [this](const ko_platform::store_address &master) { on_master(master); });
}

void redis_engine::serve(const std::string &program) {
  program_ = program;
  request_channel_ = program.empty() ? "" : program + ".request";
}

void redis_engine::start(engine_user &user, std::vector<hash_id> hashes, size_t n_inputs) {
  close();
  queue_.clear();
  user_ = &user;
  hashes_ = std::move(hashes);
  scans_.assign(hashes_.size(), 0);
  channels_.clear();
  for (const hash_id &id : hashes_) channels_.push_back(channel_name(id.db, id.type->name));
  n_inputs_ = n_inputs;
  subscription_.clear();
  for (size_t i = 0; i < n_inputs_; ++i) subscription_.append(i == 0 ? "" : ", ").append(channels_[i]);
  event_add(retry_.get(), &at_once);
  event_add(poke_.get(), &idle_time);
}

// ---- connections ----

void redis_engine::begin() {
  if (masters_ == nullptr)
    connect();
  else
    masters_->find();
}

// Told by a sentinel that was not asked: only another address is news.
void redis_engine::on_master(const ko_platform::store_address &master) {
  if (master.host == address_.host && master.port == address_.port) return;
  pause_ms_ = 0;
  if (connected_)
    broken("the master is now at " + to_string(master));
  else
    event_add(retry_.get(), &at_once);
}

// Every database is selected once before anything is written: a command that follows a refused SELECT would go to the
// database before it.
void redis_engine::connect() try {
  connected_ = true;
  redis_link_user &self = *this;
  writer_ = std::make_unique<redis_link>(base_, address_, self);
  command_.clear();
  writer_logins_ = log_in();
  for (const hash_id &id : hashes_) writer_logins_ += append_select(id.db);
  if (masters_ != nullptr) {                   // the answer is looked at in its place, the last
    append_command(command_, {"HELLO", "2"});  // ROLE needs a right of its own
    ++writer_logins_;
  }
  writer_named_ = program_.empty();
  if (!writer_named_) append_name();
  fence_answers_ = append_fence();
  writer_->send(command_);
  reader_ = std::make_unique<redis_link>(base_, address_, self);
  subscribe();
} catch (const std::bad_alloc &) {
  broken("memory is exhausted");
}

// Appends the login, if there is something to log in with, and a command that a server refuses while it is loading,
// whatever it says to the login. Returns how many answers there will be.
unsigned redis_engine::log_in() {
  const unsigned answers = append_login(command_, address_.user, address_.password);
  append_command(command_, {"PING"});
  return answers + 1;
}

void redis_engine::append_name() { append_command(command_, {"CLIENT", "SETNAME", program_}); }

// The channel of the requests has a command of its own: where it is refused, the inputs are not.
void redis_engine::subscribe() {
  command_.clear();
  reader_logins_ = log_in();
  reader_named_ = program_.empty();
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

void redis_engine::answered(redis_link &link, const redis_answer &answer) try {
  ++answers_;
  if (std::exchange(silent_, false)) PLATFORM_WARN("the store answers again");
  if (masters_ != nullptr && answer.first_error().starts_with("READONLY"))
    broken("it is not the master any more");
  else if (&link == reader_.get())
    on_subscription(answer);
  else if (writer_logins_ > 0 || !writer_named_)
    on_login(answer);
  else if (fence_answers_ > 0)
    on_fence(answer);
  else
    on_request(answer);
} catch (const std::bad_alloc &) {
  broken("memory is exhausted");
}

void redis_engine::on_login(const redis_answer &answer) {
  if (writer_logins_ == 0) {
    writer_named_ = true;
    if (!answer.errors.empty()) report_refusal("name its connections", program_, answer.first_error());
    return;
  }
  if (!answer.errors.empty()) return broken(answer.first_error());
  if (masters_ != nullptr && writer_logins_ == 1 && !is_of_master(answer)) return broken("it is not the master");
  --writer_logins_;
  check_up();
}

void redis_engine::on_subscription(const redis_answer &answer) {
  if (!answer.errors.empty()) return on_subscription_error(answer.first_error());
  const std::string_view what = answer.texts.empty() ? std::string_view() : answer.texts[0];
  if (reader_logins_ > 0) {
    --reader_logins_;
    check_up();
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
    return report_refusal("name its connections", program_, why);
  if (reader_logins_ == 0 && subscriptions_ == n_inputs_) return report_refusal("listen to", request_channel_, why);
  if (reader_logins_ == 0 && !reported_.contains(why))
    PLATFORM_ERROR("the subscription to %s is refused", subscription_.c_str());
  broken(why);
}

// The store serves without it.
void redis_engine::report_refusal(const char *what, std::string_view where, std::string_view why) {
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
  const auto announced = parse_announcement(hashes_[input], answer.texts[2]);
  if (announced.has_value())
    user_->changed(input, *announced);
  else
    user_->malformed(input);
}

// ---- the fence ----

// Returns how many commands that are.
unsigned redis_engine::append_fence() {
  if (fence_.key.empty()) return 0;
  append_command(command_, {"SELECT", "0"});
  append_command(command_, {"WATCH", fence_.key});
  append_command(command_, {"GET", fence_.key});
  selected_db_ = 0;
  return fence_commands;
}

void redis_engine::on_fence(const redis_answer &answer) {
  if (!answer.errors.empty()) return broken(answer.first_error());
  if (--fence_answers_ > 0) return;
  if (answer.texts.empty() || answer.texts[0] != fence_.value) return end_fenced_off();
  check_up();
  if (up_ && sent_ < queue_.size()) send_later();
}

bool redis_engine::may_send(redis_link &) {
  if (!fence_.holds || fence_.holds()) return true;
  end_fenced_off();
  return false;
}

void redis_engine::end_fenced_off() {
  close();
  user_->down();
  user_->fenced_off();
}

void redis_engine::check_up() {
  if (up_ || writer_logins_ > 0 || fence_answers_ > 0 || reader_logins_ > 0 || subscriptions_ < n_inputs_) return;
  up_ = true;
  up_since_ = std::chrono::steady_clock::now();
  if (reported_.empty())
    PLATFORM_INFO("connected to the store at %s", to_string(address_).c_str());
  else
    PLATFORM_WARN("connected to the store at %s", to_string(address_).c_str());
  reported_.clear();
  user_->up();
}

void redis_engine::lost(redis_link &, const std::string &why) { broken(why); }

// The links stay until the next are made: this may happen inside a call of theirs.
void redis_engine::close() {
  event_del(retry_.get());
  event_del(send_.get());
  if (reader_ != nullptr) reader_->close();
  if (writer_ != nullptr) writer_->close();
  connected_ = up_ = congested_ = reader_poked_ = false;
  subscriptions_ = 0;
  late_ = 0;
  selected_db_ = unknown_db;
  fence_answers_ = 0;
  sent_ = batch_ = singles_ = 0;
  answered_ = 0;
  error_.clear();
}

// A connection that did not last long goes on with the pauses that it began with.
void redis_engine::broken(std::string_view why) {
  const bool was_up = up_;
  const auto lasted = std::chrono::steady_clock::now() - up_since_;
  if (was_up && lasted > std::chrono::milliseconds(longest_pause_ms)) pause_ms_ = 0;
  try {
    if (!reported_.contains(why)) {
      reported_.emplace(why);
      PLATFORM_ERROR("the store at %s cannot be used: %.*s; it is tried again with growing pauses",
                     to_string(address_).c_str(), static_cast<int>(why.size()), why.data());
    }
  } catch (const std::bad_alloc &) {
    PLATFORM_ERROR("the store cannot be used, and memory is exhausted");
  }
  close();  // `why` may be gone now
  if (was_up) user_->down();
  for (; !queue_.empty(); queue_.pop())
    if (was_up && queue_.at(0).kind == request_kind::write) user_->not_written(queue_.change_at(0), {});
  retry_later();
}

void redis_engine::retry_later() {
  pause_ms_ = std::clamp(2 * pause_ms_, first_pause_ms, longest_pause_ms);
  const timeval pause{pause_ms_ / 1000, pause_ms_ % 1000 * 1000L};
  event_add(retry_.get(), &pause);
}

// ---- requests ----

void redis_engine::scan(size_t hash) {
  push({.kind = request_kind::page, .hash = hashes_[hash], .number = hash, .scan = ++scans_[hash]}, "0");
}

void redis_engine::fetch(size_t input, std::string_view key) {
  push({.kind = request_kind::fetch, .hash = hashes_[input], .number = input}, key);
}

void redis_engine::write(const change &what) {
  push({.kind = request_kind::write, .change = what.kind, .hash = what.hash}, what.key, what.record);
}

void redis_engine::publish(std::string_view channel, std::string_view text) {
  push({.kind = request_kind::publish}, channel, text);
}

void redis_engine::push(const request &added, std::string_view key, std::string_view record) {
  queue_.push(added, key, record);
  if (queue_.size() > pause_requests || queue_.bytes() > pause_bytes) congested_ = true;
  if (queue_.size() == sent_ + 1) send_later();
}

// In this turn of the loop, after what is due.
void redis_engine::send_later() { event_active(send_.get(), EV_TIMEOUT, 0); }

// Sends what there is, up to the end of a batch: what is behind it waits for its outcome.
void redis_engine::send_due() try {
  command_.clear();
  while (batch_ == 0 && fence_answers_ == 0 && sent_ < queue_.size()) {
    if (queue_.at(sent_).kind == request_kind::write)
      append_batch();
    else
      append_single(sent_++);
  }
  if (command_.empty()) return;
  writer_->send(command_);
  watch();
} catch (const std::bad_alloc &) {
  broken("memory is exhausted");
}

void redis_engine::append_single(size_t i) {
  request &next = queue_.at(i);
  const bool reads = next.kind == request_kind::page || next.kind == request_kind::fetch;
  next.commands = 1 + (reads ? append_select(next.hash.db) : 0);
  if (next.kind == request_kind::page)
    append_command(command_, {"HSCAN", next.hash.type->name, queue_.key(i), "COUNT", page_size});
  else if (next.kind == request_kind::fetch)
    append_command(command_, {"HGET", next.hash.type->name, queue_.key(i)});
  else if (next.kind == request_kind::publish)
    append_command(command_, {"PUBLISH", queue_.key(i), queue_.change_at(i).record});
  else
    append_command(command_, {"PING"});
}

// What is only published needs no transaction.
void redis_engine::append_batch() {
  const size_t start = command_.size();
  const size_t most = singles_ > 0 ? 1 : batch_writes;
  bool stores = !fence_.key.empty();  // or is fenced
  command_.append(multi);
  for (batch_commands_ = 0; batch_ < most && sent_ < queue_.size(); ++sent_, ++batch_) {
    request &next = queue_.at(sent_);
    if (next.kind != request_kind::write || command_.size() - start > batch_bytes) break;
    next.commands = append_write(queue_.change_at(sent_));
    batch_commands_ += next.commands;
    stores = stores || next.change != change_kind::publish;
  }
  if (stores) {
    command_.append(exec);
    append_fence();
  } else {
    command_.erase(start, multi.size());
    batch_commands_ = 0;
  }
}

// Returns how many commands that are, as append_select does.
uint32_t redis_engine::append_write(const change &what) {
  const hash_words &words = words_of(what.hash);
  uint32_t commands = 1;
  if (what.kind != change_kind::publish) {
    commands += 1 + append_select(what.hash.db);
    const bool is_set = what.kind == change_kind::set;
    command_.append(is_set ? "*4\r\n$4\r\nHSET\r\n" : "*3\r\n$4\r\nHDEL\r\n").append(words.name);
    append_word(command_, what.key);
    if (is_set) append_word(command_, what.record);
  }
  command_.append("*3\r\n$7\r\nPUBLISH\r\n").append(words.channel);
  append_length(command_, announcement_size(what));
  append_announcement(what, command_);
  command_.append("\r\n");
  return commands;
}

uint32_t redis_engine::append_select(uint32_t db) {
  if (selected_db_ == db) return 0;
  append_command(command_, {"SELECT", std::to_string(db)});
  selected_db_ = db;
  return 1;
}

const redis_engine::hash_words &redis_engine::words_of(const hash_id &id) {
  for (const hash_words &known : words_)
    if (known.id == id) return known;
  hash_words made{id, {}, {}};
  append_word(made.name, id.type->name);
  append_word(made.channel, channel_name(id.db, id.type->name));
  return words_.emplace_back(std::move(made));
}

// ---- answers ----

void redis_engine::on_request(const redis_answer &answer) {
  if (sent_ == 0) return broken("it answers what it was not asked");
  if (error_.empty()) error_ = answer.first_error();
  ++answered_;
  if (queue_.at(0).kind == request_kind::write)
    on_batch(answer);
  else
    on_single(answer);
}

void redis_engine::on_single(const redis_answer &answer) {
  const request &asked = queue_.at(0);
  if (answered_ < asked.commands) {  // the SELECT: what follows a refused one is of another database
    if (!error_.empty()) broken(std::exchange(error_, {}));
    return;
  }
  switch (asked.kind) {
    case request_kind::page:
      return on_page(answer);
    case request_kind::fetch:
      return on_fetched(answer);
    case request_kind::publish:
      return on_published();
    default:  // any answer to a ping is one
      error_.clear();
      return drop_oldest();
  }
}

void redis_engine::on_page(const redis_answer &answer) {
  const request asked = queue_.at(0);
  const size_t hash = asked.number;
  const std::string why = std::exchange(error_, {});
  drop_oldest();
  if (asked.scan != scans_[hash]) return;  // another has taken its place
  if (!why.empty() || answer.type != REDIS_REPLY_ARRAY || answer.texts.size() % 2 == 0)
    return user_->unreadable(hash, why.empty() ? "the answer is no page" : why);
  std::vector<change> records;
  records.reserve(answer.texts.size() / 2);
  for (size_t i = 1; i < answer.texts.size(); i += 2)
    records.push_back({hashes_[hash], change_kind::set, answer.texts[i], answer.texts[i + 1]});
  const bool last = answer.texts[0] == "0";
  if (!last) push(asked, answer.texts[0]);
  user_->page(hash, records, last);
}

// When it cannot be read, what was known of it stands.
void redis_engine::on_fetched(const redis_answer &answer) {
  const size_t input = queue_.at(0).number;
  const std::string key(queue_.key(0));
  const std::string why = std::exchange(error_, {});
  drop_oldest();
  if (answer.type == REDIS_REPLY_STRING)
    user_->fetched(input, key, answer.texts[0]);
  else if (answer.type == REDIS_REPLY_NIL)
    user_->fetched(input, key, std::nullopt);
  else if (!why.empty() && reported_.insert(why).second)
    PLATFORM_ERROR("a record on %s cannot be read again: %s", channels_[input].c_str(), why.c_str());
}

void redis_engine::on_published() {
  if (!error_.empty()) report_refusal("answer on", queue_.key(0), std::exchange(error_, {}));
  drop_oldest();
}

// A transaction ends with the answer to its EXEC; messages that are only published are answered one by one.
void redis_engine::on_batch(const redis_answer &answer) {
  if (batch_commands_ == 0) {
    answered_ = 0;
    end_write(std::exchange(error_, {}));
  } else if (answered_ == batch_commands_ + 2) {
    answered_ = 0;
    if (!fence_.key.empty()) {
      if (answer.type == REDIS_REPLY_NIL) return end_fenced_off();
      fence_answers_ = fence_commands;
    }
    const bool dropped = answer.type != REDIS_REPLY_ARRAY || answer.elements != batch_commands_;
    if (dropped)
      on_dropped();
    else
      on_transaction(answer);
  }
  if (up_ && batch_ == 0 && sent_ < queue_.size()) send_later();
}

// Each write has the elements of its commands in the answer. Three commands begin with a SELECT: where that fails, what
// follows is in another database.
void redis_engine::on_transaction(const redis_answer &answer) {
  error_.clear();
  auto error = answer.errors.begin();
  for (size_t first = 0, next = 0; batch_ > 0; first = next) {
    const bool selects = queue_.at(0).commands == 3;
    next = first + queue_.at(0).commands;
    std::string_view why;
    for (; error != answer.errors.end() && error->element < next; ++error) {
      if (selects && error->element == first) return broken(error->text);
      if (why.empty()) why = error->text;
    }
    end_write(why);
  }
}

// Nothing of the transaction was written. Its writes go out again, each by itself; one that does so already is refused.
void redis_engine::on_dropped() {
  const std::string why = std::exchange(error_, {});
  selected_db_ = unknown_db;
  if (batch_ == 1) return end_write(why.empty() ? "the transaction was dropped" : why);
  singles_ = batch_;
  sent_ -= std::exchange(batch_, 0);
}

// The oldest request was a write, and has its outcome.
void redis_engine::end_write(std::string_view error) {
  if (!error.empty()) user_->not_written(queue_.change_at(0), error);
  --batch_;
  if (singles_ > 0) --singles_;
  drop_oldest();
}

void redis_engine::drop_oldest() {
  queue_.pop();
  --sent_;
  answered_ = 0;
  if (!congested_ || queue_.size() > resume_requests || queue_.bytes() > resume_bytes) return;
  congested_ = false;
  user_->relieved();
}

// ---- a server that does not answer ----

void redis_engine::watch() {
  if (watching_) return;
  watching_ = true;
  seen_ = answers_;
  event_add(watch_.get(), &patience);
}

bool redis_engine::waits() const { return connected_ && (!up_ || sent_ > 0 || reader_poked_); }

// Looks again while there is something to wait for; the next command starts it otherwise.
void redis_engine::look() {
  watching_ = false;
  if (!waits()) {
    late_ = 0;
    return;
  }
  late_ = answers_ == seen_ ? late_ + 1 : 0;
  if (late_ > 0 && !std::exchange(silent_, true))
    PLATFORM_ERROR("the store does not answer; its answers are waited for");
  if (late_ >= most_late) return broken("it has not answered for half a minute");
  watch();
}

// A server that has nothing to say could be gone, and a connection that nobody uses could have been forgotten on its
// way.
void redis_engine::poke() {
  const bool idle = up_ && queue_.empty() && answers_ == poked_;
  poked_ = answers_;
  if (!idle) return;
  try {
    command_.clear();
    append_command(command_, {"PING"});
    reader_->send(command_);
    reader_poked_ = true;
    push({.kind = request_kind::ping}, {});
  } catch (const std::bad_alloc &) {
    broken("memory is exhausted");
  }
}

}  // namespace ko_store
