#include "producer.h"

#include <hiredis/hiredis.h>

#include <memory>
#include <stdexcept>

#include "store/layout.h"

namespace harness {

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

void producer::change(const ko_store::change &what, const std::vector<std::string> &also) {
  std::string bytes;
  ko_store::append_announcement(what, bytes);
  const std::string_view name = what.hash.type->name;
  append({"SELECT", std::to_string(what.hash.db)});
  append({"MULTI"});
  if (what.kind == ko_store::change_kind::set) append({"HSET", name, what.key, what.record});
  if (what.kind == ko_store::change_kind::del) append({"HDEL", name, what.key});
  append({"PUBLISH", ko_store::channel_name(what.hash.db, name), bytes});
  if (!also.empty()) append({also.begin(), also.end()});
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

}  // namespace harness
