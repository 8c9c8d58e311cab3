// The other processes of a switch: they write, delete and publish records as the layout of the store asks them to.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "records.h"

struct redisContext;

namespace harness {

// One connection, on which everything happens in the order of the calls.
class producer {
 public:
  explicit producer(const std::string &socket);
  producer(const producer &) = delete;
  producer &operator=(const producer &) = delete;
  ~producer();

  // A transaction each, which ends with the command `also`. Sent at once by flush, which also waits for the answers and
  // throws when one is an error.
  void change(const ko_store::change &what, const std::vector<std::string> &also = {});
  void set(const record &what) { change(what.change(ko_store::change_kind::set)); }
  void del(const record &what) { change(what.change(ko_store::change_kind::del)); }
  void announce(uint32_t db, const std::string &message, const std::string &bytes);  // whatever they say
  void raw(uint32_t db, const std::string &hash, const std::string &key, const std::string &bytes);  // not announced
  void flush();

 private:
  void append(const std::vector<std::string_view> &words);

  redisContext *context_;
  size_t unanswered_ = 0;
};

}  // namespace harness
