#include "producer.h"

#include <hiredis/hiredis.h>

#include <memory>
#include <stdexcept>

#include "p_policy.pb-c.h"
#include "sandbox.h"
#include "u_monitor.pb-c.h"

namespace harness {
namespace {

constexpr uint32_t conf_db = 4;
constexpr uint32_t udp_db = 8;

UMonitor__MirrorIndex index_of(const member &of, const char *user) {
  UMonitor__MirrorIndex index = U_MONITOR__MIRROR_INDEX__INIT;
  index.t_user = const_cast<char *>(user);
  index.session_num = of.session;
  index.s_ifx = of.s_ifx;
  index.d_ifx = of.d_ifx;
  index.dir = of.dir;
  index.acl_id = of.acl;
  return index;
}

record result_of(const member &of, const char *user, uint32_t db, uint32_t value, uint32_t msg_type) {
  UMonitor__MirrorIndex index = index_of(of, user);
  UMonitor__MirrorResultInfo message = U_MONITOR__MIRROR_RESULT_INFO__INIT;
  message.index = &index;
  message.result = value;
  message.msg_type = msg_type;
  return any(db, message.base);
}

}  // namespace

ko_store::change record::change(ko_store::change_kind kind) const {
  const bool bare = kind == ko_store::change_kind::del;
  return {{db, type}, kind, key, bare ? std::string_view() : std::string_view(bytes)};
}

std::string record::line() const { return std::to_string(db) + " " + type->name + " " + hex(key) + " " + hex(bytes); }

record any(uint32_t db, const ProtobufCMessage &message) {
  record out{db, message.descriptor, {}, {}};
  if (const ProtobufCMessage *key = ko_store::key_of(message)) ko_store::append_packed(*key, out.key);
  ko_store::append_packed(message, out.bytes);
  return out;
}

record session(const member &of) {
  UMonitor__MirrorIndex index = index_of(of, "config");
  UMonitor__MirrorLspanInfo message = U_MONITOR__MIRROR_LSPAN_INFO__INIT;
  message.index = &index;
  message.module_type = static_cast<UMonitor__MirrorModule>(of.module);
  message.role = static_cast<UMonitor__MirrorRole>(of.role);
  message.apply_type = static_cast<UMonitor__MirrorType>(of.apply);
  message.mtp_switch = of.mtp_switch;
  message.sample_rate = of.sample;
  message.n_vlan_map = of.vlans.size();
  message.vlan_map = const_cast<uint32_t *>(of.vlans.data());
  return any(conf_db, message.base);
}

record membership(uint32_t ifx, uint32_t group) {
  PIntf__Intfindex index = P_INTF__INTFINDEX__INIT;
  PPolicy__DataIntfConf message = P_POLICY__DATA_INTF_CONF__INIT;
  index.index = ifx;
  message.index = &index;
  message.group_id = group;
  return any(conf_db, message.base);
}

record result(const member &of, uint32_t value, uint32_t msg_type) {
  return result_of(of, "du_span", udp_db, value, msg_type);
}

record relayed(const member &of, uint32_t value, uint32_t msg_type) {
  return result_of(of, "ko_lspan", conf_db, value, msg_type);
}

// ---- producer ----

producer::producer(const std::string &socket) : context_(redisConnectUnix(socket.c_str())) {
  if (context_ == nullptr || context_->err != 0) throw std::runtime_error("no connection for the producer");
}

producer::~producer() { redisFree(context_); }

void producer::append(const std::vector<std::string_view> &words) {
  std::vector<const char *> texts;
  std::vector<size_t> lengths;
  for (const std::string_view word : words) {
    texts.push_back(word.data() == nullptr ? "" : word.data());
    lengths.push_back(word.size());
  }
  redisAppendCommandArgv(context_, static_cast<int>(words.size()), texts.data(), lengths.data());
  ++unanswered_;
}

void producer::change(const ko_store::change &what) {
  std::string bytes;
  ko_store::append_announcement({what.kind, what.key, what.record}, bytes);
  const std::string_view name = what.hash.type->name;
  append({"SELECT", std::to_string(what.hash.db)});
  append({"MULTI"});
  if (what.kind == ko_store::change_kind::set) append({"HSET", name, what.key, what.record});
  if (what.kind == ko_store::change_kind::del) append({"HDEL", name, what.key});
  append({"PUBLISH", ko_store::channel_name(what.hash.db, name), bytes});
  append({"EXEC"});
}

void producer::announce(uint32_t db, const std::string &message, const std::string &bytes) {
  append({"PUBLISH", ko_store::channel_name(db, message), bytes});
}

void producer::raw(uint32_t db, const std::string &hash, const std::string &key, const std::string &bytes) {
  append({"SELECT", std::to_string(db)});
  append({"HSET", hash, key, bytes});
}

void producer::flush() {
  for (; unanswered_ > 0; --unanswered_) {
    void *reply = nullptr;
    if (redisGetReply(context_, &reply) != REDIS_OK) throw std::runtime_error(context_->errstr);
    const std::unique_ptr<redisReply, decltype(&freeReplyObject)> owned(static_cast<redisReply *>(reply),
                                                                        &freeReplyObject);
    if (owned->type == REDIS_REPLY_ERROR) throw std::runtime_error(owned->str);
  }
}

bool producer::stored(const record &what) {
  append({"SELECT", std::to_string(what.db)});
  flush();
  append({"HEXISTS", what.type->name, what.key});
  void *reply = nullptr;
  if (redisGetReply(context_, &reply) != REDIS_OK) throw std::runtime_error(context_->errstr);
  --unanswered_;
  const std::unique_ptr<redisReply, decltype(&freeReplyObject)> owned(static_cast<redisReply *>(reply),
                                                                      &freeReplyObject);
  return owned->type == REDIS_REPLY_INTEGER && owned->integer == 1;
}

}  // namespace harness
