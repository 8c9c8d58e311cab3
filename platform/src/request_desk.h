// Where requests come in and answers go out; see ko_platform/requests.h.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

namespace ko_platform {

class request_desk {
 public:
  // Takes a request whose answer goes to the channel `reply`, now or later.
  using handler = std::function<void(const std::string &reply)>;

  void add(const std::string &name, handler answers) { handlers_[name] = std::move(answers); }
  void take(std::string_view payload);  // one request, as it was published
  void answer(const std::string &reply, const std::string &json) const;
  void refuse(const std::string &reply, const std::string &why) const;

  // Called before a request is handed to its handler; empty: nothing.
  std::function<void()> before;

  uint64_t malformed() const { return malformed_; }  // requests that cannot be answered

  // Whether another process is the one that acts on requests; this one answers who it is, and that.
  bool stands_by = false;

  // How the store publishes; empty without a store.
  std::function<void(std::string_view channel, std::string_view text)> publish;

 private:
  std::map<std::string, handler, std::less<>> handlers_;
  uint64_t malformed_ = 0;
};

}  // namespace ko_platform
