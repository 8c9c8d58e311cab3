// How far a session member has come, in words.
#pragma once

#include <optional>
#include <string>

#include "wanted.h"

namespace lspanctl {

struct member_state {
  std::string state;               // configured, written, accepted, refused
  std::string reason;              // why it is in no better state; empty: no reason
  std::optional<uint32_t> result;  // the relayed answer
};

// State and reason in one, for a table.
std::string to_text(const member_state &state);

member_state state_of(const wanted_state &all, const member_outcome &outcome, const interfaces &ports);

}  // namespace lspanctl
