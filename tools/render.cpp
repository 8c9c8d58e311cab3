#include "render.h"

#include <strings.h>
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "proc/ko_span_public.h"
#include "text.h"

namespace lspanctl {
namespace {

using ko_store::message_ptr;

enum class look { plain, enumeration, group, vlans, direction, interface };

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
  if (name == "d_ifx" || name == "d_phyid") return look::group;
  if (name == "dir") return look::direction;
  return name.ends_with("ifx") || name == "index" ? look::interface : look::plain;
}

const void *member_at(const ProtobufCMessage &message, unsigned offset) {
  return reinterpret_cast<const char *>(&message) + offset;
}

template <class Value>
const Value &value_at(const ProtobufCMessage &message, const ProtobufCFieldDescriptor &field) {
  return *static_cast<const Value *>(member_at(message, field.offset));
}

// Whether the message says that its target is a group. One that does not, such as a bare key, leaves it open; the tag
// then tells.
bool names_group(const ProtobufCMessage &message) {
  const ProtobufCFieldDescriptor *field = field_named(*message.descriptor, "module_type");
  return field != nullptr && value_at<uint32_t>(message, *field) == U_MONITOR__MIRROR_MODULE__GROUP;
}

bool is_group(uint32_t target, bool named) { return named || ko_span_is_group_ifx(target); }

json bit_map_json(const ProtobufCMessage &message, const ProtobufCFieldDescriptor &field) {
  const size_t n_words = *static_cast<const size_t *>(member_at(message, field.quantifier_offset));
  const auto *words = value_at<const uint32_t *>(message, field);
  // What the list does not say is shown as words, so that nothing is lost.
  if (is_vlan_list(words, n_words)) return vlans_text(words, n_words);
  return std::vector<uint32_t>(words, words + n_words);
}

json message_json(const ProtobufCMessage &message, bool named_group);

json uint32_json(uint32_t value, const ProtobufCFieldDescriptor &field, bool named_group) {
  if (const ProtobufCEnumDescriptor *type = enum_of(field)) {
    const ProtobufCEnumValue *known = protobuf_c_enum_descriptor_get_value(type, static_cast<int>(value));
    return known == nullptr ? json(value) : json(known->name);
  }
  if (look_of(field) == look::group && is_group(value, named_group)) return group_text(value);
  return value;
}

json value_json(const ProtobufCMessage &message, const ProtobufCFieldDescriptor &field, bool named_group) {
  if (field.label == PROTOBUF_C_LABEL_REPEATED) return bit_map_json(message, field);
  switch (field.type) {
    case PROTOBUF_C_TYPE_ENUM:
    case PROTOBUF_C_TYPE_UINT32:
      return uint32_json(value_at<uint32_t>(message, field), field, named_group);
    case PROTOBUF_C_TYPE_STRING: {
      const char *text = value_at<const char *>(message, field);
      return text == nullptr ? "" : text;
    }
    case PROTOBUF_C_TYPE_BYTES: {
      const auto &bytes = value_at<ProtobufCBinaryData>(message, field);
      return hex_text({reinterpret_cast<const char *>(bytes.data), bytes.len});
    }
    case PROTOBUF_C_TYPE_MESSAGE: {
      const auto *part = value_at<const ProtobufCMessage *>(message, field);
      return part == nullptr ? json() : message_json(*part, named_group);
    }
    default:
      throw std::logic_error(std::string(message.descriptor->name) + "." + field.name +
                             ": no such type in the schemas");
  }
}

json message_json(const ProtobufCMessage &message, bool named_group) {
  json object = json::object();
  for (unsigned i = 0; i < message.descriptor->n_fields; ++i) {
    const ProtobufCFieldDescriptor &field = message.descriptor->fields[i];
    object[field.name] = value_json(message, field, named_group);
  }
  return object;
}

bool is_default(const ProtobufCFieldDescriptor &field, const json &value) {
  if (value.is_number()) return value == 0;
  if (value.is_string() && enum_of(field) != nullptr) return value == enum_text(*enum_of(field), 0);
  return value.is_string() ? value.get_ref<const std::string &>().empty() : value.empty();
}

std::string cell_text(const ProtobufCFieldDescriptor &field, const json &value) {
  if (look_of(field) == look::direction) return dir_text(value.get<uint32_t>());
  if (!value.is_string()) return dump(value);
  const auto &text = value.get_ref<const std::string &>();
  return text.empty() ? "-" : printable(text);
}

void append_cells(const ProtobufCMessage &message, const std::string &prefix, bool in_key, bool named_group,
                  std::vector<cell> &out) {
  const ProtobufCFieldDescriptor *key = ko_store::key_field(*message.descriptor);
  for (unsigned i = 0; i < message.descriptor->n_fields; ++i) {
    const ProtobufCFieldDescriptor &field = message.descriptor->fields[i];
    if (field.type == PROTOBUF_C_TYPE_MESSAGE) {
      const auto *part = value_at<const ProtobufCMessage *>(message, field);
      if (part != nullptr)
        append_cells(*part, &field == key ? "" : std::string(field.name) + ".", &field == key, named_group, out);
      continue;
    }
    const json value = value_json(message, field, named_group);
    out.push_back({prefix + field.name, cell_text(field, value), in_key, is_default(field, value)});
  }
}

}  // namespace

std::string dump(const json &value, int indent) {
  return value.dump(indent, ' ', false, json::error_handler_t::replace);
}

json to_json(const ProtobufCMessage &message) { return message_json(message, names_group(message)); }

std::vector<cell> to_cells(const ProtobufCMessage &message) {
  std::vector<cell> cells;
  append_cells(message, "", false, names_group(message), cells);
  return cells;
}

std::string to_line(const ProtobufCMessage &message) {
  std::string line;
  for (const cell &part : to_cells(message)) {
    if (!part.in_key && part.is_default) continue;
    if (!line.empty()) line += ' ';
    line += part.name + "=" + part.text;
  }
  return line;
}

std::string difference(const ProtobufCMessage &before, const ProtobufCMessage &after) {
  const std::vector<cell> old_cells = to_cells(before);
  std::string line;
  for (const cell &now : to_cells(after)) {
    const auto old =
        std::find_if(old_cells.begin(), old_cells.end(), [&](const cell &c) { return c.name == now.name; });
    const std::string old_text = old == old_cells.end() ? "-" : old->text;
    if (old_text == now.text) continue;
    if (!line.empty()) line += ", ";
    line += now.name + ": " + old_text + " -> " + now.text;
  }
  return line;
}

int compare(const ProtobufCMessage &a, const ProtobufCMessage &b) {
  for (unsigned i = 0; i < a.descriptor->n_fields; ++i) {
    const ProtobufCFieldDescriptor &field = a.descriptor->fields[i];
    int order = 0;
    if (field.type == PROTOBUF_C_TYPE_STRING) {
      order = std::strcmp(value_at<const char *>(a, field), value_at<const char *>(b, field));
    } else if (field.type == PROTOBUF_C_TYPE_UINT32 && field.label != PROTOBUF_C_LABEL_REPEATED) {
      const auto x = value_at<uint32_t>(a, field);
      const auto y = value_at<uint32_t>(b, field);
      order = x < y ? -1 : x > y;
    }
    if (order != 0) return order;
  }
  return 0;
}

// ---- single values ----

namespace {
struct named_dir {
  uint32_t dir;
  const char *name;
};
constexpr named_dir directions[] = {{1, "rx"}, {2, "tx"}, {3, "both"}};
constexpr std::string_view group_prefix = "group:";
}  // namespace

std::string dir_text(uint32_t dir) {
  for (const named_dir &known : directions)
    if (known.dir == dir) return known.name;
  return std::to_string(dir);
}

uint32_t parse_dir(const std::string &text) {
  for (const named_dir &known : directions)
    if (text == known.name) return known.dir;
  if (!is_number(text)) throw usage_error("direction " + printable(text) + ": give rx, tx, both or a number");
  return parse_number(text, "direction");
}

uint32_t parse_enum(const ProtobufCEnumDescriptor &type, const std::string &text) {
  if (is_number(text)) return parse_number(text, type.short_name);
  std::string known;
  for (unsigned i = 0; i < type.n_values; ++i) {
    if (strcasecmp(text.c_str(), type.values[i].name) == 0) return static_cast<uint32_t>(type.values[i].value);
    known += std::string(" ") + type.values[i].name;
  }
  throw usage_error(std::string(type.short_name) + " " + printable(text) + ": give a number or one of" + known);
}

std::string enum_text(const ProtobufCEnumDescriptor &type, uint32_t value) {
  const ProtobufCEnumValue *known = protobuf_c_enum_descriptor_get_value(&type, static_cast<int>(value));
  return known == nullptr ? std::to_string(value) : known->name;
}

std::optional<uint32_t> parse_group_target(std::string_view text) {
  if (!text.starts_with(group_prefix)) return std::nullopt;
  return ko_span_group_ifx(parse_number(text.substr(group_prefix.size()), "group", 1));
}

std::string group_text(uint32_t d_ifx) { return std::string(group_prefix) + std::to_string(ko_span_group_id(d_ifx)); }

// ---- from JSON ----

namespace {

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

uint32_t uint32_from_json(const ProtobufCFieldDescriptor &field, const json &value, const name_lookup &interface) {
  if (value.is_number_unsigned() && value.get<uint64_t>() <= UINT32_MAX) return value.get<uint32_t>();
  if (!value.is_string()) throw refused("give a number from 0 to " + std::to_string(UINT32_MAX));
  const auto text = value.get<std::string>();
  switch (look_of(field)) {
    case look::enumeration:
      return parse_enum(*enum_of(field), text);
    case look::direction:
      return parse_dir(text);
    case look::group:
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
    slot<uint32_t>(message, field.offset) = uint32_from_json(field, value, interface);
  } else {
    throw refused("cannot be given here");
  }
}

}  // namespace

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
