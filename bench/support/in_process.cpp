#include "in_process.h"

#include <cstdlib>
#include <utility>

#include "proc/lspan/ko_lspan.h"
#include "store/registration.h"

namespace bench {

void sink_engine::start(ko_store::engine_user &user, std::vector<ko_store::hash_id> hashes, size_t n_inputs) {
  user_ = &user;
  hashes.resize(n_inputs);
  inputs_ = std::move(hashes);
  started_ = true;
}

void sink_engine::work() {
  if (std::exchange(started_, false)) user_->up();
  for (const size_t hash : std::exchange(scans_, {})) user_->page(hash, {}, true);
}

void sink_engine::announce(const record &what, ko_store::change_kind kind) {
  for (size_t i = 0; i < inputs_.size(); ++i)
    if (inputs_[i] == what.hash)
      user_->changed(i,
                     {what.hash, kind, what.key, kind == ko_store::change_kind::set ? what.bytes : std::string_view()});
}

void start_in_process(ko_store::engine_factory make_engine) {
  ko_store::use_engine(std::move(make_engine));
  lspan_global_init(vx_zlog_init(ko_lspan_app_name), 1);
  uint8_t run = 0;
  ko_lspan_mom_init(&run);
  if (run == 0) std::exit(1);
  while (!ko_store::registration_of(lspan_global.global)->settled())
    event_base_loop(ko_platform::context_of(lspan_global.global).base.get(), EVLOOP_ONCE);
}

sink_engine &start_on_sink() {
  static sink_engine *made = nullptr;
  start_in_process([](vx_global &global) {
    auto engine = std::make_unique<sink_engine>();
    made = engine.get();
    event_base *base = ko_platform::context_of(&global).base.get();
    made->wake_.reset(event_new(
        base, -1, EV_PERSIST, [](evutil_socket_t, short, void *at) { static_cast<sink_engine *>(at)->work(); }, made));
    const timeval often{0, 1000};
    event_add(made->wake_.get(), &often);
    return engine;
  });
  event_del(made->wake_.get());
  return *made;
}

void serve_loop() { event_base_loop(ko_platform::context_of(lspan_global.global).base.get(), EVLOOP_NONBLOCK); }

}  // namespace bench
