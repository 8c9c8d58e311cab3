#include "store/read_buffer.h"

#include <algorithm>
#include <cstring>

namespace ko_store {

// By key; of one key, what was added last comes first.
bool read_buffer::is_later(const page &a, const page &b) {
  const int order = a.front().key.compare(b.front().key);
  return order != 0 ? order > 0 : a.number < b.number;
}

void read_buffer::add(std::span<const change> records) {
  if (records.empty()) return;
  size_t size = 0;
  for (const change &each : records) size += each.key.size() + each.record.size();
  page made{added_++, 0, {}, std::unique_ptr<char[]>(new char[size])};
  made.items.reserve(records.size());
  char *at = made.bytes.get();
  const auto copy = [&at](std::string_view text) {
    std::memcpy(at, text.data(), text.size());
    at += text.size();
    return std::string_view(at - text.size(), text.size());
  };
  for (size_t i = records.size(); i-- > 0;)  // the last one of a key stays in front
    made.items.push_back({copy(records[i].key), copy(records[i].record)});
  std::stable_sort(made.items.begin(), made.items.end(), [](const item &a, const item &b) { return a.key < b.key; });
  pages_.push_back(std::move(made));
  std::push_heap(pages_.begin(), pages_.end(), is_later);
}

size_t read_buffer::size() const {
  size_t all = 0;
  for (const page &each : pages_) all += each.items.size() - each.next;
  return all;
}

void read_buffer::pop_one() {
  std::pop_heap(pages_.begin(), pages_.end(), is_later);
  if (++pages_.back().next == pages_.back().items.size())
    pages_.pop_back();
  else
    std::push_heap(pages_.begin(), pages_.end(), is_later);
}

// A key's earlier records go with it.
void read_buffer::pop() {
  popped_ = key();
  do pop_one();
  while (!empty() && key() == popped_);
}

}  // namespace ko_store
