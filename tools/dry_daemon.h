// The daemon's own code in this process, on the store engine that keeps everything in memory. Nothing outside the
// process is touched. What the daemon would write is asked of it, not worked out a second time.
//
// Its log lines come here too: this library defines the logging wrappers (vx_zlog.h), so that those of the platform
// are not linked.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "platform_config.h"
#include "store/memory_engine.h"

struct vx_global;

namespace lspanctl {

struct log_line {
  std::string category;  // "ko_lspan"; the platform's own lines have "ko_platform"
  int level;             // VX_ZLOG_...
  std::string function;
  std::string text;
};

// Called for events inside, in their order. Each may be empty.
struct dry_daemon_observer {
  std::function<void(const log_line &)> log;
  std::function<void(const ko_store::change &)> write;  // a record call of the daemon; bytes are borrowed
  std::function<void(int32_t status)> event;            // a handler has returned
};

class dry_daemon {
 public:
  // Starts the daemon up to where it waits for changes, on an empty store. `log_level` is the level of its channel.
  // Throws refused. There is one at a time.
  dry_daemon(const ko_platform::config &settings, uint32_t log_level, dry_daemon_observer seen);
  dry_daemon(const dry_daemon &) = delete;
  dry_daemon &operator=(const dry_daemon &) = delete;
  ~dry_daemon();

  // Another writer's change, and everything that follows from it.
  void put(const ko_store::change &what);

  // The records of a hash, packed key to packed record.
  const std::map<std::string, std::string, std::less<>> &records(const ko_store::hash_id &hash) const {
    return engine_->records(hash.db, hash.type->name);
  }

 private:
  void settle();
  void empty_inputs();

  ko_store::memory_engine *engine_ = nullptr;  // owned by the context
  vx_global *global_ = nullptr;
};

}  // namespace lspanctl
