#include "store/layout.h"

#include <cstring>

#include "attributes.h"

namespace ko_store {
namespace {

constexpr size_t header_size = 5;  // kind and length of the key

const void *member(const ProtobufCMessage &message, const ProtobufCFieldDescriptor &field) {
  return reinterpret_cast<const char *>(&message) + field.offset;
}

const ProtobufCFieldDescriptor *find_field(const ProtobufCMessageDescriptor &type, uint32_t attribute,
                                           ProtobufCType of) {
  for (unsigned i = 0; i < type.n_fields; ++i) {
    const ProtobufCFieldDescriptor &field = type.fields[i];
    if (field.type == of && schema_attribute(&type, &field) == attribute) return &field;
  }
  return nullptr;
}

}  // namespace

std::string channel_name(uint32_t db, std::string_view message) {
  return std::to_string(db).append(":").append(message);
}

std::string channel_name(const hash_id &hash) { return channel_name(hash.db, hash.type->name); }

size_t announcement_size(const change &announced) {
  return header_size + announced.key.size() + announced.record.size();
}

void append_announcement(const change &announced, std::string &out) {
  const auto length = static_cast<uint32_t>(announced.key.size());
  out.push_back(static_cast<char>(announced.kind));
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<char>(length >> shift));
  out.append(announced.key).append(announced.record);
}

std::optional<change> parse_announcement(const hash_id &hash, std::string_view bytes) {
  if (bytes.size() < header_size) return std::nullopt;
  const auto kind = static_cast<change_kind>(bytes[0]);
  if (kind != change_kind::set && kind != change_kind::del && kind != change_kind::publish) return std::nullopt;
  uint32_t length = 0;
  for (size_t i = 1; i < header_size; ++i) length = length << 8 | static_cast<uint8_t>(bytes[i]);
  bytes.remove_prefix(header_size);
  if (length > bytes.size()) return std::nullopt;
  if (kind == change_kind::del && length != bytes.size()) return std::nullopt;
  return change{hash, kind, bytes.substr(0, length), bytes.substr(length)};
}

const ProtobufCFieldDescriptor *key_field(const ProtobufCMessageDescriptor &message) {
  return find_field(message, SCHEMA_ATTR_KEY, PROTOBUF_C_TYPE_MESSAGE);
}

const ProtobufCMessage *key_of(const ProtobufCMessage &message) {
  const ProtobufCFieldDescriptor *field = key_field(*message.descriptor);
  if (field == nullptr) return nullptr;
  return *static_cast<const ProtobufCMessage *const *>(member(message, *field));
}

std::optional<std::string_view> owner_of(const ProtobufCMessage &key) {
  const ProtobufCFieldDescriptor *field = find_field(*key.descriptor, SCHEMA_ATTR_OWNER, PROTOBUF_C_TYPE_STRING);
  if (field == nullptr) return std::nullopt;
  const char *text = *static_cast<const char *const *>(member(key, *field));
  return text == nullptr ? std::string_view() : std::string_view(text);
}

void append_packed(const ProtobufCMessage &message, std::string &out) {
  const size_t start = out.size();
  out.resize(start + protobuf_c_message_get_packed_size(&message));
  protobuf_c_message_pack(&message, reinterpret_cast<uint8_t *>(out.data() + start));
}

std::string_view leading_key(const ProtobufCMessageDescriptor &type, std::string_view packed) {
  constexpr uint32_t length_delimited = 2;  // wire type of a message
  constexpr uint32_t more = 0x80;           // the number goes on in the next byte
  const ProtobufCFieldDescriptor *field = key_field(type);
  const uint32_t tag = field == nullptr ? more : field->id << 3 | length_delimited;
  if (packed.empty() || tag >= more || static_cast<uint8_t>(packed[0]) != tag) return {};
  uint32_t length = 0;
  for (size_t i = 1; i < packed.size() && i <= 5; ++i) {
    length |= (static_cast<uint8_t>(packed[i]) & (more - 1)) << 7 * (i - 1);
    if ((static_cast<uint8_t>(packed[i]) & more) == 0) return packed.substr(i + 1, length);
  }
  return {};
}

message_ptr unpack(const ProtobufCMessageDescriptor &type, std::string_view bytes) {
  return message_ptr(
      protobuf_c_message_unpack(&type, nullptr, bytes.size(), reinterpret_cast<const uint8_t *>(bytes.data())));
}

defect check_record(const ProtobufCMessage *decoded, std::string_view key) {
  if (decoded == nullptr) return defect::undecodable;
  const ProtobufCMessage *own_key = key_of(*decoded);
  if (own_key == nullptr) return defect::no_key;
  thread_local std::string packed;
  packed.clear();
  append_packed(*own_key, packed);
  return packed == key ? defect::none : defect::foreign_key;
}

const char *to_string(defect why) {
  switch (why) {
    case defect::none:
      return "sound";
    case defect::undecodable:
      return "it does not decode";
    case defect::no_key:
      return "it has no index";
    case defect::foreign_key:
      return "it stands under a key that is not its own";
  }
  return "unknown defect";
}

}  // namespace ko_store
