// The floor of the forwarding side: when a session is announced, writes one filter that mirrors a device to another.
//
//   bench_forward_floor SOCKET FROM TO       from what FROM receives to TO; each announcement once more, until it is
//   killed
#include <hiredis/hiredis.h>
#include <libmnl/libmnl.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/pkt_cls.h>
#include <linux/rtnetlink.h>
#include <linux/tc_act/tc_mirred.h>
#include <net/if.h>

#include <arpa/inet.h>

#include <array>
#include <cstdio>

#include "events.h"

namespace {

constexpr uint32_t pref = 20;

void put_mirror(nlmsghdr *message, unsigned to) {
  nlattr *actions = mnl_attr_nest_start(message, TCA_BPF_ACT);
  nlattr *first = mnl_attr_nest_start(message, 1);
  mnl_attr_put_strz(message, TCA_ACT_KIND, "mirred");
  nlattr *options = mnl_attr_nest_start(message, TCA_ACT_OPTIONS);
  tc_mirred mirred{};
  mirred.action = TC_ACT_UNSPEC;  // continue
  mirred.eaction = TCA_EGRESS_MIRROR;
  mirred.ifindex = to;
  mnl_attr_put(message, TCA_MIRRED_PARMS, sizeof mirred, &mirred);
  mnl_attr_nest_end(message, options);
  mnl_attr_nest_end(message, first);
  mnl_attr_nest_end(message, actions);
}

void add_filter(mnl_socket *kernel, unsigned from, unsigned to) {
  std::array<char, 4096> buffer{};
  nlmsghdr *message = mnl_nlmsg_put_header(buffer.data());
  message->nlmsg_type = RTM_NEWTFILTER;
  message->nlmsg_flags = NLM_F_REQUEST | NLM_F_CREATE | NLM_F_EXCL | NLM_F_ACK;
  auto *where = static_cast<tcmsg *>(mnl_nlmsg_put_extra_header(message, sizeof(tcmsg)));
  where->tcm_family = AF_UNSPEC;
  where->tcm_ifindex = static_cast<int>(from);
  where->tcm_parent = TC_H_MAKE(TC_H_CLSACT, TC_H_MIN_INGRESS);
  where->tcm_info = TC_H_MAKE(pref << 16, htons(ETH_P_ALL));
  mnl_attr_put_strz(message, TCA_KIND, "bpf");
  nlattr *options = mnl_attr_nest_start(message, TCA_OPTIONS);
  const sock_filter all = BPF_STMT(BPF_RET | BPF_K, 0xFFFFFFFF);
  mnl_attr_put_u16(message, TCA_BPF_OPS_LEN, 1);
  mnl_attr_put(message, TCA_BPF_OPS, sizeof all, &all);
  put_mirror(message, to);
  mnl_attr_nest_end(message, options);
  mnl_socket_sendto(kernel, message, message->nlmsg_len);
  const ssize_t n = mnl_socket_recvfrom(kernel, buffer.data(), buffer.size());
  if (n < 0 || mnl_cb_run(buffer.data(), static_cast<size_t>(n), 0, 0, nullptr, nullptr) < 0) std::perror("filter");
}

}  // namespace

int main(int n_words, char **words) {
  if (n_words != 4) return 2;
  redisContext *server = redisConnectUnix(words[1]);
  mnl_socket *kernel = mnl_socket_open(NETLINK_ROUTE);
  if (server == nullptr || server->err != 0 || kernel == nullptr || mnl_socket_bind(kernel, 0, MNL_SOCKET_AUTOPID) != 0)
    return 1;
  const unsigned from = if_nametoindex(words[2]), to = if_nametoindex(words[3]);
  freeReplyObject(redisCommand(server, "SUBSCRIBE %s", bench::session_channel().c_str()));
  for (void *reply = nullptr; redisGetReply(server, &reply) == REDIS_OK; freeReplyObject(reply)) {
    const auto *message = static_cast<const redisReply *>(reply);
    if (message->elements == 3 && message->element[2]->len > 0 && message->element[2]->str[0] == '+')
      add_filter(kernel, from, to);
  }
  return 0;
}
