#include "store/pool.h"

#include <algorithm>
#include <new>

namespace ko_store {
namespace {

constexpr size_t first_block = size_t{4} << 10;      // bytes
constexpr size_t largest_block = size_t{128} << 10;  // blocks double up to there

}  // namespace

pool::~pool() {
  while (blocks_ != nullptr) {
    block *next = blocks_->next;
    ::operator delete(blocks_);
    blocks_ = next;
  }
}

void *pool::do_allocate(size_t size, size_t alignment) {
  if (alignment > step) throw std::bad_alloc();
  if (size > largest) return ::operator new(size);
  const size_t steps = steps_of(size);
  if (piece *waiting = given_back_[steps]; waiting != nullptr) {
    given_back_[steps] = waiting->next;
    return waiting;
  }
  if (n_unused_ < steps * step) add_block();
  n_unused_ -= steps * step;
  return unused_ + n_unused_;
}

void pool::do_deallocate(void *gone, size_t size, size_t) {
  if (size > largest) return ::operator delete(gone);
  piece *&waiting = given_back_[steps_of(size)];
  waiting = new (gone) piece{waiting};
}

// What is left of the last block is less than was asked for: a piece like any other.
void pool::add_block() {
  const size_t size = std::clamp(2 * block_size_, first_block, largest_block);
  auto *made = new (::operator new(size)) block{blocks_};
  if (n_unused_ > 0) do_deallocate(unused_, n_unused_, step);
  blocks_ = made;
  block_size_ = size;
  unused_ = reinterpret_cast<std::byte *>(made + 1);
  n_unused_ = size - sizeof(block);
}

}  // namespace ko_store
