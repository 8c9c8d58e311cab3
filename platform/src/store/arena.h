// Memory for one decoded message: handed out in pieces, taken back all at once.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include <protobuf-c/protobuf-c.h>

namespace ko_store {

class arena {
 public:
  arena();
  arena(const arena &) = delete;
  arena &operator=(const arena &) = delete;

  // For the decoder. Its free does nothing; memory that cannot be had gives null.
  ProtobufCAllocator *allocator() { return &allocator_; }

  // Takes everything back. The memory is kept for the next message, in one piece, up to a limit.
  void reset();

 private:
  static void *allocate(void *self, size_t size);
  static void release(void *, void *) {}

  struct block {
    std::unique_ptr<std::byte[]> memory;
    size_t size;
  };

  ProtobufCAllocator allocator_;
  std::vector<block> blocks_;  // the last one is being handed out
  size_t used_ = 0;            // bytes of the last block
};

}  // namespace ko_store
