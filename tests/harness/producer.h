// The other processes of a switch: they write, delete and publish records as the layout of the store asks them to.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <protobuf-c/protobuf-c.h>

#include "store/engine.h"

struct redisContext;

namespace harness {

// One record and where it belongs; `bytes` is empty when only the key matters.
struct record {
  uint32_t db;
  const ProtobufCMessageDescriptor *type;
  std::string key;
  std::string bytes;

  ko_store::change change(ko_store::change_kind kind) const;
  std::string line() const;  // as sandbox::dump gives it
};

struct member {
  uint32_t session, s_ifx, d_ifx;  // a port, or group_target(...)
  uint32_t dir = 1, acl = 0;
  uint32_t apply = 0;   // 0 port, 1 ACL, 2 VLAN
  uint32_t module = 0;  // 5: d_ifx is a group
  uint32_t mtp_switch = 0, role = 1, sample = 0;
  std::vector<uint32_t> vlans = {};
};

constexpr uint32_t group_target(uint32_t group) { return group ^ 0xFD000000U; }

record session(const member &of);                                             // u_monitor.mirror_lspan_info
record membership(uint32_t ifx, uint32_t group);                              // p_policy.data_intf_conf
record result(const member &of, uint32_t value = 0, uint32_t msg_type = 0);   // u_monitor.mirror_result_info of du_span
record relayed(const member &of, uint32_t value = 0, uint32_t msg_type = 0);  // what the daemon makes of it
record any(uint32_t db, const ProtobufCMessage &message);

// One connection, on which everything happens in the order of the calls.
class producer {
 public:
  explicit producer(const std::string &socket);
  producer(const producer &) = delete;
  producer &operator=(const producer &) = delete;
  ~producer();

  // A transaction each. Sent at once by flush, which also waits for the answers and throws when one is an error.
  void change(const ko_store::change &what);
  void set(const record &what) { change(what.change(ko_store::change_kind::set)); }
  void del(const record &what) { change(what.change(ko_store::change_kind::del)); }
  void announce(uint32_t db, const std::string &message, const std::string &bytes);  // whatever they say
  void raw(uint32_t db, const std::string &hash, const std::string &key, const std::string &bytes);  // not announced
  void flush();
  bool stored(const record &what);

 private:
  void append(const std::vector<std::string_view> &words);

  redisContext *context_;
  size_t unanswered_ = 0;
};

}  // namespace harness
