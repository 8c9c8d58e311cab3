#include "record_line.h"

#include <algorithm>

#include "record_json.h"
#include "store/layout.h"
#include "text.h"
#include "values.h"

namespace lspanctl {
namespace {

std::string cell_text(const ProtobufCFieldDescriptor &field, const json &value) {
  if (is_direction(field)) return direction_text(value.get<uint32_t>());
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
      if (const ProtobufCMessage *part = part_of(message, field))
        append_cells(*part, &field == key ? "" : std::string(field.name) + ".", &field == key, named_group, out);
      continue;
    }
    const json value = field_json(message, field, named_group);
    out.push_back({prefix + field.name, cell_text(field, value), in_key, is_default(field, value)});
  }
}

std::string line_of(const ProtobufCMessage &message, bool key_only) {
  std::string line;
  for (const cell &part : to_cells(message)) {
    if (!part.in_key && (key_only || part.is_default)) continue;
    if (!line.empty()) line += ' ';
    line += part.name + "=" + part.text;
  }
  return line;
}

}  // namespace

std::vector<cell> to_cells(const ProtobufCMessage &message) {
  std::vector<cell> cells;
  append_cells(message, "", false, names_group(message), cells);
  return cells;
}

std::string to_line(const ProtobufCMessage &message) { return line_of(message, false); }
std::string key_line(const ProtobufCMessage &message) { return line_of(message, true); }

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

}  // namespace lspanctl
