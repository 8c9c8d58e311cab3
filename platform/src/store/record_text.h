// Records as one line of text for people.
#pragma once

#include <string>

#include <protobuf-c/protobuf-c.h>

namespace ko_store {

// Appends `message` as  name{field=value key={field=value} list=[1 2]}  with the fields that are not at their default.
// Texts are quoted and escaped, bytes are hexadecimal.
void append_text(const ProtobufCMessage &message, std::string &out);

std::string to_text(const ProtobufCMessage &message);

// `bytes` as hexadecimal digits, cut after a few dozen.
std::string to_hex(std::string_view bytes);

}  // namespace ko_store
