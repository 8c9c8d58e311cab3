// How records lie in the store: names of hashes and channels, keys, announcements. Everyone who reads or writes the
// store, in whatever process, goes through here.
//
//   hash     in numbered database `db`, named by the message's full name: packed key -> packed record
//   channel  "<db>:<message's full name>", carrying one announcement per change
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <protobuf-c/protobuf-c.h>

#include "store/change.h"

namespace ko_store {

// Name of the channel that announces changes of `message` (a full name) in database `db`.
std::string channel_name(uint32_t db, std::string_view message);
std::string channel_name(const hash_id &hash);

// Appends the announcement, which is published on the channel: the kind's character, the length of the key as four
// bytes, most significant first, key, record.
void append_announcement(const change &announced, std::string &out);
size_t announcement_size(const change &announced);  // bytes that it appends

// The change of `hash` that `bytes`, which it borrows, announce; nothing when they are no announcement.
std::optional<change> parse_announcement(const hash_id &hash, std::string_view bytes);

// The field that carries a record's key, or null for a message that is never stored.
const ProtobufCFieldDescriptor *key_field(const ProtobufCMessageDescriptor &message);

// The key of `message`: null when it has no key field or no key in it. Owned by `message`.
const ProtobufCMessage *key_of(const ProtobufCMessage &message);

// The owner that a key names: the text of its owner field. Nothing when this kind of key has none.
std::optional<std::string_view> owner_of(const ProtobufCMessage &key);

// Appends the encoding of `message` to `out`, which keeps its capacity for the next.
void append_packed(const ProtobufCMessage &message, std::string &out);

// The key in a record that append_packed made, where it stands first; empty when it does not, or `packed` is empty.
std::string_view leading_key(const ProtobufCMessageDescriptor &type, std::string_view packed);

struct message_deleter {
  void operator()(ProtobufCMessage *message) const { protobuf_c_message_free_unpacked(message, nullptr); }
};
using message_ptr = std::unique_ptr<ProtobufCMessage, message_deleter>;

// Decodes `bytes`; null when they are no such message, or memory is exhausted.
message_ptr unpack(const ProtobufCMessageDescriptor &type, std::string_view bytes);

// Why a stored record is not to be used; `none` when it is sound.
enum class defect { none, undecodable, no_key, foreign_key };

// Checks a record that stands, or was announced, under `key`. `decoded` is what its bytes decode to, or null.
defect check_record(const ProtobufCMessage *decoded, std::string_view key);
const char *to_string(defect why);

}  // namespace ko_store
