#include "proxy.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <stdexcept>

namespace harness {
namespace {

constexpr std::string_view exec = "*1\r\n$4\r\nEXEC\r\n";

int open_socket(const std::string &path, bool listens) {
  const int file = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  const auto *generic = reinterpret_cast<const sockaddr *>(&address);
  if (listens && bind(file, generic, sizeof(address)) == 0 && listen(file, 64) == 0) return file;
  if (!listens && connect(file, generic, sizeof(address)) == 0) return file;
  close(file);
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

// What there is to read, appended; false at the end.
bool receive(int from, std::string &to) {
  char bytes[65536];
  const ssize_t length = read(from, bytes, sizeof(bytes));
  if (length > 0) to.append(bytes, static_cast<size_t>(length));
  return length > 0;
}

// How much of the end of `bytes` may be the start of an EXEC.
size_t started_exec(std::string_view bytes) {
  size_t size = exec.size() - 1;
  while (!bytes.ends_with(exec.substr(0, size))) --size;
  return size;
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
  for (const link &over : links_) close(over.daemon), close(over.server);
  close(listener_);
}

void proxy::kill_after(size_t count, std::function<void()> victim_dies) {
  const std::lock_guard lock(mutex_);
  until_kill_ = count;
  victim_dies_ = std::move(victim_dies);
  transactions_ = 0;
  killed_ = false;
}

void proxy::run() {
  while (!ended_) {
    std::vector<pollfd> files{{listener_, POLLIN, 0}};
    for (const link &over : links_) files.insert(files.end(), {{over.daemon, POLLIN, 0}, {over.server, POLLIN, 0}});
    if (poll(files.data(), files.size(), 5) <= 0) continue;
    for (size_t i = links_.size(); i-- > 0 && !dying_;) {
      std::string answers;
      const bool alive = (files[2 * i + 1].revents == 0 || from_daemon(links_[i])) &&
                         (files[2 * i + 2].revents == 0 ||
                          (receive(links_[i].server, answers) && send_all(links_[i].daemon, answers)));
      if (alive || dying_) continue;
      close(links_[i].daemon);
      close(links_[i].server);
      links_.erase(links_.begin() + static_cast<std::ptrdiff_t>(i));
    }
    if (dying_) finish_kill();
    if (files[0].revents != 0) accept_one();
  }
}

void proxy::accept_one() {
  const int daemon = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
  if (daemon < 0) return;
  const int server = open_socket(server_path_, false);
  if (server < 0)
    close(daemon);
  else
    links_.push_back({daemon, server});
}

// Transactions go to the server one at a time, so that nothing goes behind the last one.
bool proxy::from_daemon(link &over) {
  if (!receive(over.daemon, over.unsent)) return false;
  for (size_t at = 0; (at = over.unsent.find(exec)) != std::string::npos;) {
    if (!send_all(over.server, over.unsent.substr(0, at + exec.size()))) return false;
    over.unsent.erase(0, at + exec.size());
    count_transaction();
    if (dying_) return true;
  }
  const size_t whole = over.unsent.size() - started_exec(over.unsent);
  if (!send_all(over.server, over.unsent.substr(0, whole))) return false;
  over.unsent.erase(0, whole);
  return true;
}

void proxy::count_transaction() {
  const std::lock_guard lock(mutex_);
  ++transactions_;
  if (until_kill_ == 0 || --until_kill_ > 0) return;
  victim_dies_();
  dying_ = true;
}

// The server has read all and closed its side once nothing more comes from it.
void proxy::finish_kill() {
  std::string rest;
  for (const link &over : links_) {
    shutdown(over.server, SHUT_WR);
    while (receive(over.server, rest)) continue;
    close(over.daemon);
    close(over.server);
  }
  links_.clear();
  dying_ = false;
  killed_ = true;
}

}  // namespace harness
