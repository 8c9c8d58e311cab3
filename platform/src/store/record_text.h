// Records as one line of text for people, made from the message descriptors.
#pragma once

#include <string>
#include <string_view>

#include <protobuf-c/protobuf-c.h>

namespace ko_store {

// The fields of `message` that are not at their default, in the order of their numbers: the key (`index`) in bare
// braces, other messages as name={...}, lists as name=[1,2], texts quoted, bytes as 0x....
std::string to_text(const ProtobufCMessage &message);

// `text` with quotes, backslashes and everything that is not printable ASCII escaped: \r, \n, else \ooo.
std::string escaped(std::string_view text);

// `bytes` as hexadecimal digits: all of them, or for a log line cut after a few dozen.
std::string hex_digits(std::string_view bytes);
std::string to_hex(std::string_view bytes);

}  // namespace ko_store
