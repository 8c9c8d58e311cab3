#include "dry_daemon.h"

#include <cstdarg>
#include <cstdio>
#include <set>

#include "catalog.h"
#include "errors.h"
#include "global_context.h"
#include "proc/lspan/ko_lspan.h"
#include "store/registration.h"
#include "store/store.h"
#include "vx_zlog.h"

struct vx_zlog_category {
  std::string name;
};

namespace lspanctl {
namespace {

dry_daemon_observer &observer() {
  static dry_daemon_observer instance;
  return instance;
}

}  // namespace

dry_daemon::dry_daemon(const ko_platform::config &settings, uint32_t log_level, dry_daemon_observer seen) {
  ko_platform::config alone = settings;
  alone.redundancy = {};  // it shares its store with nobody
  ko_platform::use_config(std::move(alone));
  observer() = std::move(seen);
  ko_store::use_engine([this](vx_global &global) {
    auto engine = std::make_unique<ko_store::memory_engine>(global);
    engine_ = engine.get();
    return engine;
  });
  lspan_global_init(vx_zlog_init(ko_lspan_app_name), log_level);
  uint8_t run = 0;
  ko_lspan_mom_init(&run);
  if (run == 0) throw refused("the daemon's code cannot be started in this process; look at memory and limits");
  global_ = lspan_global.global;
  ko_store::registration_of(global_)->on_event = [](uint32_t, const ProtobufCMessage &, int32_t status) {
    if (observer().event) observer().event(status);
  };
  engine_->on_write = [](const ko_store::change &what) {
    if (observer().write) observer().write(what);
    return false;
  };
  settle();
}

// The daemon keeps its state in the process: it is taken away by deleting what it was configured with.
dry_daemon::~dry_daemon() {
  observer() = {};
  empty_inputs();
  vx_global_finish(global_);
  ko_store::use_engine({});
  lspan_global = {};
}

void dry_daemon::empty_inputs() {
  for (const ko_store::hash_id &hash : {session_members, group_memberships}) {
    std::vector<std::string> keys;
    for (const auto &[key, record] : records(hash)) keys.push_back(key);
    for (const std::string &key : keys) put({hash, ko_store::change_kind::del, key, {}});
  }
}

void dry_daemon::settle() {
  event_base *base = ko_platform::context_of(global_).base.get();
  while (!ko_store::registration_of(global_)->settled())
    if (event_base_loop(base, EVLOOP_ONCE) != 0) throw refused("the daemon's code has ended its event loop");
}

void dry_daemon::put(const ko_store::change &what) {
  engine_->put(what);
  while (engine_->pump()) {
  }
}

}  // namespace lspanctl

// ---- the logging wrappers ----

vx_zlog_category *vx_zlog_init(const char *category_name) {
  static std::map<std::string, vx_zlog_category> categories;
  return &categories.try_emplace(category_name, vx_zlog_category{category_name}).first->second;
}

void vxdf_zlog(vx_zlog_category *category, const char *, size_t, const char *func, size_t func_len, long, int level,
               const char *format, ...) {
  const auto &log = lspanctl::observer().log;
  if (!log) return;
  char text[1024];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  log({category->name, level, std::string(func, func_len), text});
}
