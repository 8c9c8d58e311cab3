// The lease in the store that makes one of several processes the active one. Two keys of database 0 are one text, which
// says who holds it and since when:
//
//   <program>.lease    runs out by itself unless it is renewed
//   <program>.active   stays: who was active last. It is the fence of what the process writes, see store/engine.h
//
// A change is a transaction behind WATCH: the server drops it when the lease is another than the one that was seen, so
// that nobody takes, renews or gives back what has become another's, however late the command arrives.
#pragma once

#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include "store/master_watch.h"
#include "store/redis_link.h"

namespace ko_store {

class lease_link_user {
 public:
  virtual ~lease_link_user() = default;
  virtual void connected() = 0;  // the lease can be asked for
  virtual void lost() = 0;       // it cannot; what was asked has no answer; the link is made anew by itself
  // Answers look with the texts of both keys; empty: there is none.
  virtual void seen(std::string_view holder, std::string_view last) = 0;
  virtual void changed(bool is_carried_out) = 0;
};

class lease_link final : private redis_link_user {
 public:
  // Begins to connect. `user` is borrowed, and is called from inside the event loop only.
  lease_link(event_base *base, ko_platform::store_address address, const std::string &program,
             std::chrono::milliseconds lease, lease_link_user &user);

  // One question at a time, while connected. Each of the last three is about the lease that was just seen.
  void look();
  void take(std::string_view holder);
  void renew();
  void give_back();

  void reconnect();  // forgets what was asked

  const std::string &fence_key() const { return active_key_; }

 private:
  enum class question { none, look, take, renew, give_back };

  void begin();
  void connect();
  void ask(question what, unsigned answers);
  void close();
  void broken(std::string_view why);
  void answered(redis_link &link, const redis_answer &answer) override;
  void lost(redis_link &link, const std::string &why) override;
  void on_last(const redis_answer &answer);

  event_base *base_;
  ko_platform::store_address address_;
  std::unique_ptr<master_watch> masters_;  // where sentinels know the address
  const std::string lease_key_, active_key_;
  const std::string lease_ms_;
  lease_link_user &user_;
  std::unique_ptr<redis_link> link_;
  std::string command_;
  bool is_connected_ = false;  // or being connected
  question asked_ = question::none;
  unsigned expected_ = 0;  // answers to it, and to the login before it
  std::string holder_;     // that was seen
  std::set<std::string, std::less<>> reported_;
  ko_platform::event_ptr retry_;
};

}  // namespace ko_store
