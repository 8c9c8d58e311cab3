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

constexpr size_t transactions_per_flush = 500;
constexpr size_t commands_per_change = 3;  // of a stored record

std::string text_of(const redisReply &reply) { return {reply.str, reply.len}; }

context_ptr connect(const ko_platform::store_address &address, timeval patience) {
  redisContext *context = address.socket.empty() ? redisConnectWithTimeout(address.host.c_str(), address.port, patience)
                                                 : redisConnectUnixWithTimeout(address.socket.c_str(), patience);
  if (context == nullptr) throw std::bad_alloc();
  return context_ptr(context);
}

struct advice {
  const char *error;  // how the server's text begins
  const char *step;   // for the operator
};
constexpr advice all_advice[] = {
    {"NOAUTH", "give a user and password in the platform file, best in the tool's own (lspanctl --help)"},
    {"WRONGPASS", "correct user and password in the platform file that the tool reads (lspanctl --help)"},
    {"NOPERM",
     "log in as a user who may (lspanctl --help: its own platform file), or have it allowed by ACL SETUSER at the "
     "server"},
    {"WRONGTYPE", "something else has that name there; look at it with redis-cli and take it away"},
    {"OOM", "give the server more memory, or empty it of what is not needed"},
    {"LOADING", "the server is still reading its file; try again in a moment"},
    {"MISCONF", "the server cannot save; see its log"},
    {"READONLY", "this is a replica; name the server that it follows"},
};

// The server's text, and the operator's next step.
std::string with_advice(const std::string &error) {
  for (const advice &each : all_advice)
    if (error.starts_with(each.error)) return error.substr(0, error.find_last_not_of('.') + 1) + "; " + each.step;
  return error;
}

std::string unreachable_advice(int error) {
  if (error == EACCES) return "become a member of the socket's group, or root";
  if (error == ETIMEDOUT || error == EAGAIN || error == EINPROGRESS)
    return "see that it is not stopped, or name another with --store";
  return "start it, or name another with --store";
}

constexpr const char *not_yet_switched = "the sentinels name it: try again when they have replaced it";

// Time left for poll: negative for ever.
int milliseconds_to(const std::optional<std::chrono::steady_clock::time_point> &deadline) {
  if (!deadline) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - std::chrono::steady_clock::now()).count();
  return static_cast<int>(std::clamp<long long>(left, 0, 1000LL * 3600));
}

}  // namespace

store_client::store_client(const ko_platform::store_address &address, std::chrono::seconds patience)
    : where_(ko_platform::to_string(address)),
      user_(address.user),
      patience_(patience),
      context_(connect(address, {patience.count(), 0})) {
  const bool told_by_sentinel = !address.sentinels.empty();
  if (context_->err != 0) {
    const int why = errno;
    throw store_error("cannot reach the store at " + where_ + ": " + context_->errstr + "; " +
                      (told_by_sentinel ? not_yet_switched : unreachable_advice(why)));
  }
  redisSetTimeout(context_.get(), {patience.count(), 0});
  if (!address.user.empty())
    call({"AUTH", address.user, address.password});
  else if (!address.password.empty())
    call({"AUTH", address.password});
  if (told_by_sentinel) expect_master();
}

void store_client::expect_master() {
  const reply_ptr greeting = call({"HELLO", "2"});
  for (size_t i = 0; i + 1 < greeting->elements; i += 2)
    if (text_of(*greeting->element[i]) == "role" && text_of(*greeting->element[i + 1]) == "master") return;
  throw store_error("the store at " + where_ + " is not the master; " + not_yet_switched);
}

void store_client::fail_connection() const {
  const bool late = context_->err == REDIS_ERR_IO && (errno == EAGAIN || errno == EWOULDBLOCK);
  if (late)
    throw store_error("the store at " + where_ + " gives no answer within " + std::to_string(patience_.count()) +
                      " s; see that it is not stopped, or give it longer with --timeout");
  throw store_error("the store at " + where_ + " is gone: " + context_->errstr + "; see that it runs and try again");
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

std::string store_client::who() const { return user_.empty() ? "" : " to user " + user_; }

void store_client::refuse(const std::string &what, const redisReply &error) const {
  throw store_error("the store at " + where_ + " refuses " + what + who() + ": " + with_advice(text_of(error)));
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

// Returns how many replies will come. The first transaction waits for its MULTI: where that is refused, each command
// behind it would be carried out by itself. Each selects its database, as the one before may have been refused.
size_t store_client::append_transaction(const transaction &all) {
  const auto add = [this](std::initializer_list<std::string_view> words) { append(words); };
  const bool first = !std::exchange(transactions_, true);
  if (first)
    call({"MULTI"});
  else
    add({"MULTI"});
  for (const ko_store::owned_change &what : all) {
    const std::string hash = what.hash.type->name;
    std::string announcement;
    ko_store::append_announcement(what, announcement);
    add({"SELECT", std::to_string(what.hash.db)});
    if (what.kind == ko_store::change_kind::set) add({"HSET", hash, what.key, what.record});
    if (what.kind == ko_store::change_kind::del) add({"HDEL", hash, what.key});
    add({"PUBLISH", ko_store::channel_name(what.hash.db, hash), announcement});
  }
  add({"EXEC"});
  selected_.reset();
  return commands_per_change * all.size() + (first ? 1 : 2);
}

// For each change whether a record was there before. Every reply is taken before a refusal is thrown.
std::vector<bool> store_client::take_transaction(const transaction &all, size_t replies) {
  const size_t queued = commands_per_change * all.size();
  std::string refusal;
  const auto note = [&](const redisReply &reply, size_t command) {
    if (reply.type != REDIS_REPLY_ERROR || !refusal.empty()) return;
    const ko_store::hash_id &hash = all[std::min(command, queued - 1) / commands_per_change].hash;
    refusal =
        "the write to " + ko_store::channel_name(hash.db, hash.type->name) + who() + ": " + with_advice(text_of(reply));
  };
  for (; replies > queued + 1; --replies) note(*take(), 0);
  for (size_t i = 0; i < queued; ++i) note(*take(), i);
  const reply_ptr done = take();
  note(*done, queued);
  for (size_t i = 0; done->type == REDIS_REPLY_ARRAY && i < done->elements; ++i) note(*done->element[i], i);
  if (refusal.empty() && (done->type != REDIS_REPLY_ARRAY || done->elements != queued))
    refusal = "a write: the transaction was dropped";
  if (!refusal.empty()) throw store_error("the store at " + where_ + " refuses " + refusal);
  std::vector<bool> was_there;
  for (size_t i = 0; i < all.size(); ++i) {
    const bool none = done->element[i * commands_per_change + 1]->integer == 0;
    was_there.push_back(all[i].kind == ko_store::change_kind::set ? none : !none);
  }
  return was_there;
}

bool store_client::write(const ko_store::owned_change &what) {
  const transaction one{what};
  return take_transaction(one, append_transaction(one)).front();
}

void store_client::write_all(std::span<const transaction> all, const std::function<void(size_t)> &made) {
  size_t n_made = 0;
  std::string refusal;
  for (size_t first = 0; first < all.size() && refusal.empty(); first += transactions_per_flush) {
    std::vector<size_t> replies;
    for (const transaction &each : all.subspan(first, std::min(transactions_per_flush, all.size() - first)))
      replies.push_back(append_transaction(each));
    for (size_t i = 0; i < replies.size() && context_->err == 0; ++i) {
      try {
        take_transaction(all[first + i], replies[i]);
        made(first + i);
        ++n_made;
      } catch (const store_error &error) {
        if (refusal.empty()) refusal = error.what();
      }
    }
  }
  if (refusal.empty()) return;
  if (all.size() == 1) throw store_error(refusal);
  throw store_error(refusal + " (" + std::to_string(n_made) + " of " + std::to_string(all.size()) +
                    " changes are known to be made; run it again for the rest)");
}

size_t store_client::publish(const std::string &channel, const std::string &text) {
  return static_cast<size_t>(call({"PUBLISH", channel, text})->integer);
}

size_t store_client::listeners(const std::string &channel) {
  const reply_ptr reply = call({"PUBSUB", "NUMSUB", channel});
  return reply->elements == 2 ? static_cast<size_t>(reply->element[1]->integer) : 0;
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
