#include "in_process.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "daemon_state.h"
#include "global_context.h"
#include "p_policy.pb-c.h"
#include "platform_config.h"
#include "proc/lspan/ko_lspan.h"
#include "store/store.h"
#include "u_bridge.pb-c.h"
#include "u_monitor.pb-c.h"
#include "vx_zlog.h"

using namespace ko_store;

struct vx_zlog_category {};

vx_zlog_category *vx_zlog_init(const char *) {
  static vx_zlog_category only;
  return &only;
}

void vxdf_zlog(vx_zlog_category *, const char *, size_t, const char *, size_t, long, int level, const char *format,
               ...) {
  if (harness::on_log == nullptr) return;
  char text[2048];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  harness::on_log(level, text);
}

namespace harness {

void (*on_log)(int level, std::string_view text);

const std::vector<hash_id> input_hashes{{4, &u_monitor__mirror_lspan_info__descriptor},
                                        {4, &p_policy__data_intf_conf__descriptor},
                                        {8, &u_monitor__mirror_result_info__descriptor}};
const std::vector<hash_id> output_hashes{
    {8, &u_monitor__span_port_src_info__descriptor}, {8, &u_monitor__span_acl_src_info__descriptor},
    {8, &u_monitor__span_vlan_src_info__descriptor}, {8, &u_monitor__span_dst_info__descriptor},
    {8, &u_monitor__span_mtp_info__descriptor},      {4, &u_monitor__mirror_result_info__descriptor},
    {6, &u_bridge__udp_pt_learn__descriptor}};

bool scrambler::release(const std::function<size_t(size_t bound)> &below, bool drop) {
  bool dropped = false;
  while (!held_.empty()) {
    size_t i = below(held_.size());
    for (size_t k = 0; k < i; ++k)
      if (held_[k].input == held_[i].input && held_[k].what.key == held_[i].what.key) i = k;
    const held_change now = held_[i];
    held_.erase(held_.begin() + static_cast<std::ptrdiff_t>(i));
    if (drop && !dropped && below(held_.size() + 1) == 0) {
      dropped = true;
      continue;
    }
    for (size_t times = 1 + below(2); times > 0; --times) user_->changed(now.input, now.what);
  }
  return dropped;
}

void scrambler::cut() {
  cut_ = true;
  held_.clear();
  user_->down();
  for (const owned_change &what : lost_) user_->not_written(what, {});
  lost_.clear();
}

void scrambler::join() {
  cut_ = false;
  inner->start(*this, hashes_, n_inputs_);
}

void scrambler::start(engine_user &user, std::vector<hash_id> hashes, size_t n_inputs) {
  user_ = &user;
  hashes_ = std::move(hashes);
  n_inputs_ = n_inputs;
  join();
}

void scrambler::up() {
  if (!cut_) user_->up();
}

void scrambler::scan(size_t hash) {
  must_be_up();
  inner->scan(hash);
}

void scrambler::fetch(size_t input, std::string_view key) {
  must_be_up();
  inner->fetch(input, key);
}

void scrambler::write(const change &what) {
  must_be_up();
  if (loses) lost_.push_back(copy_of(what));
  if (!loses || (every_second && lost_.size() % 2 == 0)) inner->write(what);
}

void scrambler::changed(size_t input, const change &what) {
  if (cut_) return;
  if (holds)
    held_.push_back({input, copy_of(what)});
  else
    user_->changed(input, what);
}

void scrambler::page(size_t hash, std::span<const change> records, bool last) {
  if (cut_) return;
  if (std::exchange(unreadable_next, false)) return user_->unreadable(hash, "a test says so");
  if (!pieces) user_->page(hash, records, last);
  if (pieces) page_in_pieces(hash, records, last);
  if (hash == 0 && between) std::exchange(between, {})();
}

// With copies, since what the user writes meanwhile may take the store's own bytes away.
void scrambler::page_in_pieces(size_t hash, std::span<const change> records, bool last) {
  std::vector<owned_change> copies;
  for (const change &one : records) copies.push_back(copy_of(one));
  for (int times = 0; times < 2; ++times)
    for (const change one : copies) user_->page(hash, {&one, 1}, false);
  user_->page(hash, {}, last);
}

void scrambler::unreadable(size_t hash, std::string_view why) {
  if (!cut_) user_->unreadable(hash, why);
}

void scrambler::fetched(size_t input, std::string_view key, std::optional<std::string_view> record) {
  if (!cut_) user_->fetched(input, key, record);
}

void scrambler::not_written(const change &what, std::string_view why) {
  if (!cut_) user_->not_written(what, why);
}

// What an engine need not stand while it is away.
void scrambler::must_be_up() const {
  if (cut_) std::abort();
}

world::world(std::vector<record> stored) {
  ko_platform::use_config({});  // whatever platform file the machine has
  lspan_global_init(vx_zlog_init(ko_lspan_app_name), lspan_zlog_level);
  use_engine([this, stored = std::move(stored)](vx_global &global) {
    auto engine = std::exchange(between_daemons_, nullptr);
    if (engine == nullptr) {
      engine = std::make_shared<memory_engine>(global);
      for (const record &what : stored) engine->put(what.change(change_kind::set));
    }
    auto made = std::make_unique<scrambler>(std::move(engine));
    wire = made.get();
    store = made->inner.get();
    return made;
  });
}

world::~world() { vx_global_finish(lspan_global.global); }

int32_t world::start() { return ko_lspan_mom_init(&runs); }

registration &world::tested() { return *registration_of(lspan_global.global); }

void world::kill(bool keeps_store) {
  driver::forget_daemon();
  if (keeps_store && wire != nullptr) between_daemons_ = wire->inner;
  wire = nullptr;
  ko_platform::context_of(lspan_global.global).store.reset();
}

void world::restart() {
  kill();
  const vx_mom_ab_opt opt = {};
  lspan_global.mom_ab = vx_mom_ab_init(lspan_global.global, ko_lspan_app_name, &opt);
  if (lspan_global.mom_ab == nullptr || ko_lspan_mom_rdnd_awake_cb(nullptr) != 0) std::abort();
}

void world::step() {
  event_base_loop(ko_platform::context_of(lspan_global.global).base.get(), EVLOOP_ONCE | EVLOOP_NONBLOCK);
}

void world::turn() {
  for (int quiet = 0; quiet < 4; quiet = tested().settled() ? quiet + 1 : 0) step();
}

world::contents world::outputs() {
  contents out;
  for (const hash_id &hash : output_hashes) out[hash.type->name] = store->records(hash.db, hash.type->name);
  return out;
}

std::vector<record> world::inputs() {
  std::vector<record> out;
  for (const hash_id &hash : input_hashes)
    for (const auto &[key, bytes] : store->records(hash.db, hash.type->name))
      out.push_back({hash.db, hash.type, key, bytes});
  return out;
}

void world::clear() {
  for (const record &what : inputs()) put(what, change_kind::del);
  turn();
}

}  // namespace harness
