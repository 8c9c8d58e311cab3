// Any record as text or JSON, and back, from its descriptor.
//
// Enumerations are shown by name, outflow groups as "group:ID", VLAN bit maps as "10,20-29" and, in text, directions
// as rx, tx and both. A field of a derived record that has the name of an enumeration of the session record holds
// that enumeration, also where its type is a plain number.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <protobuf-c/protobuf-c.h>
#include <nlohmann/json.hpp>

#include "store/layout.h"

namespace lspanctl {

using json = nlohmann::ordered_json;

// One line, or indented; bytes that are no UTF-8 are replaced.
std::string dump(const json &value, int indent = -1);

// Every field of `message`; an absent message is null.
json to_json(const ProtobufCMessage &message);

// One field, flattened: the fields of the key stand first, by their own names.
struct cell {
  std::string name;
  std::string text;
  bool in_key;
  bool is_default;  // 0 or empty
};
std::vector<cell> to_cells(const ProtobufCMessage &message);

// "name=value" of those cells that the key has, or that are not default, in a line.
std::string to_line(const ProtobufCMessage &message);

// "name: old -> new" of the fields that differ between two records of a type, in a line.
std::string difference(const ProtobufCMessage &before, const ProtobufCMessage &after);

// Orders messages of one type by their fields, numbers as numbers. A negative number, 0 or a positive one.
int compare(const ProtobufCMessage &a, const ProtobufCMessage &b);

// Directions: rx 1, tx 2, both 3; others are numbers.
std::string dir_text(uint32_t dir);
uint32_t parse_dir(const std::string &text);

// A number or the name of a value of the enumeration (in any case), and back. Throws usage_error.
uint32_t parse_enum(const ProtobufCEnumDescriptor &type, const std::string &text);
std::string enum_text(const ProtobufCEnumDescriptor &type, uint32_t value);

// "group:2" to the interface index that stands for the group; nothing when `text` does not start so. Throws
// usage_error.
std::optional<uint32_t> parse_group_target(std::string_view text);
std::string group_text(uint32_t d_ifx);

// The record of `type` that holds the packed `key` and nothing else; null when the bytes are no such key.
ko_store::message_ptr record_of_key(const ProtobufCMessageDescriptor &type, std::string_view key);

// The message that `value` describes, in the form of to_json; what is left out is 0 or empty. An interface may be
// given by name: `interface` finds its number or throws. Throws refused with the path of the field.
ko_store::message_ptr from_json(const ProtobufCMessageDescriptor &type, const json &value,
                                const std::function<uint32_t(const std::string &)> &interface);

}  // namespace lspanctl
