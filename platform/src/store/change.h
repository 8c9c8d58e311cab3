// A change of the store, or a record in it: which hash, what happens to it, key and record in their packed bytes.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include <protobuf-c/protobuf-c.h>

namespace ko_store {

// One hash of records: all of one type in one database.
struct hash_id {
  uint32_t db;
  const ProtobufCMessageDescriptor *type;  // lives as long as the process

  bool operator==(const hash_id &) const = default;
};

// What happens to the record; the characters stand in announcements.
enum class change_kind : char {
  set = '+',     // it is created, or replaces the one with its key; also said of a record that is there
  del = '-',     // the record with this key goes; `record` is empty
  publish = '!'  // a message that is announced and not stored; `key` is empty
};

// Borrows its bytes.
struct change {
  hash_id hash;
  change_kind kind;
  std::string_view key;
  std::string_view record;
};

// Owns them.
struct owned_change {
  hash_id hash{};
  change_kind kind{};
  std::string key;
  std::string record;

  operator change() const { return {hash, kind, key, record}; }
};

inline owned_change copy_of(const change &from) {
  return {from.hash, from.kind, std::string(from.key), std::string(from.record)};
}

// The change that sets, deletes or publishes `message` in database `db`. Of a message without a key only a publish can
// be made: the key is empty otherwise.
owned_change make_change(uint32_t db, change_kind kind, const ProtobufCMessage &message);
// The same, into memory that was used before. Returns false when the key is missing.
bool make_change(uint32_t db, change_kind kind, const ProtobufCMessage &message, owned_change &into);

}  // namespace ko_store
