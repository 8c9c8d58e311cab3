// Records, ports and links to what the kernel shall hold: a pure function, asked anew whenever one of the three has
// changed.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "ports.h"
#include "program.h"
#include "records.h"

namespace ko_forward {

// Directions as records have them; `both` is one bit of each.
inline constexpr uint32_t dir_rx = 1;
inline constexpr uint32_t dir_tx = 2;
inline constexpr uint32_t dir_both = 3;

// Where a filter hangs: at what a link receives, or at what it sends.
struct place {
  int ifindex = 0;
  uint32_t dir = 0;  // dir_rx or dir_tx

  auto operator<=>(const place &) const = default;
};

struct wanted_filter {
  std::shared_ptr<const program> code;
  std::set<int> targets;  // indexes of links; not empty
};

// What is answered for a member: an errno number, and why, for people.
struct verdict {
  int code = 0;
  std::string reason;
};

// The key of a result, in interface indexes.
struct result_key {
  uint32_t session = 0;
  uint32_t s_ifx = 0;
  uint32_t d_ifx = 0;  // of a group: its bare id
  uint32_t dir = 0;
  uint32_t acl_id = 0;

  auto operator<=>(const result_key &) const = default;
};

struct wanted_member {
  member_key key;
  mark marked{};
  bool to_group = false;
  std::vector<result_key> results;  // under which it is answered; none when its ports have no interface index
  verdict answer;                   // as far as it is known before the kernel was asked
  std::vector<place> places;        // of its filters
  std::vector<std::string> warnings;
};

struct wanted {
  std::map<place, std::map<mark, wanted_filter>> filters;
  std::vector<wanted_member> members;  // those whose source record has come; in the order of their keys
  std::set<int> quiet;                 // links that neither learn nor get what is flooded
};

// Programs that are used again, from one call of make_wanted to the next.
class program_cache {
 public:
  // What was not asked for since the last turn is forgotten.
  void turn();
  // Throws acl_error.
  std::shared_ptr<const program> get(const frame_choice &choice);
  void forget() { now_.clear(), before_.clear(); }

 private:
  struct key {
    uint32_t sample_rate;
    uint16_t untagged_vlan;
    bool has_vlans;
    bool has_acl;
    vlan_set vlans;
    std::string acl;

    bool operator==(const key &) const = default;
  };
  struct key_hash {
    size_t operator()(const key &what) const;
  };
  struct entry {
    std::shared_ptr<const program> made;  // null: it cannot be made
    std::string why;
  };
  using table = std::unordered_map<key, entry, key_hash>;

  table now_;
  table before_;
};

using acl_table = std::map<uint32_t, std::string>;  // expressions by acl_id

// "session 1, ge1 -> ge5, rx"
std::string name_of(const wanted_member &member, const port_table &ports);

wanted make_wanted(const records &from, const port_table &ports, const link_table &links, const acl_table &acls,
                   program_cache &programs);

}  // namespace ko_forward
