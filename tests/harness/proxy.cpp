#include "proxy.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <optional>
#include <stdexcept>

namespace harness {
namespace {

sockaddr_un address_of(const std::string &path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  return address;
}

int connect_to_port(uint16_t port) {
  const int file = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(file, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0) return file;
  ::close(file);
  return -1;
}

int open_socket(const std::string &path, bool listens) {
  if (path[0] != '/') return connect_to_port(static_cast<uint16_t>(std::stoi(path)));
  const int file = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_un address = address_of(path);
  const auto *generic = reinterpret_cast<const sockaddr *>(&address);
  if (listens && bind(file, generic, sizeof(address)) == 0 && listen(file, 64) == 0) return file;
  if (!listens && connect(file, generic, sizeof(address)) == 0) return file;
  ::close(file);
  return -1;
}

bool send_all(int to, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = send(to, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent <= 0) return false;
    bytes.remove_prefix(static_cast<size_t>(sent));
  }
  return true;
}

// The number behind `mark` at `at`, which goes on behind its line.
std::optional<size_t> number(std::string_view bytes, size_t &at, char mark) {
  const size_t end = bytes.find("\r\n", at);
  if (end == std::string_view::npos || bytes[at] != mark) return std::nullopt;
  const size_t value = std::strtoul(bytes.data() + at + 1, nullptr, 10);
  at = end + 2;
  return value;
}

// Length of the command that `bytes` start with, 0 when it is not all there.
size_t parse_command(std::string_view bytes, std::vector<std::string> &words) {
  size_t at = 0;
  const auto count = bytes.empty() ? std::nullopt : number(bytes, at, '*');
  if (!count.has_value()) return 0;
  words.clear();
  for (size_t i = 0; i < *count; ++i) {
    const auto length = at < bytes.size() ? number(bytes, at, '$') : std::nullopt;
    if (!length.has_value() || bytes.size() < at + *length + 2) return 0;
    words.emplace_back(bytes.substr(at, *length));
    at += *length + 2;
  }
  return at;
}

}  // namespace

proxy::proxy(const std::string &listen, std::string server)
    : server_path_(std::move(server)), listener_(open_socket(listen, true)) {
  if (listener_ < 0) throw std::runtime_error("the proxy cannot listen");
  thread_ = std::thread([this] { run(); });
}

proxy::~proxy() {
  ended_ = true;
  thread_.join();
  for (const auto &over : links_) close(*over);
  ::close(listener_);
}

void proxy::kill_after(size_t count, std::function<void()> victim_dies) {
  const std::lock_guard lock(mutex_);
  until_kill_ = count;
  victim_dies_ = std::move(victim_dies);
  killed_ = false;
}

std::vector<std::string> proxy::commands() {
  const std::lock_guard lock(mutex_);
  return commands_;
}

void proxy::replace(const std::string &what, const std::string &by) {
  const std::lock_guard lock(mutex_);
  replaced_ = what;
  replacement_ = by;
}

void proxy::forget() {
  const std::lock_guard lock(mutex_);
  commands_.clear();
  transactions_ = bytes_ = 0;
}

void proxy::run() {
  while (!ended_) {
    if (cut_.exchange(false)) {
      for (const auto &over : links_) close(*over);
      links_.clear();
    }
    if (holds_) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      continue;
    }
    std::vector<pollfd> files{{listener_, POLLIN, 0}};
    for (const auto &over : links_) files.insert(files.end(), {{over->daemon, POLLIN, 0}, {over->server, POLLIN, 0}});
    if (poll(files.data(), files.size(), paced_ ? 1 : 5) <= 0) {
      release_one();
      continue;
    }
    dropped_ = false;
    for (size_t i = links_.size(); i-- > 0 && !dropped_;) {
      link &over = *links_[i];
      bool alive = files[2 * i + 1].revents == 0 || from_daemon(over);
      alive = alive && (dropped_ || files[2 * i + 2].revents == 0 || from_server(over));
      if (alive || dropped_) continue;
      close(over);
      links_.erase(links_.begin() + static_cast<std::ptrdiff_t>(i));
    }
    if (files[0].revents != 0) accept_one();
  }
}

void proxy::accept_one() {
  const int daemon = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
  if (daemon < 0) return;
  const int server = open_socket(server_path_, false);
  if (server < 0)
    ::close(daemon);
  else
    links_.push_back(std::make_unique<link>(link{daemon, server}));
}

bool proxy::from_daemon(link &over) {
  char bytes[65536];
  const ssize_t length = read(over.daemon, bytes, sizeof(bytes));
  if (length <= 0) return false;
  over.unparsed.append(bytes, static_cast<size_t>(length));
  std::vector<std::string> words;
  size_t done = 0;
  while (const size_t size = parse_command(std::string_view(over.unparsed).substr(done), words)) {
    if (!forward(over, words, std::string_view(over.unparsed).substr(done, size))) return false;
    if (dropped_) return true;
    done += size;
  }
  over.unparsed.erase(0, done);
  return true;
}

bool proxy::forward(link &over, const std::vector<std::string> &words, std::string_view bytes) {
  if (cuts_here(over, bytes)) return true;
  over.subscribes = over.subscribes || words[0] == "SUBSCRIBE";
  const std::lock_guard lock(mutex_);
  if (words[0] == "EXEC" && dies_now(lock)) {
    send_all(over.server, bytes.substr(0, bytes.size() - 1));
    finish_kill();
    return true;
  }
  std::string sent(bytes);
  for (size_t at = 0; !replaced_.empty() && (at = sent.find(replaced_, at)) != std::string::npos;)
    sent.replace(at, replaced_.size(), replacement_);
  if (!send_all(over.server, sent)) return false;
  std::string all;
  for (const std::string &word : words) all += (all.empty() ? "" : " ") + word;
  commands_.push_back(std::move(all));
  if (words[0] != "EXEC") return true;
  ++transactions_;
  if (dies_now(lock)) finish_kill();
  return true;
}

bool proxy::dies_now(const std::lock_guard<std::mutex> &) {
  if (until_kill_ == 0 || --until_kill_ > 0) return false;
  victim_dies_();
  return true;
}

bool proxy::cuts_here(link &over, std::string_view bytes) {
  bytes_ += bytes.size();
  if (until_cut_ == 0 || until_cut_ > bytes.size()) {
    until_cut_ -= until_cut_ == 0 ? 0 : bytes.size();
    return false;
  }
  send_all(over.server, bytes.substr(0, until_cut_.exchange(0)));
  for (const auto &each : links_) close(*each);
  links_.clear();
  return dropped_ = true;
}

// The server has read all and closed its side once nothing more comes from it.
void proxy::finish_kill() {
  char rest[65536];
  for (const auto &over : links_) {
    shutdown(over->server, SHUT_WR);
    while (read(over->server, rest, sizeof(rest)) > 0) continue;
    close(*over);
  }
  links_.clear();
  dropped_ = true;
  killed_ = true;
}

bool proxy::from_server(link &over) {
  char bytes[65536];
  const ssize_t length = read(over.server, bytes, sizeof(bytes));
  if (length <= 0) return false;
  if (deaf_ && over.subscribes) return true;
  if (over.subscribes && (paced_ || !over.held.empty())) {
    over.held.append(bytes, static_cast<size_t>(length));
    return true;
  }
  return send_all(over.daemon, {bytes, static_cast<size_t>(length)});
}

// What else a subscriber is sent, a confirmation, is no array of texts alone, and goes with the rest.
void proxy::release_one() {
  std::vector<std::string> words;
  for (const auto &over : links_) {
    const size_t size = paced_ ? parse_command(over->held, words) : over->held.size();
    const std::string next = over->held.substr(0, size == 0 ? over->held.size() : size);
    over->held.erase(0, next.size());
    send_all(over->daemon, next);
  }
}

void proxy::close(link &over) {
  ::close(over.daemon);
  ::close(over.server);
}

}  // namespace harness
