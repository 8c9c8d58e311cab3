// Any record as JSON, and back, from its descriptor.
//
// Enumerations are shown by name, groups as "group:ID", VLAN bit maps as "10,20-29". A field of a derived record that
// has the name of an enumeration of the session record holds that enumeration, also where its type is a plain number.
#pragma once

#include <functional>
#include <string>

#include <protobuf-c/protobuf-c.h>

#include "json.h"
#include "store/layout.h"

namespace lspanctl {

// Every field of `message`; an absent message is null.
json to_json(const ProtobufCMessage &message);

// The message that `value` describes, in the form of to_json; a field that is left out is 0 or empty. An interface may
// be given by name: `interface` finds its number or throws. Throws refused with the path of the field.
ko_store::message_ptr from_json(const ProtobufCMessageDescriptor &type, const json &value,
                                const std::function<uint32_t(const std::string &)> &interface);

// The record of `type` that holds the packed `key` and nothing else; null when the bytes are no such key.
ko_store::message_ptr record_of_key(const ProtobufCMessageDescriptor &type, std::string_view key);

// The parts of to_json, for the other forms of a record.

// Whether the message says that its target is a group.
bool names_group(const ProtobufCMessage &message);

// One field. `named_group`: the message that it belongs to, or is the key of, names a group.
json field_json(const ProtobufCMessage &message, const ProtobufCFieldDescriptor &field, bool named_group);

// The message in a field; null when there is none.
const ProtobufCMessage *part_of(const ProtobufCMessage &message, const ProtobufCFieldDescriptor &field);

bool is_direction(const ProtobufCFieldDescriptor &field);

// Whether `value` is the default of that field.
bool is_default(const ProtobufCFieldDescriptor &field, const json &value);

}  // namespace lspanctl
