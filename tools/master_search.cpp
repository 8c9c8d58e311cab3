#include "master_search.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <new>
#include <stdexcept>
#include <vector>

#include "store_client.h"

namespace lspanctl {
namespace {

using clock = std::chrono::steady_clock;
using ko_platform::store_address;
using words = std::vector<std::string>;

constexpr const char *unknown = "it knows no such master";

// A sentinel that does not tell, and why.
class silence : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

timeval left_until(clock::time_point end) {
  const auto left = std::chrono::duration_cast<std::chrono::microseconds>(end - clock::now()).count();
  const long long some = std::max<long long>(left, 1000);
  return {some / 1'000'000, some % 1'000'000};
}

std::string no_connection(const redisContext &link) {
  const bool late = link.err == REDIS_ERR_IO && (errno == EAGAIN || errno == ETIMEDOUT || errno == EINPROGRESS);
  return late ? "no answer" : link.errstr;
}

reply_ptr call(redisContext &link, const words &command, clock::time_point end) {
  std::vector<const char *> texts;
  std::vector<size_t> lengths;
  for (const std::string &word : command) {
    texts.push_back(word.data());
    lengths.push_back(word.size());
  }
  redisSetTimeout(&link, left_until(end));
  reply_ptr reply(static_cast<redisReply *>(
      redisCommandArgv(&link, static_cast<int>(command.size()), texts.data(), lengths.data())));
  if (reply == nullptr) throw silence(no_connection(link));
  if (reply->type == REDIS_REPLY_ERROR) throw silence(std::string(reply->str, reply->len));
  return reply;
}

void ask(const ko_platform::sentinel_address &which, store_address &settings, clock::time_point end) {
  const context_ptr link(redisConnectWithTimeout(which.host.c_str(), which.port, left_until(end)));
  if (link == nullptr) throw std::bad_alloc();
  if (link->err != 0) throw silence(no_connection(*link));
  const std::string &user = settings.sentinel_user, &password = settings.sentinel_password;
  if (!password.empty()) call(*link, user.empty() ? words{"AUTH", password} : words{"AUTH", user, password}, end);
  const reply_ptr reply = call(*link, {"SENTINEL", "get-master-addr-by-name", settings.master}, end);
  if (reply->type != REDIS_REPLY_ARRAY || reply->elements != 2) throw silence(unknown);
  const redisReply &host = *reply->element[0], &port = *reply->element[1];
  settings.host.assign(host.str, host.len);
  std::from_chars(port.str, port.str + port.len, settings.port);
}

std::string next_step(const std::string &reasons) {
  for (const char *refusal : {"NOAUTH", "WRONGPASS", "NOPERM"})
    if (reasons.find(refusal) != std::string::npos)
      return "correct \"sentinel_user\" and \"sentinel_password\" in the platform file, or what the user may";
  if (reasons.find(unknown) != std::string::npos) return "correct \"master\" in the platform file";
  return "start a sentinel, correct \"sentinels\" in the platform file, or name the server with --store";
}

}  // namespace

store_address find_master(store_address settings, std::chrono::milliseconds patience) {
  const clock::time_point end = clock::now() + patience;
  std::string reasons;
  const size_t n = settings.sentinels.size();
  for (size_t i = 0; i < n; ++i) {
    const ko_platform::sentinel_address which = settings.sentinels[i];
    const clock::time_point now = clock::now();
    try {
      ask(which, settings, now + (end - now) / (n - i));
      return settings;
    } catch (const silence &silent) {
      reasons += (i == 0 ? "" : ", ") + which.host + ":" + std::to_string(which.port) + " (" + silent.what() + ")";
    }
  }
  throw store_error("no sentinel tells where the master \"" + settings.master + "\" is: " + reasons + "; " +
                    next_step(reasons));
}

}  // namespace lspanctl
