#include "record_json.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "errors.h"
#include "proc/ko_span_public.h"
#include "store/record_text.h"
#include "values.h"

namespace lspanctl {
namespace {

using ko_store::message_ptr;

enum class look { plain, enumeration, target, vlans, direction, interface };

const ProtobufCFieldDescriptor *field_named(const ProtobufCMessageDescriptor &type, const char *name) {
  return protobuf_c_message_descriptor_get_field_by_name(&type, name);
}

// The enumeration whose values `field` holds, or null.
const ProtobufCEnumDescriptor *enum_of(const ProtobufCFieldDescriptor &field) {
  const ProtobufCFieldDescriptor *model = &field;
  if (field.type == PROTOBUF_C_TYPE_UINT32) model = field_named(u_monitor__mirror_lspan_info__descriptor, field.name);
  if (model == nullptr || model->type != PROTOBUF_C_TYPE_ENUM) return nullptr;
  return static_cast<const ProtobufCEnumDescriptor *>(model->descriptor);
}

look look_of(const ProtobufCFieldDescriptor &field) {
  const std::string_view name = field.name;
  if (enum_of(field) != nullptr) return look::enumeration;
  if (field.type != PROTOBUF_C_TYPE_UINT32) return look::plain;
  if (field.label == PROTOBUF_C_LABEL_REPEATED) return look::vlans;
  if (name == "d_ifx" || name == "d_phyid") return look::target;
  if (name == "dir") return look::direction;
  return name.ends_with("ifx") || name == "index" ? look::interface : look::plain;
}

template <class Value>
const Value &value_at(const ProtobufCMessage &message, unsigned offset) {
  const void *field = reinterpret_cast<const char *>(&message) + offset;
  return *static_cast<const Value *>(field);
}

// ---- to JSON ----

// A message that does not name a group, such as a bare key, leaves it open; the tag then tells.
bool is_group(uint32_t target, bool named) { return named || ko_span_is_group_ifx(target); }

json vlans_json(const uint32_t *words, size_t n_words) {
  // What the list does not say is shown as words, so that nothing is lost.
  if (is_vlan_list(words, n_words)) return vlans_text(words, n_words);
  return std::vector<uint32_t>(words, words + n_words);
}

json number_json(uint32_t value, const ProtobufCFieldDescriptor &field, bool named_group) {
  if (const ProtobufCEnumDescriptor *type = enum_of(field)) {
    const ProtobufCEnumValue *known = protobuf_c_enum_descriptor_get_value(type, static_cast<int>(value));
    return known == nullptr ? json(value) : json(known->name);
  }
  if (look_of(field) == look::target && is_group(value, named_group)) return group_text(value);
  return value;
}

json message_json(const ProtobufCMessage &message, bool named_group) {
  json object = json::object();
  for (unsigned i = 0; i < message.descriptor->n_fields; ++i) {
    const ProtobufCFieldDescriptor &field = message.descriptor->fields[i];
    object[field.name] = field_json(message, field, named_group);
  }
  return object;
}

// ---- from JSON ----

using name_lookup = std::function<uint32_t(const std::string &)>;

template <class Value>
Value &slot(ProtobufCMessage &message, unsigned offset) {
  void *field = reinterpret_cast<char *>(&message) + offset;
  return *static_cast<Value *>(field);
}

void *allocate(size_t size) {
  void *memory = std::calloc(1, size == 0 ? 1 : size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

message_ptr empty_message(const ProtobufCMessageDescriptor &type) {
  message_ptr message(static_cast<ProtobufCMessage *>(allocate(type.sizeof_message)));
  protobuf_c_message_init(&type, message.get());
  return message;
}

uint32_t number_from_json(const ProtobufCFieldDescriptor &field, const json &value, const name_lookup &interface) {
  if (value.is_number_unsigned() && value.get<uint64_t>() <= UINT32_MAX) return value.get<uint32_t>();
  if (!value.is_string()) throw refused("give a number from 0 to " + std::to_string(UINT32_MAX));
  const auto text = value.get<std::string>();
  switch (look_of(field)) {
    case look::enumeration:
      return parse_enum(*enum_of(field), text);
    case look::direction:
      return parse_direction(text);
    case look::target:
      if (const auto target = parse_group_target(text)) return *target;
      return interface(text);
    case look::interface:
      return interface(text);
    default:
      throw refused("give a number, not a text");
  }
}

std::vector<uint32_t> words_from_json(const json &value) {
  if (value.is_string()) return parse_vlans(value.get<std::string>());
  if (!value.is_array()) throw refused("give VLANs as \"10,20-29\", or the words of a bit map as numbers");
  std::vector<uint32_t> words;
  for (const json &word : value) {
    if (!word.is_number_unsigned() || word.get<uint64_t>() > UINT32_MAX) throw refused("words are 32-bit numbers");
    words.push_back(word.get<uint32_t>());
  }
  return words;
}

void set_words(ProtobufCMessage &message, const ProtobufCFieldDescriptor &field, const std::vector<uint32_t> &words) {
  auto *copy = static_cast<uint32_t *>(allocate(words.size() * sizeof(uint32_t)));
  std::copy(words.begin(), words.end(), copy);
  slot<size_t>(message, field.quantifier_offset) = words.size();
  slot<uint32_t *>(message, field.offset) = copy;
}

std::string text_from_json(const json &value) {
  if (!value.is_string()) throw refused("give a text");
  auto text = value.get<std::string>();
  if (text.find('\0') != std::string::npos) throw refused("a text must not hold a NUL character");
  return text;
}

void set_field(ProtobufCMessage &message, const ProtobufCFieldDescriptor &field, const json &value,
               const name_lookup &interface) {
  if (field.label == PROTOBUF_C_LABEL_REPEATED) {
    const std::vector<uint32_t> words = words_from_json(value);
    if (!words.empty()) set_words(message, field, words);
  } else if (field.type == PROTOBUF_C_TYPE_STRING) {
    const std::string text = text_from_json(value);
    if (!text.empty())
      slot<char *>(message, field.offset) =
          static_cast<char *>(std::memcpy(allocate(text.size() + 1), text.c_str(), text.size() + 1));
  } else if (field.type == PROTOBUF_C_TYPE_MESSAGE) {
    if (value.is_null()) return;
    const auto &type = *static_cast<const ProtobufCMessageDescriptor *>(field.descriptor);
    slot<ProtobufCMessage *>(message, field.offset) = from_json(type, value, interface).release();
  } else if (field.type == PROTOBUF_C_TYPE_UINT32 || field.type == PROTOBUF_C_TYPE_ENUM) {
    slot<uint32_t>(message, field.offset) = number_from_json(field, value, interface);
  } else {
    throw refused("cannot be given here");
  }
}

}  // namespace

bool names_group(const ProtobufCMessage &message) {
  const ProtobufCFieldDescriptor *field = field_named(*message.descriptor, "module_type");
  return field != nullptr && value_at<uint32_t>(message, field->offset) == U_MONITOR__MIRROR_MODULE__GROUP;
}

bool is_direction(const ProtobufCFieldDescriptor &field) { return look_of(field) == look::direction; }

bool is_default(const ProtobufCFieldDescriptor &field, const json &value) {
  if (value.is_number()) return value == 0;
  if (value.is_string() && enum_of(field) != nullptr) return value == enum_text(*enum_of(field), 0);
  return value.is_string() ? value.get_ref<const std::string &>().empty() : value.empty();
}

const ProtobufCMessage *part_of(const ProtobufCMessage &message, const ProtobufCFieldDescriptor &field) {
  return value_at<const ProtobufCMessage *>(message, field.offset);
}

json field_json(const ProtobufCMessage &message, const ProtobufCFieldDescriptor &field, bool named_group) {
  if (field.label == PROTOBUF_C_LABEL_REPEATED)
    return vlans_json(value_at<const uint32_t *>(message, field.offset),
                      value_at<size_t>(message, field.quantifier_offset));
  switch (field.type) {
    case PROTOBUF_C_TYPE_ENUM:
    case PROTOBUF_C_TYPE_UINT32:
      return number_json(value_at<uint32_t>(message, field.offset), field, named_group);
    case PROTOBUF_C_TYPE_STRING: {
      const char *text = value_at<const char *>(message, field.offset);
      return text == nullptr ? "" : text;
    }
    case PROTOBUF_C_TYPE_BYTES: {
      const auto &bytes = value_at<ProtobufCBinaryData>(message, field.offset);
      return ko_store::hex_digits({reinterpret_cast<const char *>(bytes.data), bytes.len});
    }
    case PROTOBUF_C_TYPE_MESSAGE: {
      const ProtobufCMessage *part = part_of(message, field);
      return part == nullptr ? json() : message_json(*part, named_group);
    }
    default:
      throw std::logic_error(std::string(message.descriptor->name) + "." + field.name +
                             ": no such type in the schemas");
  }
}

json to_json(const ProtobufCMessage &message) { return message_json(message, names_group(message)); }

message_ptr record_of_key(const ProtobufCMessageDescriptor &type, std::string_view key) {
  const ProtobufCFieldDescriptor *field = ko_store::key_field(type);
  if (field == nullptr) return nullptr;
  message_ptr index = ko_store::unpack(*static_cast<const ProtobufCMessageDescriptor *>(field->descriptor), key);
  if (index == nullptr) return nullptr;
  message_ptr record = empty_message(type);
  slot<ProtobufCMessage *>(*record, field->offset) = index.release();
  return record;
}

message_ptr from_json(const ProtobufCMessageDescriptor &type, const json &value, const name_lookup &interface) {
  if (!value.is_object()) throw refused("give an object with the fields of " + std::string(type.name));
  message_ptr message = empty_message(type);
  for (const auto &[name, part] : value.items()) {
    const ProtobufCFieldDescriptor *field = field_named(type, name.c_str());
    if (field == nullptr) throw refused(name + ": no such field in " + type.name);
    try {
      set_field(*message, *field, part, interface);
    } catch (const std::runtime_error &error) {
      throw refused(name + ": " + error.what());
    }
  }
  return message;
}

}  // namespace lspanctl
