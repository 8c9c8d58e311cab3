#include "kernel.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <iterator>
#include <system_error>
#include <utility>

#include "forward_log.h"

namespace ko_forward {
namespace {

constexpr size_t buffer_size = size_t{64} << 10;
constexpr size_t most_requests = 64;  // before their answers are taken, or there may be no room for them
constexpr size_t most_request_bytes = size_t{128} << 10;
constexpr int most_dumps = 20;      // of the same, when changes come in between
constexpr int news_room = 8 << 20;  // bytes of announcements that may wait
constexpr timeval patience = {5, 0};

[[noreturn]] void fail(const char *what) { throw std::system_error(errno, std::generic_category(), what); }

mnl_socket *open_socket(unsigned groups) {
  mnl_socket *opened = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC);
  if (opened == nullptr) fail("a netlink socket cannot be had");
  if (mnl_socket_bind(opened, groups, MNL_SOCKET_AUTOPID) == 0) return opened;
  const int error = errno;
  mnl_socket_close(opened);
  errno = error;
  fail("a netlink socket cannot be bound");
}

// Announcements that carry that number are of this program's own changes.
void pass_by_changes_of(uint32_t port, int news) {
  sock_filter code[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(nlmsghdr, nlmsg_pid)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, htonl(port), 0, 1),
      BPF_STMT(BPF_RET | BPF_K, 0),
      BPF_STMT(BPF_RET | BPF_K, 0xFFFFFFFF),
  };
  const sock_fprog all = {std::size(code), code};
  if (setsockopt(news, SOL_SOCKET, SO_ATTACH_FILTER, &all, sizeof(all)) != 0) fail("announcements cannot be chosen");
}

bool same_for_us(const link &a, const link &b) {
  return a.name == b.name && a.mtu == b.mtu && a.is_up == b.is_up && a.has_carrier == b.has_carrier &&
         a.is_switched == b.is_switched && a.bridge == b.bridge && a.flags == b.flags &&
         a.untagged_vlan == b.untagged_vlan && a.filters_vlans == b.filters_vlans;
}

}  // namespace

void kernel::socket_closer::operator()(mnl_socket *socket) const { mnl_socket_close(socket); }

kernel::kernel() : buffer_(buffer_size) {
  requests_.reset(open_socket(0));
  news_.reset(open_socket(0));
  int on = 1;
  mnl_socket_setsockopt(requests_.get(), NETLINK_EXT_ACK, &on, sizeof(on));
  mnl_socket_setsockopt(requests_.get(), NETLINK_CAP_ACK, &on, sizeof(on));
  setsockopt(mnl_socket_get_fd(requests_.get()), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
  const int news = descriptor();
  pass_by_changes_of(mnl_socket_get_portid(requests_.get()), news);
  if (setsockopt(news, SOL_SOCKET, SO_RCVBUFFORCE, &news_room, sizeof(news_room)) != 0)
    setsockopt(news, SOL_SOCKET, SO_RCVBUF, &news_room, sizeof(news_room));
  for (int group : {RTNLGRP_LINK, RTNLGRP_TC})
    if (mnl_socket_setsockopt(news_.get(), NETLINK_ADD_MEMBERSHIP, &group, sizeof(group)) != 0)
      fail("the kernel's announcements cannot be had");
}

kernel::~kernel() = default;

const place_filters &kernel::filters_at(const place &at) const {
  static const place_filters none;
  const auto found = filters_.find(at);
  return found == filters_.end() ? none : found->second;
}

int kernel::descriptor() const { return mnl_socket_get_fd(news_.get()); }

// No link has the index 0, and the right is looked at before the link.
bool kernel::may_change() { return carry_out({remove_hook(0)}).front().code != EPERM; }

// ---- announcements ----

bool kernel::take_news() {
  changed_ = false;
  for (;;) {
    const ssize_t length = recv(descriptor(), buffer_.data(), buffer_.size(), MSG_DONTWAIT);
    if (length < 0 && errno == EINTR) continue;
    if (length < 0 && errno == ENOBUFS) {
      FORWARD_WARN("the kernel's announcements came faster than they were read; everything is read again");
      doubt_all();
      continue;
    }
    if (length <= 0) break;
    for_each_message({buffer_.data(), static_cast<size_t>(length)}, [this](const nlmsghdr &from) { take(from); });
  }
  return changed_ || is_doubtful();
}

void kernel::take(const nlmsghdr &from) {
  if (const auto news = read_link(from)) return take_link(*news);
  const auto ifindex = read_tc_link(from);
  if (ifindex.has_value() && links_.contains(*ifindex)) doubt(*ifindex);
}

void kernel::take_link(const link_news &news) {
  const int index = news.what.index;
  const auto known = links_.find(index);
  if (news.is_gone && !news.of_bridge) {
    changed_ = changed_ || known != links_.end();
    links_.erase(index);
    drop_filters(index);
    return;
  }
  if (known == links_.end() && news.of_bridge) return;
  link now = known == links_.end() || !news.of_bridge ? news.what : known->second;
  if (news.of_bridge) {
    if (news.is_gone) now.bridge = 0;
    now.flags = news.is_gone ? no_flags : news.what.flags;
    if (news.has_vlans || news.is_gone) now.untagged_vlan = news.what.untagged_vlan;
  } else if (known != links_.end()) {
    now.hook = known->second.hook;
    now.untagged_vlan = now.bridge == known->second.bridge ? known->second.untagged_vlan : 0;
  }
  if (known == links_.end()) doubt(index);
  changed_ = changed_ || known == links_.end() || !same_for_us(known->second, now);
  links_[index] = std::move(now);
}

void kernel::drop_filters(int ifindex) {
  drop_filters(place{ifindex, dir_rx});
  drop_filters(place{ifindex, dir_tx});
}

void kernel::drop_filters(const place &at) {
  for (const auto &[key, filter] : filters_[at].own)
    for (const copy_action &action : filter.what.actions)
      if (action.number != 0) missed_.insert_or_assign(action.number, action);
  filters_.erase(at);
}

std::vector<copy_action> kernel::take_lost() {
  std::vector<copy_action> lost;
  for (const auto &[number, action] : std::exchange(missed_, {})) lost.push_back(action);
  return lost;
}

// ---- reading ----

void kernel::refresh() {
  if (all_doubtful_) read_everything();
  if (doubtful_.empty()) return;
  const std::set<int> doubtful = std::exchange(doubtful_, {});
  read_hooks([&doubtful](int index) { return doubtful.contains(index); });
  for (const int index : doubtful)
    if (links_.contains(index)) read_link_filters(index);
}

// Of the links that `is_asked` names. To ask for one would be announced to everybody.
template <class IsAsked>
void kernel::read_hooks(const IsAsked &is_asked) {
  for (auto &[index, link] : links_)
    if (is_asked(index)) link.hook = hook_kind::none;
  read(ask_hooks(), [&](const nlmsghdr &from) {
    const auto news = read_hook(from);
    if (!news.has_value() || !is_asked(news->ifindex)) return;
    const auto found = links_.find(news->ifindex);
    if (found != links_.end()) found->second.hook = news->hook;
  });
}

void kernel::read_everything() {
  links_.clear();
  while (!filters_.empty()) drop_filters(place(filters_.begin()->first));
  doubtful_.clear();
  const auto take_links = [this](const nlmsghdr &from) {
    if (const auto news = read_link(from)) take_link(*news);
  };
  read(ask_links(), take_links);
  if (std::any_of(links_.begin(), links_.end(), [](const auto &at) { return at.second.filters_vlans; }))
    read(ask_bridge_ports(), take_links);
  doubtful_.clear();
  read_hooks([](int) { return true; });
  for (const auto &[index, link] : links_)
    if (link.hook != hook_kind::none) read_link_filters(index);
  all_doubtful_ = false;
}

// At an ingress qdisc the kernel gives the filters of ingress for egress, too.
void kernel::read_link_filters(int ifindex) {
  drop_filters(ifindex);
  const hook_kind hook = links_.at(ifindex).hook;
  if (hook != hook_kind::none) read_place({ifindex, dir_rx});
  if (hook == hook_kind::clsact) read_place({ifindex, dir_tx});
}

void kernel::read_place(const place &at) {
  place_filters found;
  drop_filters(at);
  read(ask_filters(at), [&](const nlmsghdr &from) {
    auto one = read_filter(from);
    if (!one.has_value()) return;
    for (const copy_action &action : one->what.actions) missed_.erase(action.number);
    const place_filters::key key = {one->chain, one->what.pref, one->what.handle};
    if (one->is_own)
      found.own.insert_or_assign(key, std::move(*one));
    else
      found.foreign.insert(key);
  });
  filters_[at] = std::move(found);
}

template <class Take>
void kernel::read(request what, const Take &take) {
  for (int i = 0; i < most_dumps; ++i)
    if (read_once(what, take)) return;
  errno = EBUSY;
  fail("the kernel's tables change faster than they can be read");
}

// False when something changed while it was read. A request that the kernel refuses gives nothing: what it asks for is
// not there.
template <class Take>
bool kernel::read_once(request &what, const Take &take) {
  auto *header = reinterpret_cast<nlmsghdr *>(what.data());
  header->nlmsg_seq = ++sequence_;
  if (mnl_socket_sendto(requests_.get(), what.data(), what.size()) < 0) fail("the kernel takes no requests");
  bool whole = true;
  bool done = false;
  while (!done) {
    const ssize_t length = mnl_socket_recvfrom(requests_.get(), buffer_.data(), buffer_.size());
    if (length < 0 && errno == EINTR) continue;
    if (length < 0) fail("the kernel does not answer");
    for_each_message({buffer_.data(), static_cast<size_t>(length)}, [&](const nlmsghdr &from) {
      if (from.nlmsg_seq != sequence_) return;
      whole = whole && (from.nlmsg_flags & NLM_F_DUMP_INTR) == 0;
      done = done || from.nlmsg_type == NLMSG_DONE || from.nlmsg_type == NLMSG_ERROR;
      take(from);
    });
  }
  return whole;
}

// ---- changing ----

std::vector<outcome> kernel::carry_out(std::vector<request> requests) {
  changes_ += requests.size();
  std::vector<outcome> outcomes(requests.size());
  for (size_t from = 0; from < requests.size();) {
    size_t bytes = 0;
    size_t n = 0;
    while (from + n < requests.size() && n < most_requests &&
           (n == 0 || bytes + requests[from + n].size() <= most_request_bytes))
      bytes += requests[from + n++].size();
    carry_out_some(std::span(requests).subspan(from, n), std::span(outcomes).subspan(from, n));
    from += n;
  }
  return outcomes;
}

void kernel::carry_out_some(std::span<request> requests, std::span<outcome> outcomes) {
  const uint32_t first = sequence_ + 1;
  std::vector<uint8_t> bytes;
  for (request &one : requests) {
    auto *header = reinterpret_cast<nlmsghdr *>(one.data());
    header->nlmsg_seq = ++sequence_;
    header->nlmsg_flags |= NLM_F_ACK;
    bytes.insert(bytes.end(), one.begin(), one.end());
    bytes.resize(MNL_ALIGN(bytes.size()));
  }
  if (mnl_socket_sendto(requests_.get(), bytes.data(), bytes.size()) < 0) fail("the kernel takes no requests");
  for (size_t left = requests.size(); left > 0;) {
    const ssize_t length = mnl_socket_recvfrom(requests_.get(), buffer_.data(), buffer_.size());
    if (length < 0 && errno == EINTR) continue;
    if (length < 0) {
      doubt_all();
      fail("the kernel does not answer");
    }
    for_each_message({buffer_.data(), static_cast<size_t>(length)}, [&](const nlmsghdr &from) {
      const uint32_t which = from.nlmsg_seq - first;
      auto read = which < outcomes.size() ? read_outcome(from) : std::nullopt;
      if (!read.has_value()) return;
      outcomes[which] = std::move(*read);
      --left;
    });
  }
}

std::vector<outcome> kernel::make_hooks(const std::vector<int> &links) {
  std::vector<request> requests;
  requests.reserve(links.size());
  for (const int index : links) requests.push_back(make_hook(index));
  std::vector<outcome> outcomes = carry_out(std::move(requests));
  for (size_t i = 0; i < links.size(); ++i) {
    const auto found = links_.find(links[i]);
    if (outcomes[i].code == 0 && found != links_.end()) found->second.hook = hook_kind::clsact;
    if (outcomes[i].code != 0) doubt(links[i]);
  }
  return outcomes;
}

std::vector<outcome> kernel::remove_hooks(const std::vector<int> &links) {
  std::vector<request> requests;
  requests.reserve(links.size());
  for (const int index : links) requests.push_back(remove_hook(index));
  for (const int index : links) doubt(index);
  return carry_out(std::move(requests));
}

std::vector<outcome> kernel::put(const std::vector<filter_change> &changes) {
  std::vector<request> requests;
  requests.reserve(changes.size());
  for (const filter_change &change : changes) requests.push_back(put_filter(change.at, change.what, change.fresh));
  std::vector<outcome> outcomes = carry_out(std::move(requests));
  for (size_t i = 0; i < changes.size(); ++i) {
    const filter_change &change = changes[i];
    if (outcomes[i].code != 0)
      doubt(change.at.ifindex);
    else
      filters_[change.at].own.insert_or_assign({0, change.what.pref, change.what.handle},
                                               kernel_filter{change.at, 0, change.what, true, true, true});
  }
  return outcomes;
}

std::vector<outcome> kernel::remove(const std::vector<kernel_filter> &which) {
  std::vector<request> requests;
  requests.reserve(which.size());
  for (const kernel_filter &one : which) requests.push_back(remove_filter(one));
  std::vector<outcome> outcomes = carry_out(std::move(requests));
  for (size_t i = 0; i < which.size(); ++i) {
    const kernel_filter &one = which[i];
    if (outcomes[i].code != 0)
      doubt(one.at.ifindex);
    else
      filters_[one.at].own.erase({one.chain, one.what.pref, one.what.handle});
  }
  return outcomes;
}

std::vector<outcome> kernel::set_ports(const std::vector<port_change> &changes) {
  std::vector<request> requests;
  requests.reserve(changes.size());
  for (const port_change &change : changes) requests.push_back(set_port(change.ifindex, change.flags, change.flush));
  std::vector<outcome> outcomes = carry_out(std::move(requests));
  for (size_t i = 0; i < changes.size(); ++i) {
    const auto found = links_.find(changes[i].ifindex);
    if (outcomes[i].code != 0 || found == links_.end()) continue;
    for (size_t flag = 0; flag < n_port_flags; ++flag)
      if (changes[i].flags[flag] != flag_state::unknown) found->second.flags[flag] = changes[i].flags[flag];
  }
  return outcomes;
}

}  // namespace ko_forward
