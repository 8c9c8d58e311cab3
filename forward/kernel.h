// The kernel's links, hooks and filters: as last seen, kept up by its announcements, and changed on request. All input
// and output with the kernel is here.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "plan.h"

struct mnl_socket;

namespace ko_forward {

struct port_change {
  int ifindex = 0;
  port_flags flags = no_flags;
  bool flush = false;
};

class kernel {
 public:
  kernel();  // throws std::system_error
  kernel(const kernel &) = delete;
  kernel &operator=(const kernel &) = delete;
  ~kernel();

  // Whether this process has the right to change anything.
  bool may_change();

  int descriptor() const;  // readable when there are announcements
  // Takes all announcements that wait; whether they may mean work.
  bool take_news();
  // Reads what is in doubt, at first everything. Throws std::system_error when the kernel does not answer.
  void refresh();
  void doubt(int ifindex) { doubtful_.insert(ifindex); }
  void doubt_all() { all_doubtful_ = true; }
  bool is_doubtful() const { return all_doubtful_ || !doubtful_.empty(); }

  const link_table &links() const { return links_; }
  const std::map<place, place_filters> &filters() const { return filters_; }
  const place_filters &filters_at(const place &at) const;
  // Reads the filters of a place anew, for their counts.
  void read_place(const place &at);
  // The actions that others have taken away since the last call, as they were seen last.
  std::vector<copy_action> take_lost();

  // Each carries out what it is given, in that order, takes what succeeded over, and returns an outcome for each.
  std::vector<outcome> make_hooks(const std::vector<int> &links);
  std::vector<outcome> remove_hooks(const std::vector<int> &links);
  std::vector<outcome> put(const std::vector<filter_change> &changes);
  std::vector<outcome> remove(const std::vector<kernel_filter> &which);
  std::vector<outcome> set_ports(const std::vector<port_change> &changes);

  uint64_t changes() const { return changes_; }  // requests so far that change something

 private:
  struct socket_closer {
    void operator()(mnl_socket *socket) const;
  };
  using socket = std::unique_ptr<mnl_socket, socket_closer>;

  std::vector<outcome> carry_out(std::vector<request> requests);
  void carry_out_some(std::span<request> requests, std::span<outcome> outcomes);
  template <class Take>
  void read(request what, const Take &take);
  template <class Take>
  bool read_once(request &what, const Take &take);
  void read_everything();
  template <class IsAsked>
  void read_hooks(const IsAsked &is_asked);
  void read_link_filters(int ifindex);
  void take(const nlmsghdr &from);
  void take_link(const link_news &news);
  void drop_filters(int ifindex);
  void drop_filters(const place &at);

  socket requests_;
  socket news_;
  uint32_t sequence_ = 0;
  std::vector<uint8_t> buffer_;

  link_table links_;
  std::map<place, place_filters> filters_;
  std::map<uint32_t, copy_action> missed_;  // by number: those that were not found again yet
  bool all_doubtful_ = true;
  std::set<int> doubtful_;  // links whose hook and filters may be others
  bool changed_ = false;    // a link, since take_news began
  uint64_t changes_ = 0;
};

}  // namespace ko_forward
