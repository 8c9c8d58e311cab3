#include "store/request_queue.h"

namespace ko_store {
namespace {

constexpr size_t kept_entries = 4096;
constexpr size_t kept_bytes = size_t{1} << 20;  // larger memory is given back when it is empty

}  // namespace

void request_queue::push(const request &added, std::string_view key, std::string_view record) {
  const size_t start = text_.size();
  entries_.push_back({added, start, key.size(), record.size()});
  try {
    text_.append(key).append(record);
  } catch (...) {
    text_.resize(start);
    entries_.pop_back();
    throw;
  }
  writes_ += added.kind == request_kind::write ? 1 : 0;
}

void request_queue::pop() {
  const entry &gone = entries_[first_];
  writes_ -= gone.what.kind == request_kind::write ? 1 : 0;
  first_text_ = gone.start + gone.key_size + gone.record_size;
  ++first_;
  if (empty())
    clear();
  else if (first_ > entries_.size() / 2)
    compact();
}

void request_queue::clear() {
  entries_.clear();
  text_.clear();
  first_ = first_text_ = writes_ = 0;
  if (entries_.capacity() > kept_entries) entries_ = {};
  if (text_.capacity() > kept_bytes) text_ = {};
}

// More than half of the entries are gone, so that each is moved once on average.
void request_queue::compact() {
  entries_.erase(entries_.begin(), entries_.begin() + static_cast<std::ptrdiff_t>(first_));
  text_.erase(0, first_text_);
  for (entry &left : entries_) left.start -= first_text_;
  first_ = first_text_ = 0;
}

std::string_view request_queue::key(size_t i) const {
  const entry &found = entries_[first_ + i];
  return {text_.data() + found.start, found.key_size};
}

change request_queue::change_at(size_t i) const {
  const entry &found = entries_[first_ + i];
  const char *record = text_.data() + found.start + found.key_size;
  return {found.what.hash, found.what.change, key(i), {record, found.record_size}};
}

}  // namespace ko_store
