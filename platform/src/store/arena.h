// Memory for one decoded message: handed out in pieces, taken back all at once. It is kept for the next message, in one
// piece, up to a limit.
#pragma once

#include <cstddef>
#include <memory>
#include <string_view>
#include <vector>

#include <protobuf-c/protobuf-c.h>

namespace ko_store {

class arena {
 public:
  arena();
  arena(const arena &) = delete;
  arena &operator=(const arena &) = delete;

  // Decodes a message in place of the one before. Null when `bytes` are no such message. Throws bad_alloc.
  const ProtobufCMessage *decode(const ProtobufCMessageDescriptor &type, std::string_view bytes);

 private:
  void reset();
  static void *allocate(void *self, size_t size);
  static void release(void *, void *) {}

  struct block {
    std::unique_ptr<std::byte[]> memory;
    size_t size;
  };

  ProtobufCAllocator allocator_;
  std::vector<block> blocks_;  // the last one is being handed out
  size_t used_ = 0;            // bytes of the last block
  bool exhausted_ = false;     // memory could not be had for this message
};

}  // namespace ko_store
