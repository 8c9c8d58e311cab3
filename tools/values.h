// Single values as people write and read them: numbers, directions, enumerations, groups, VLANs. Every parse function
// throws usage_error.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <protobuf-c/protobuf-c.h>

namespace lspanctl {

// Whether `text` is all decimal digits, at least one.
bool is_number(std::string_view text);

// A decimal number from `least` to `most`; `name` tells in the error which one is meant.
uint32_t parse_number(std::string_view text, const std::string &name, uint32_t least = 0, uint32_t most = UINT32_MAX);

// Directions: rx 1, tx 2, both 3; others are numbers.
uint32_t parse_direction(const std::string &text);
std::string direction_text(uint32_t direction);

// A number, or the name of a value of the enumeration in upper or lower case.
uint32_t parse_enum(const ProtobufCEnumDescriptor &type, const std::string &text);
std::string enum_text(const ProtobufCEnumDescriptor &type, uint32_t value);

// Groups as targets. "group:2" to the value that stands for the group in d_ifx; nothing when `text` does not start so.
std::optional<uint32_t> parse_group_target(std::string_view text);
std::string group_text(uint32_t d_ifx);
uint32_t group_id_of(uint32_t d_ifx);

// The target in the key of a result: a group has its bare id there.
uint32_t result_target(uint32_t d_ifx);

// "10,20-29" as a bit map: VLAN n is bit n % 32, counted from the least significant, of word n / 32. VLANs are 1 to
// 4094; "" and "none" are none.
std::vector<uint32_t> parse_vlans(std::string_view text);

// The other way; "" for none. Every bit is named, also those that are no VLAN.
std::string vlans_text(const uint32_t *words, size_t n_words);

// Whether the list form of a bit map says all that it holds: no bits that are no VLAN, no words behind the last bit.
bool is_vlan_list(const uint32_t *words, size_t n_words);

}  // namespace lspanctl
