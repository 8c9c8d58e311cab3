// The records and commands of the benchmarks' session events. Event `n` is a session of its own with one member:
// session n, source port n, target port n, learning off. Every n in range is encoded in as many bytes, so that all
// events are of one size and an event's commands are made from a pattern.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "store/engine.h"

namespace bench {

inline constexpr uint32_t first_number = 1 << 21;  // the first that takes four bytes
inline constexpr uint32_t end_number = 1 << 28;    // the first that takes five

// A packed record and its key.
struct record {
  ko_store::hash_id hash;
  ko_store::change_kind kind;
  std::string key;
  std::string bytes;

  ko_store::change as_change() const { return {hash, kind, key, bytes}; }
};

// The configuration record of event `n`.
record session_record(uint32_t n);
// A member of session `session` whose source is port n, or VLANs on it when it has a VLAN map, towards port `session`.
record member_record(uint32_t session, uint32_t n, uint32_t vlan_words = 0, uint32_t sample_rate = 0);
// Interface n in outflow group `group`.
record membership_record(uint32_t n, uint32_t group);
// What the daemon writes for it, in its order: destination, source, learning, flush request, mirror target.
std::vector<record> derived_records(uint32_t n);

// A Redis command.
std::string command(std::initializer_list<std::string_view> words);
// What carries out a change: a transaction of four commands, or a PUBLISH.
std::vector<std::string> commands_of(const record &what);

// Bytes in which an event's number stands at known places.
class pattern {
 public:
  // `bytes` as they are for number `pattern::number`.
  static constexpr uint32_t number = 0x0abcdef;
  explicit pattern(std::string bytes);

  // The bytes for event `n`; valid until the next call.
  std::string_view with(uint32_t n);

 private:
  std::string bytes_;
  std::vector<size_t> places_;
};

std::string session_channel();
std::string mirror_target_channel();
std::string flush_channel();

}  // namespace bench
