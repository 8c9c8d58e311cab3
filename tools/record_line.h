// Any record as a line or a table row for people: as in record_json.h, and directions as rx, tx and both.
#pragma once

#include <string>
#include <vector>

#include <protobuf-c/protobuf-c.h>

namespace lspanctl {

// One field, flattened: the fields of the key stand first, by their own names.
struct cell {
  std::string name;
  std::string text;
  bool in_key;
  bool is_default;  // 0 or empty
};
std::vector<cell> to_cells(const ProtobufCMessage &message);

// "name=value" of the cells in the key, and of the others that are not default.
std::string to_line(const ProtobufCMessage &message);
// Of the cells in the key alone.
std::string key_line(const ProtobufCMessage &message);

// "name: old -> new" of the fields that differ between two records of a type, in a line.
std::string difference(const ProtobufCMessage &before, const ProtobufCMessage &after);

}  // namespace lspanctl
