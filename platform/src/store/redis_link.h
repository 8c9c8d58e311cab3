// One connection to a Redis server on the event loop: commands go out as bytes, answers come back in order. hiredis
// opens the connection and parses the answers; a command and its answer cost no allocation.
#pragma once

#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "global_context.h"
#include "platform_config.h"

struct redisContext;
struct redisReader;

namespace ko_store {

// An answer of the server. Its texts are valid during the call that hands it over.
struct redis_answer {
  struct failure {
    size_t element;  // of the array, from 0; 0 when the answer is none
    std::string_view text;
  };

  int type;                             // REDIS_REPLY_... of the whole
  size_t elements;                      // of the array, when it is one
  std::vector<std::string_view> texts;  // the strings in it, in their order, however deep they stand
  std::vector<failure> errors;          // the errors in it, in their order

  std::string_view first_error() const { return errors.empty() ? std::string_view() : errors.front().text; }
};

class redis_link;

class redis_link_user {
 public:
  virtual ~redis_link_user() = default;
  virtual void answered(redis_link &link, const redis_answer &answer) = 0;
  // The connection was not made or is lost; nothing follows. `why` is a reason for people.
  virtual void lost(redis_link &link, const std::string &why) = 0;
  // Asked each time before bytes go out. False: they do not, and the user has closed the link.
  virtual bool may_send(redis_link &) { return true; }
};

class redis_link {
 public:
  // Begins to connect; never calls the user from here. `owner` (borrowed) must not destroy the link from inside its
  // calls, but may close it.
  redis_link(event_base *base, const ko_platform::store_address &address, redis_link_user &owner);
  redis_link(const redis_link &) = delete;
  redis_link &operator=(const redis_link &) = delete;
  ~redis_link();

  // Takes bytes to be sent, all of them or (with bad_alloc) none. They go out when control is back in the loop.
  void send(std::string_view bytes);

  // Ends the connection. The user is not called any more, and nothing may be sent.
  void close();

 private:
  struct context_deleter {
    void operator()(redisContext *context) const;
  };
  struct reader_deleter {
    void operator()(redisReader *reader) const;
  };
  struct parsed;  // the answer that is coming in

  size_t unsent() const { return out_.size() - sent_; }
  void on_readable();
  void on_writable();
  bool finish_connect();
  bool feed(const char *bytes, size_t length);
  void fail(const std::string &why);
  static redisReader *make_reader(parsed *into);

  redis_link_user &owner_;
  std::unique_ptr<redisContext, context_deleter> context_;
  std::unique_ptr<parsed> parsed_;
  std::unique_ptr<redisReader, reader_deleter> reader_;
  std::string out_;
  size_t sent_ = 0;  // bytes of out_
  bool connected_ = false;
  bool closed_ = false;
  std::string failure_;  // of the beginning; reported from the loop
  std::vector<char> in_;
  ko_platform::event_ptr readable_;
  ko_platform::event_ptr writable_;
};

// Appends a command as the server takes it.
void append_command(std::string &out, std::initializer_list<std::string_view> words);
// Appends the command that logs in, if there is a password; `user` may be empty. Returns how many answers it will have.
unsigned append_login(std::string &out, std::string_view user, std::string_view password);
// Appends parts of a command.
void append_head(std::string &out, size_t n_words);
void append_word(std::string &out, std::string_view word);
void append_length(std::string &out, size_t length);  // of a word whose bytes follow, and after them "\r\n"

}  // namespace ko_store
