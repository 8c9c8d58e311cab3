#include "store/memory_engine.h"

#include <algorithm>
#include <new>

namespace ko_store {

memory_engine::memory_engine(vx_global &global) {
  wake_.reset(event_new(
      ko_platform::context_of(&global).base.get(), -1, 0,
      [](evutil_socket_t, short, void *self) { static_cast<memory_engine *>(self)->pump(); }, this));
  if (wake_ == nullptr) throw std::bad_alloc();
}

const memory_engine::hash_records &memory_engine::records(uint32_t db, std::string_view message) {
  return hashes_[{db, std::string(message)}];
}

void memory_engine::start(engine_user &user, std::vector<hash_id> hashes, size_t n_inputs) {
  user_ = &user;
  known_ = std::move(hashes);
  known_records_.clear();
  for (const hash_id &id : known_) known_records_.push_back(&hashes_[{id.db, id.type->name}]);
  n_inputs_ = n_inputs;
  n_jobs_ = 0;
  add(job_kind::up, 0);
}

void memory_engine::scan(size_t hash) {
  const auto jobs_end = jobs_.begin() + static_cast<std::ptrdiff_t>(n_jobs_);
  const auto is_same = [hash](const job &due) { return due.kind == job_kind::scan && due.hash == hash; };
  if (std::none_of(jobs_.begin(), jobs_end, is_same)) add(job_kind::scan, hash);
}

void memory_engine::fetch(size_t input, std::string_view key) { add(job_kind::fetch, input).about.key = key; }

void memory_engine::write(const change &what) {
  if (!on_write || !on_write(what)) return carry_out(what);
  for (size_t i = 0; i < known_.size(); ++i) {
    if (known_[i] != what.hash) continue;
    return add(job_kind::refuse, i, what);
  }
}

void memory_engine::put(const change &what) { carry_out(what); }

void memory_engine::carry_out(const change &what) {
  hash_records *records = nullptr;
  for (size_t i = 0; i < known_.size(); ++i) {
    if (known_[i] != what.hash) continue;
    records = known_records_[i];
    if (i < n_inputs_) add(job_kind::announce, i, what);
  }
  if (what.kind == change_kind::publish) return;
  if (records == nullptr) records = &hashes_[{what.hash.db, what.hash.type->name}];
  const auto found = records->find(what.key);
  if (what.kind == change_kind::del) {
    if (found != records->end()) records->erase(found);
  } else if (found == records->end()) {
    records->emplace(what.key, what.record);
  } else {
    found->second = what.record;
  }
}

// A job to fill in; its old contents mean nothing.
memory_engine::job &memory_engine::add(job_kind kind, size_t hash) {
  if (n_jobs_ == jobs_.size()) jobs_.emplace_back();
  job &added = jobs_[n_jobs_++];
  added.kind = kind;
  added.hash = hash;
  const timeval at_once{0, 0};
  if (evtimer_pending(wake_.get(), nullptr) == 0) event_add(wake_.get(), &at_once);
  return added;
}

void memory_engine::add(job_kind kind, size_t hash, const change &about) {
  owned_change &copy = add(kind, hash).about;
  copy.hash = about.hash;
  copy.kind = about.kind;
  copy.key = about.key;
  copy.record = about.record;
}

bool memory_engine::pump() {
  if (n_jobs_ == 0) return false;
  running_.swap(jobs_);
  const size_t n = n_jobs_;
  n_jobs_ = 0;
  for (size_t i = 0; i < n; ++i) run(running_[i]);
  return true;
}

void memory_engine::run(const job &next) {
  switch (next.kind) {
    case job_kind::up:
      return user_->up();
    case job_kind::scan:
      return scan_now(next.hash);
    case job_kind::announce:
      return user_->changed(next.hash, next.about);
    case job_kind::refuse:
      return user_->not_written(next.about, "refused");
    case job_kind::fetch: {
      const std::string &key = next.about.key;
      const auto found = known_records_[next.hash]->find(key);
      if (found == known_records_[next.hash]->end())
        user_->fetched(next.hash, key, std::nullopt);
      else
        user_->fetched(next.hash, key, found->second);
    }
  }
}

void memory_engine::scan_now(size_t hash) {
  std::vector<change> all;
  try {
    for (const auto &[key, record] : *known_records_[hash])
      all.push_back({known_[hash], change_kind::set, key, record});
  } catch (const std::bad_alloc &) {
    return user_->unreadable(hash, "memory is exhausted");
  }
  user_->page(hash, all, true);
}

}  // namespace ko_store
