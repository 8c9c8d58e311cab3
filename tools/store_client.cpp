#include "store_client.h"

#include <poll.h>
#include <sys/time.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "errors.h"
#include "store/layout.h"
#include "text.h"
#include "values.h"

namespace lspanctl {
namespace {

constexpr timeval connect_timeout{5, 0};
constexpr timeval answer_timeout{60, 0};
constexpr size_t changes_per_flush = 500;

std::string text_of(const redisReply &reply) { return {reply.str, reply.len}; }

context_ptr connect(const ko_platform::store_address &address) {
  redisContext *context = address.socket.empty()
                              ? redisConnectWithTimeout(address.host.c_str(), address.port, connect_timeout)
                              : redisConnectUnixWithTimeout(address.socket.c_str(), connect_timeout);
  if (context == nullptr) throw std::bad_alloc();
  return context_ptr(context);
}

// Time left for poll: negative for ever.
int milliseconds_to(const std::optional<std::chrono::steady_clock::time_point> &deadline) {
  if (!deadline) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - std::chrono::steady_clock::now()).count();
  return static_cast<int>(std::clamp<long long>(left, 0, 1000LL * 3600));
}

}  // namespace

store_client::store_client(const ko_platform::store_address &address)
    : where_(ko_platform::to_string(address)), context_(connect(address)) {
  if (context_->err != 0)
    throw store_error("cannot reach the store at " + where_ + ": " + context_->errstr +
                      "; start it, or name another with --store");
  redisSetTimeout(context_.get(), answer_timeout);
  if (address.password.empty()) return;
  if (address.user.empty())
    call({"AUTH", address.password});
  else
    call({"AUTH", address.user, address.password});
}

void store_client::fail_connection() const {
  const bool late = context_->err == REDIS_ERR_IO && (errno == EAGAIN || errno == EWOULDBLOCK);
  const std::string why =
      late ? "no answer for " + std::to_string(answer_timeout.tv_sec) + " seconds" : context_->errstr;
  throw store_error("the store at " + where_ + " is gone: " + why + "; see that it runs and try again");
}

void store_client::append(std::span<const std::string_view> words) {
  std::vector<const char *> texts;
  std::vector<size_t> lengths;
  for (const std::string_view word : words) {
    texts.push_back(word.data());
    lengths.push_back(word.size());
  }
  if (redisAppendCommandArgv(context_.get(), static_cast<int>(words.size()), texts.data(), lengths.data()) != REDIS_OK)
    fail_connection();
}

reply_ptr store_client::take() {
  void *reply = nullptr;
  if (redisGetReply(context_.get(), &reply) != REDIS_OK || reply == nullptr) fail_connection();
  return reply_ptr(static_cast<redisReply *>(reply));
}

reply_ptr store_client::call(std::initializer_list<std::string_view> words) {
  append(words);
  reply_ptr reply = take();
  const std::string command(*words.begin());
  const bool names = words.size() > 1 && command != "AUTH";  // its words are secret
  if (reply->type == REDIS_REPLY_ERROR) refuse(command + (names ? " " + std::string(words.begin()[1]) : ""), *reply);
  return reply;
}

void store_client::refuse(const std::string &what, const redisReply &error) const {
  throw store_error("the store at " + where_ + " refuses " + what + ": " + text_of(error));
}

void store_client::select(uint32_t db) {
  if (selected_ == db) return;
  call({"SELECT", std::to_string(db)});
  selected_ = db;
}

std::vector<ko_store::owned_change> store_client::read_all(const ko_store::hash_id &hash) {
  select(hash.db);
  const reply_ptr reply = call({"HGETALL", hash.type->name});
  std::vector<ko_store::owned_change> records;
  records.reserve(reply->elements / 2);
  for (size_t i = 0; i + 1 < reply->elements; i += 2)
    records.push_back({hash, ko_store::change_kind::set, text_of(*reply->element[i]), text_of(*reply->element[i + 1])});
  return records;
}

std::optional<std::string> store_client::read(const ko_store::hash_id &hash, std::string_view key) {
  select(hash.db);
  const reply_ptr reply = call({"HGET", hash.type->name, key});
  if (reply->type != REDIS_REPLY_STRING) return std::nullopt;
  return text_of(*reply);
}

// Returns how many replies will come. The database is selected. The first transaction waits for its MULTI: where that
// is refused, each command behind it would be carried out by itself.
size_t store_client::append_change(const ko_store::change &what) {
  const std::string hash = what.hash.type->name;
  const std::string channel = ko_store::channel_name(what.hash.db, hash);
  std::string announcement;
  ko_store::append_announcement(what, announcement);
  const auto add = [this](std::initializer_list<std::string_view> words) { append(words); };

  const bool first = !std::exchange(transactions_, true);
  if (first)
    call({"MULTI"});
  else
    add({"MULTI"});
  if (what.kind == ko_store::change_kind::set) add({"HSET", hash, what.key, what.record});
  if (what.kind == ko_store::change_kind::del) add({"HDEL", hash, what.key});
  add({"PUBLISH", channel, announcement});
  add({"EXEC"});
  return (what.kind == ko_store::change_kind::publish ? 3 : 4) - (first ? 1 : 0);
}

// Whether a record was there before the change. Every reply is taken before a refusal is thrown.
bool store_client::take_change(const ko_store::change &what, size_t replies) {
  std::string refusal;
  const auto note = [&refusal](const redisReply &reply) {
    if (reply.type == REDIS_REPLY_ERROR && refusal.empty()) refusal = text_of(reply);
  };
  reply_ptr last;
  for (; replies > 0; --replies) {
    last = take();
    note(*last);
  }
  for (size_t i = 0; last->type == REDIS_REPLY_ARRAY && i < last->elements; ++i) note(*last->element[i]);
  if (refusal.empty() && (last->type != REDIS_REPLY_ARRAY || last->elements == 0))
    refusal = "the transaction was dropped";
  if (!refusal.empty())
    throw store_error("the store at " + where_ + " refuses the write to " +
                      ko_store::channel_name(what.hash.db, what.hash.type->name) + ": " + refusal);
  return last->element[0]->integer == 0;
}

bool store_client::write(const ko_store::change &what) {
  select(what.hash.db);
  const bool none_added = take_change(what, append_change(what));
  return what.kind == ko_store::change_kind::del ? !none_added : none_added;
}

void store_client::write_all(std::span<const ko_store::owned_change> changes, const progress_call &progress) {
  if (!changes.empty()) select(changes.front().hash.db);
  size_t made = 0;
  std::string refusal;
  for (size_t first = 0; first < changes.size() && refusal.empty(); first += changes_per_flush) {
    std::vector<size_t> replies;
    for (const ko_store::owned_change &what : changes.subspan(first, std::min(changes_per_flush, changes.size() - first)))
      replies.push_back(append_change(what));
    for (size_t i = 0; i < replies.size() && context_->err == 0; ++i) {
      try {
        take_change(changes[first + i], replies[i]);
        ++made;
      } catch (const store_error &error) {
        if (refusal.empty()) refusal = error.what();
      }
    }
    progress(made);
  }
  if (!refusal.empty())
    throw store_error(refusal + " (" + std::to_string(made) + " of " + std::to_string(changes.size()) +
                      " changes are known to be made; run it again for the rest)");
}

void store_client::subscribe(const std::string &channel) {
  append(std::array<std::string_view, 2>{"SUBSCRIBE", channel});
  for (;;) {
    const reply_ptr reply = take();
    if (reply->type == REDIS_REPLY_ERROR) refuse("SUBSCRIBE " + channel, *reply);
    if (reply->type == REDIS_REPLY_ARRAY && reply->elements == 3 && text_of(*reply->element[0]) == "subscribe") return;
  }
}

std::optional<store_client::announced> store_client::next(std::optional<std::chrono::steady_clock::time_point> deadline,
                                                          const sigset_t &unblocked) {
  for (;;) {
    void *raw = nullptr;
    if (redisGetReplyFromReader(context_.get(), &raw) != REDIS_OK) fail_connection();
    if (raw != nullptr) {
      const reply_ptr reply(static_cast<redisReply *>(raw));
      if (reply->type == REDIS_REPLY_ARRAY && reply->elements == 3 && text_of(*reply->element[0]) == "message")
        return announced{text_of(*reply->element[1]), text_of(*reply->element[2])};
      continue;
    }
    pollfd wait{context_->fd, POLLIN, 0};
    const int left = milliseconds_to(deadline);
    const timespec time{left / 1000, left % 1000 * 1000000L};
    const int ready = ppoll(&wait, 1, left < 0 ? nullptr : &time, &unblocked);
    if (ready < 0) return std::nullopt;
    if (ready == 0 && left == 0) return std::nullopt;
    if (ready > 0 && redisBufferRead(context_.get()) != REDIS_OK) fail_connection();
  }
}

ko_platform::store_address parse_store(const std::string &text) {
  constexpr std::string_view unix_prefix = "unix:";
  ko_platform::store_address address;
  if (text.starts_with(unix_prefix)) {
    address.socket = text.substr(unix_prefix.size());
    if (address.socket.starts_with("///")) address.socket.erase(0, 2);
  } else if (text.find('/') != std::string::npos) {
    address.socket = text;
  } else {
    address.socket.clear();
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0)
      throw usage_error("--store " + printable(text) + ": give the path of a socket, unix:PATH or HOST:PORT");
    address.host = text.substr(0, colon);
    if (address.host.starts_with('[') && address.host.ends_with(']'))
      address.host = address.host.substr(1, address.host.size() - 2);
    address.port = static_cast<uint16_t>(parse_number(text.substr(colon + 1), "--store: port", 1, UINT16_MAX));
    return address;
  }
  if (address.socket.empty()) throw usage_error("--store: give the path of a socket after unix:");
  if (address.socket.size() > ko_platform::longest_socket_path)
    throw usage_error("--store: the path of a socket has at most " + std::to_string(ko_platform::longest_socket_path) +
                      " bytes");
  return address;
}

}  // namespace lspanctl
