// What this program changed at links and has to undo one day: the flags that bridge ports had, and which hooks it made.
// It stands in a file, because a kill may come at any time.
#pragma once

#include <map>
#include <string>

#include "ports.h"

namespace ko_forward {

struct saved_port {
  std::string name;  // for people
  int bridge = 0;    // index of the bridge that the flags are of
  port_flags flags = no_flags;

  bool operator==(const saved_port &) const = default;
};

// By index of the link.
struct saved_state {
  std::map<int, saved_port> ports;
  std::map<int, std::string> hooks;  // names, for people

  bool operator==(const saved_state &) const = default;
};

class saved_file {
 public:
  // Reads `path`. A file that is not there, or cannot be used (the log says why), gives an empty state.
  explicit saved_file(std::string path);

  const saved_state &state() const { return state_; }
  // Writes `state` to the file, whole or not at all; without anything in it, the file goes. Returns false, with a line
  // in the log, when that is not possible; the state is what it was then.
  bool keep(const saved_state &state);

 private:
  std::string path_;
  saved_state state_;
  std::string told_;  // the last failure
};

// The state as text and back; from_text throws std::exception.
std::string to_text(const saved_state &state);
saved_state from_text(const std::string &text);

}  // namespace ko_forward
