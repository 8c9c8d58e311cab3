#include "store/redis_link.h"

#include <hiredis/hiredis.h>
#include <hiredis/read.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <new>

namespace ko_store {
namespace {

constexpr size_t read_size = size_t{16} << 10;
constexpr size_t kept_size = size_t{4} << 20;  // a larger buffer is given back when it is empty

constexpr int dead_peer_ms = 30'000;  // until bytes sent to another machine have to be confirmed

// A connection to another machine that has gone without a word is noticed, too.
void enable_keepalive(redisContext *connection) {
  redisEnableKeepAlive(connection);
  setsockopt(connection->fd, IPPROTO_TCP, TCP_USER_TIMEOUT, &dead_peer_ms, sizeof(dead_peer_ms));
}

void empty(std::string &buffer) {
  if (buffer.capacity() > kept_size)
    buffer = {};
  else
    buffer.clear();
}

}  // namespace

void redis_link::context_deleter::operator()(redisContext *context) const { redisFree(context); }
void redis_link::reader_deleter::operator()(redisReader *reader) const { redisReaderFree(reader); }

// ---- parsing ----

// Where hiredis' parser puts an answer. It wants an object for each part, which is nothing to us but not null.
struct redis_link::parsed {
  struct range {  // of `bytes`
    size_t start;
    size_t length;
  };

  redis_answer answer{};
  std::string bytes;  // of its texts and errors
  std::vector<range> texts;
  std::vector<std::pair<size_t, range>> errors;  // with the elements

  void *note(const redisReadTask &task, size_t elements = 0) {
    if (task.parent == nullptr) answer.type = task.type, answer.elements = elements;
    return this;
  }

  // hiredis has a nil as a task of the type that could have stood there.
  void *note_nil(const redisReadTask &task) {
    if (task.parent == nullptr) answer.type = REDIS_REPLY_NIL, answer.elements = 0;
    return this;
  }

  void *take_text(const redisReadTask &task, std::string_view text) try {
    const range taken{bytes.size(), text.size()};
    if (task.type == REDIS_REPLY_ERROR)
      errors.emplace_back(task.parent == nullptr ? 0 : static_cast<size_t>(task.idx), taken);
    else if (task.type == REDIS_REPLY_STRING)
      texts.push_back(taken);
    else
      return note(task);
    bytes.append(text);
    return note(task);
  } catch (const std::bad_alloc &) {
    return nullptr;
  }

  const redis_answer &finish() {
    const auto text_of = [this](const range &at) { return std::string_view(bytes).substr(at.start, at.length); };
    answer.texts.clear();
    answer.errors.clear();
    for (const range &text : texts) answer.texts.push_back(text_of(text));
    for (const auto &[element, text] : errors) answer.errors.push_back({element, text_of(text)});
    return answer;
  }

  void clear() {
    empty(bytes);
    texts.clear();
    errors.clear();
  }
};

redisReader *redis_link::make_reader(parsed *into) {
  static const auto of = [](const redisReadTask *task) { return static_cast<parsed *>(task->privdata); };
  static redisReplyObjectFunctions functions = {
      .createString =
          [](const redisReadTask *task, char *text, size_t length) {
            return of(task)->take_text(*task, {text, length});
          },
      .createArray = [](const redisReadTask *task, int n) { return of(task)->note(*task, static_cast<size_t>(n)); },
      .createInteger = [](const redisReadTask *task, long long) { return of(task)->note(*task); },
      .createNil = [](const redisReadTask *task) { return of(task)->note_nil(*task); },
      .freeObject = [](void *) {},
  };
  redisReader *made = redisReaderCreateWithFunctions(&functions);
  if (made == nullptr) throw std::bad_alloc();
  made->privdata = into;
  made->maxbuf = kept_size;
  return made;
}

// ---- the connection ----

redis_link::redis_link(event_base *base, const ko_platform::store_address &address, redis_link_user &owner)
    : owner_(owner),
      context_(address.socket.empty() ? redisConnectNonBlock(address.host.c_str(), address.port)
                                      : redisConnectUnixNonBlock(address.socket.c_str())),
      parsed_(std::make_unique<parsed>()),
      reader_(make_reader(parsed_.get())),
      in_(read_size) {
  if (context_ == nullptr || context_->err == REDIS_ERR_OOM) throw std::bad_alloc();
  if (context_->err != 0)
    failure_ = context_->errstr;
  else if (address.socket.empty())
    enable_keepalive(context_.get());
  readable_.reset(event_new(
      base, context_->fd, EV_READ | EV_PERSIST,
      [](evutil_socket_t, short, void *self) { static_cast<redis_link *>(self)->on_readable(); }, this));
  writable_.reset(event_new(
      base, context_->fd, EV_WRITE,
      [](evutil_socket_t, short, void *self) { static_cast<redis_link *>(self)->on_writable(); }, this));
  if (readable_ == nullptr || writable_ == nullptr) throw std::bad_alloc();
  if (failure_.empty())
    event_add(writable_.get(), nullptr);  // becoming writable is how an open connection shows itself
  else
    event_active(writable_.get(), EV_WRITE, 0);
}

redis_link::~redis_link() = default;

// Everything but the descriptor and its events stays: this may happen inside a call of the link.
void redis_link::close() {
  closed_ = true;
  readable_.reset();
  writable_.reset();
  context_.reset();
}

void redis_link::fail(const std::string &why) { owner_.lost(*this, why); }

bool redis_link::finish_connect() {
  int error = 0;
  socklen_t size = sizeof(error);
  if (failure_.empty() && getsockopt(context_->fd, SOL_SOCKET, SO_ERROR, &error, &size) < 0) error = errno;
  if (error != 0) failure_ = std::strerror(error);
  connected_ = failure_.empty();
  if (!connected_) return false;
  event_add(readable_.get(), nullptr);
  return true;
}

void redis_link::send(std::string_view bytes) {
  const bool scheduled = !connected_ || unsent() > 0;
  out_.append(bytes);
  if (!scheduled) event_active(writable_.get(), EV_WRITE, 0);  // in this turn of the loop, after all that is due
}

void redis_link::on_writable() {
  if (!connected_ && !finish_connect()) return fail(failure_);
  if (unsent() == 0 || !owner_.may_send(*this)) return;
  const ssize_t n = ::send(context_->fd, out_.data() + sent_, unsent(), MSG_NOSIGNAL);
  if (n < 0 && errno != EAGAIN && errno != EINTR) return fail(std::strerror(errno));
  if (n > 0) sent_ += static_cast<size_t>(n);
  if (unsent() > 0) {
    if (sent_ > unsent()) out_.erase(0, std::exchange(sent_, 0));
    event_add(writable_.get(), nullptr);
    return;
  }
  empty(out_);
  sent_ = 0;
}

void redis_link::on_readable() {
  const ssize_t n = ::recv(context_->fd, in_.data(), in_.size(), 0);
  if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (n < 0) return fail(std::strerror(errno));
  if (n == 0) return fail("Server closed the connection");
  if (!feed(in_.data(), static_cast<size_t>(n)) && !closed_) fail(reader_->errstr);
}

// Hands over every answer that is complete. False when the bytes are no answers, or memory is exhausted.
bool redis_link::feed(const char *bytes, size_t length) {
  if (redisReaderFeed(reader_.get(), bytes, length) != REDIS_OK) return false;
  for (void *object = nullptr; redisReaderGetReply(reader_.get(), &object) == REDIS_OK; object = nullptr) {
    if (object == nullptr) return true;
    owner_.answered(*this, parsed_->finish());
    if (closed_) return true;
    parsed_->clear();
  }
  return false;
}

// ---- commands ----

namespace {

void append_number(std::string &out, char kind, size_t number) {
  char text[24] = {kind};
  char *end = std::to_chars(text + 1, text + sizeof(text) - 2, number).ptr;
  *end++ = '\r';
  *end++ = '\n';
  out.append(text, static_cast<size_t>(end - text));
}

}  // namespace

void append_command(std::string &out, std::initializer_list<std::string_view> words) {
  append_head(out, words.size());
  for (const std::string_view word : words) append_word(out, word);
}

unsigned append_login(std::string &out, std::string_view user, std::string_view password) {
  if (password.empty()) return 0;
  if (user.empty())
    append_command(out, {"AUTH", password});
  else
    append_command(out, {"AUTH", user, password});
  return 1;
}

void append_head(std::string &out, size_t n_words) { append_number(out, '*', n_words); }

void append_length(std::string &out, size_t length) { append_number(out, '$', length); }

void append_word(std::string &out, std::string_view word) {
  append_length(out, word.size());
  out.append(word).append("\r\n");
}

}  // namespace ko_store
