// Memory for many small pieces of few sizes. A piece that is given back waits for the next of its size; everything goes
// with the pool. Pieces are aligned as pointers are.
//
// The standard library's own pool is no choice here: when it is refused memory for its bookkeeping, GCC 12's goes on
// with a null pointer.
#pragma once

#include <cstddef>
#include <memory_resource>

namespace ko_store {

class pool final : public std::pmr::memory_resource {
 public:
  pool() = default;
  pool(const pool &) = delete;
  pool &operator=(const pool &) = delete;
  ~pool() override;

 private:
  static constexpr size_t step = alignof(void *);  // sizes are rounded up to multiples of it
  static constexpr size_t largest = 1024;          // bytes; what is larger comes from the system

  struct piece {  // that was given back
    piece *next;
  };
  struct alignas(std::max_align_t) block {
    block *next;
  };

  void *do_allocate(size_t size, size_t alignment) override;
  void do_deallocate(void *gone, size_t size, size_t alignment) override;
  bool do_is_equal(const memory_resource &other) const noexcept override { return this == &other; }

  static size_t steps_of(size_t size) { return size == 0 ? 1 : (size + step - 1) / step; }
  void add_block();

  piece *given_back_[largest / step + 1] = {};  // by steps
  block *blocks_ = nullptr;                     // owned
  size_t block_size_ = 0;                       // bytes of the newest
  std::byte *unused_ = nullptr;                 // of the newest
  size_t n_unused_ = 0;                         // bytes
};

}  // namespace ko_store
