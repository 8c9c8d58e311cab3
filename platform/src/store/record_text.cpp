#include "store/record_text.h"

#include <cstdint>
#include <string_view>

namespace ko_store {
namespace {

constexpr std::string_view digits = "0123456789abcdef";
constexpr size_t hex_limit = 48;  // bytes

void append_hex(std::string_view bytes, std::string &out) {
  for (const char byte : bytes) {
    out.push_back(digits[static_cast<uint8_t>(byte) >> 4]);
    out.push_back(digits[static_cast<uint8_t>(byte) & 15]);
  }
}

void append_quoted(const char *text, std::string &out) {
  out.push_back('"');
  for (; text != nullptr && *text != '\0'; ++text) {
    const auto byte = static_cast<uint8_t>(*text);
    if (byte < 0x20 || byte == 0x7f) {
      out.append("\\x");
      append_hex({text, 1}, out);
    } else {
      if (*text == '"' || *text == '\\') out.push_back('\\');
      out.push_back(*text);
    }
  }
  out.push_back('"');
}

void append_fields(const ProtobufCMessage &message, std::string &out);

// One value of `field` at `at`. The schemas know unsigned numbers, enums, texts, bytes and messages.
void append_value(const ProtobufCFieldDescriptor &field, const void *at, std::string &out) {
  switch (field.type) {
    case PROTOBUF_C_TYPE_STRING:
      append_quoted(*static_cast<const char *const *>(at), out);
      break;
    case PROTOBUF_C_TYPE_BYTES: {
      const auto &bytes = *static_cast<const ProtobufCBinaryData *>(at);
      append_hex({reinterpret_cast<const char *>(bytes.data), bytes.len}, out);
      break;
    }
    case PROTOBUF_C_TYPE_MESSAGE:
      append_fields(**static_cast<const ProtobufCMessage *const *>(at), out);
      break;
    case PROTOBUF_C_TYPE_ENUM: {
      const auto number = *static_cast<const int *>(at);
      const auto &names = *static_cast<const ProtobufCEnumDescriptor *>(field.descriptor);
      const ProtobufCEnumValue *value = protobuf_c_enum_descriptor_get_value(&names, number);
      out.append(value == nullptr ? std::to_string(number) : value->name);
      break;
    }
    default:
      out.append(std::to_string(*static_cast<const uint32_t *>(at)));
  }
}

bool is_default(const ProtobufCFieldDescriptor &field, const void *at) {
  switch (field.type) {
    case PROTOBUF_C_TYPE_STRING: {
      const char *text = *static_cast<const char *const *>(at);
      return text == nullptr || *text == '\0';
    }
    case PROTOBUF_C_TYPE_BYTES:
      return static_cast<const ProtobufCBinaryData *>(at)->len == 0;
    case PROTOBUF_C_TYPE_MESSAGE:
      return *static_cast<const void *const *>(at) == nullptr;
    default:
      return *static_cast<const uint32_t *>(at) == 0;
  }
}

void append_list(const ProtobufCFieldDescriptor &field, const void *at, size_t count, std::string &out) {
  const uint32_t *values = *static_cast<const uint32_t *const *>(at);
  out.push_back('[');
  for (size_t i = 0; i < count; ++i) {
    if (i > 0) out.push_back(' ');
    append_value(field, values + i, out);
  }
  out.push_back(']');
}

void append_fields(const ProtobufCMessage &message, std::string &out) {
  const char *base = reinterpret_cast<const char *>(&message);
  bool first = true;
  out.push_back('{');
  for (unsigned i = 0; i < message.descriptor->n_fields; ++i) {
    const ProtobufCFieldDescriptor &field = message.descriptor->fields[i];
    const bool repeated = field.label == PROTOBUF_C_LABEL_REPEATED;
    const size_t count = repeated ? *reinterpret_cast<const size_t *>(base + field.quantifier_offset) : 0;
    if (repeated ? count == 0 : is_default(field, base + field.offset)) continue;
    if (!first) out.push_back(' ');
    first = false;
    out.append(field.name).push_back('=');
    if (repeated)
      append_list(field, base + field.offset, count, out);
    else
      append_value(field, base + field.offset, out);
  }
  out.push_back('}');
}

}  // namespace

void append_text(const ProtobufCMessage &message, std::string &out) {
  out.append(message.descriptor->name);
  append_fields(message, out);
}

std::string to_text(const ProtobufCMessage &message) {
  std::string out;
  append_text(message, out);
  return out;
}

std::string to_hex(std::string_view bytes) {
  std::string out;
  append_hex(bytes.substr(0, hex_limit), out);
  if (bytes.size() > hex_limit) out.append("...");
  return out;
}

}  // namespace ko_store
