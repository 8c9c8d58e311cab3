#include "store/arena.h"

#include <algorithm>
#include <new>

namespace ko_store {
namespace {

constexpr size_t first_size = size_t{16} << 10;  // bytes; holds every record that makes sense
constexpr size_t kept_size = size_t{1} << 20;    // a larger block is given back

}  // namespace

arena::arena() : allocator_{&arena::allocate, &arena::release, this} {}

void *arena::allocate(void *self, size_t size) try {
  auto &arena_self = *static_cast<arena *>(self);
  constexpr size_t alignment = alignof(std::max_align_t);
  if (size > SIZE_MAX / 4) throw std::bad_alloc();
  const size_t rounded = (size + alignment - 1) / alignment * alignment;
  std::vector<block> &blocks = arena_self.blocks_;
  if (blocks.empty() || blocks.back().size - arena_self.used_ < rounded) {
    const size_t next = std::max(rounded, blocks.empty() ? first_size : 2 * blocks.back().size);
    blocks.push_back({std::unique_ptr<std::byte[]>(new std::byte[next]), next});
    arena_self.used_ = 0;
  }
  void *piece = blocks.back().memory.get() + arena_self.used_;
  arena_self.used_ += rounded;
  return piece;
} catch (const std::bad_alloc &) {
  static_cast<arena *>(self)->exhausted_ = true;
  return nullptr;
}

const ProtobufCMessage *arena::decode(const ProtobufCMessageDescriptor &type, std::string_view bytes) {
  reset();
  const ProtobufCMessage *decoded =
      protobuf_c_message_unpack(&type, &allocator_, bytes.size(), reinterpret_cast<const uint8_t *>(bytes.data()));
  if (decoded == nullptr && exhausted_) throw std::bad_alloc();
  return decoded;
}

void arena::reset() {
  used_ = 0;
  exhausted_ = false;
  if (blocks_.size() > 1) blocks_.erase(blocks_.begin(), blocks_.end() - 1);
  if (!blocks_.empty() && blocks_.back().size > kept_size) blocks_.clear();
}

}  // namespace ko_store
