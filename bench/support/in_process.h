// The daemon's code in this process. On the sink, an engine that takes every write and keeps nothing, what is left is
// what the store library and the handlers cost by themselves.
#pragma once

#include <functional>
#include <memory>

#include "events.h"
#include "global_context.h"
#include "store/store.h"

namespace bench {

class sink_engine final : public ko_store::engine {
 public:
  void start(ko_store::engine_user &user, std::vector<ko_store::hash_id> hashes, size_t n_inputs) override;
  void scan(size_t hash) override { scans_.push_back(hash); }
  void fetch(size_t, std::string_view) override {}
  void write(const ko_store::change &what) override {
    ++writes;
    if (on_write) on_write(what);
  }
  bool congested() const override { return false; }

  // Announces a change of an input.
  void announce(const record &what, ko_store::change_kind kind);

  uint64_t writes = 0;
  std::function<void(const ko_store::change &)> on_write;

 private:
  void work();

  ko_store::engine_user *user_ = nullptr;
  std::vector<ko_store::hash_id> inputs_;
  std::vector<size_t> scans_;
  bool started_ = false;
  ko_platform::event_ptr wake_;

  friend sink_engine &start_on_sink();
};

// Starts the daemon's code as its main does, log levels at their defaults, and serves its loop until it is live. Once a
// process; ends the process when it fails.
void start_in_process(ko_store::engine_factory make_engine);
sink_engine &start_on_sink();

// Serves the loop as long as something is due.
void serve_loop();

}  // namespace bench
