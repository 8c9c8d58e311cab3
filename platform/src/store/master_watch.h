// Where the store is when there are several servers: Redis' sentinels watch them, know which is the master, and say so
// when another becomes it.
//
// Each sentinel has a link that asks for the master and then listens. A link that was lost is made anew and asks again,
// so that nothing is missed meanwhile.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "store/redis_link.h"

namespace ko_store {

class master_watch final : private redis_link_user {
 public:
  using listener = std::function<void(const ko_platform::store_address &master)>;

  // `settings` names the sentinels and what the master is called there. `found` is called once for each find, `told`
  // whenever else a sentinel says where the master is, whether it has moved or not. Nothing is called from here.
  master_watch(event_base *base, ko_platform::store_address settings, listener found, listener told);
  master_watch(const master_watch &) = delete;
  master_watch &operator=(const master_watch &) = delete;

  // Asks one sentinel after the other, until one says where the master is.
  void find();

 private:
  struct sentinel {
    ko_platform::store_address address;
    std::unique_ptr<redis_link> link;
    unsigned answers = 0;  // that are awaited; the last of them says where the master is, and announcements follow
    bool lost = true;      // the link is to be made anew
    std::string reported;  // why it does not tell
  };

  void turn();
  void ask_next();
  void renew_lost();
  void renew(sentinel &which);
  void answered(redis_link &link, const redis_answer &answer) override;
  void lost(redis_link &link, const std::string &why) override;
  void on_answer(sentinel &from, const redis_answer &answer);
  void on_announced(sentinel &from, std::string_view text);
  void on_master(std::string_view host, std::string_view port);
  void lose(sentinel &which, std::string_view why);
  size_t index_of(const sentinel &which) const { return static_cast<size_t>(&which - sentinels_.data()); }

  event_base *base_;
  const ko_platform::store_address settings_;
  const listener found_, told_;
  std::vector<sentinel> sentinels_;
  bool finding_ = false;
  bool asking_ = false;  // the answer of the one that is asked is awaited
  size_t asked_ = 0;     // of the sentinels, the one that is asked, or is to be
  size_t silent_ = 0;    // of them, those that were asked in vain
  ko_platform::event_ptr ask_timer_;
  ko_platform::event_ptr renew_timer_;
};

}  // namespace ko_store
