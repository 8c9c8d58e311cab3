#include "store/record_text.h"

#include <cstdio>

#include "store/layout.h"

namespace ko_store {
namespace {

constexpr size_t hex_limit = 48;  // bytes

template <typename Value>
Value at(const ProtobufCMessage &message, size_t offset) {
  const void *field = reinterpret_cast<const char *>(&message) + offset;
  return *static_cast<const Value *>(field);
}

std::string list_text(const uint32_t *word, size_t count) {
  std::string text = "[";
  for (size_t i = 0; i < count; ++i) text.append(i == 0 ? "" : ",").append(std::to_string(word[i]));
  return text + "]";
}

// The value of one field, or nothing when it is at its default.
std::string value_text(const ProtobufCMessage &message, const ProtobufCFieldDescriptor &field) {
  if (field.label == PROTOBUF_C_LABEL_REPEATED) {
    const auto count = at<size_t>(message, field.quantifier_offset);
    return count == 0 ? "" : list_text(at<const uint32_t *>(message, field.offset), count);
  }
  switch (field.type) {
    case PROTOBUF_C_TYPE_MESSAGE: {
      const auto *inner = at<const ProtobufCMessage *>(message, field.offset);
      return inner == nullptr ? "" : '{' + to_text(*inner) + '}';
    }
    case PROTOBUF_C_TYPE_STRING: {
      const char *text = at<const char *>(message, field.offset);
      if (text == nullptr) return "null";
      return *text == '\0' ? "" : '"' + escaped(text) + '"';
    }
    case PROTOBUF_C_TYPE_BYTES: {
      const auto bytes = at<ProtobufCBinaryData>(message, field.offset);
      return bytes.len == 0 ? "" : "0x" + hex_digits({reinterpret_cast<const char *>(bytes.data), bytes.len});
    }
    default: {
      const auto number = at<uint32_t>(message, field.offset);
      return number == 0 ? "" : std::to_string(number);
    }
  }
}

}  // namespace

std::string to_text(const ProtobufCMessage &message) {
  std::string text;
  const ProtobufCFieldDescriptor *key = key_field(*message.descriptor);
  for (unsigned i = 0; i < message.descriptor->n_fields; ++i) {
    const ProtobufCFieldDescriptor &field = message.descriptor->fields[i];
    const std::string value = value_text(message, field);
    if (value.empty()) continue;
    if (!text.empty()) text += ' ';
    if (&field != key) text.append(field.name).append("=");
    text += value;
  }
  return text;
}

std::string escaped(std::string_view text) {
  std::string out;
  for (const unsigned char c : text) {
    char octal[5];
    if (c == '\r') {
      out += "\\r";
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '"' || c == '\\') {
      out.append("\\").push_back(static_cast<char>(c));
    } else if (c < 0x20 || c >= 0x7f) {
      std::snprintf(octal, sizeof(octal), "\\%03o", c);
      out += octal;
    } else {
      out.push_back(static_cast<char>(c));
    }
  }
  return out;
}

std::string hex_digits(std::string_view bytes) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string text;
  for (const char byte : bytes) {
    text.push_back(digits[static_cast<unsigned char>(byte) >> 4]);
    text.push_back(digits[static_cast<unsigned char>(byte) & 15]);
  }
  return text;
}

std::string to_hex(std::string_view bytes) {
  return hex_digits(bytes.substr(0, hex_limit)).append(bytes.size() > hex_limit ? "..." : "");
}

}  // namespace ko_store
