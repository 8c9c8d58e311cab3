// What every command is given: where to write to, the options that all share, and what they open.
#pragma once

#include <functional>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>

#include "platform_config.h"
#include "store_client.h"

namespace lspanctl {

// The interfaces that the platform file names; without a `ports` map every number is one.
class interfaces {
 public:
  explicit interfaces(const ko_platform::config &settings) : settings_(settings) {}

  // A number or a name to the index. "none" and 0 stand for no interface. Throws refused for one that the map does not
  // have; with `any_number`, which serves to take away what is configured already, numbers are not looked up.
  uint32_t parse(const std::string &text, bool any_number = false) const;

  // The name where the map has one that cannot be taken for something else, else the number; "none" for 0.
  std::string text(uint32_t ifx) const;

  // The same, for a target that may be a group; `is_group` says so.
  std::string target_text(uint32_t d_ifx, bool is_group) const;

 private:
  const ko_platform::port *find(uint32_t ifx) const;
  const ko_platform::config &settings_;
};

// How far long work is, on the last line of a terminal; nothing when `out` is none.
class progress_line {
 public:
  progress_line(std::ostream *out, std::string what, size_t total) : out_(out), what_(std::move(what)), total_(total) {}
  progress_line(const progress_line &) = delete;
  progress_line &operator=(const progress_line &) = delete;
  ~progress_line();
  void show(size_t done);

 private:
  std::ostream *out_;
  std::string what_;
  size_t total_;
};

struct context {
  context(std::ostream &to, std::ostream &errors, bool terminal) : out(to), err(errors), on_terminal(terminal) {}

  std::ostream &out;
  std::ostream &err;
  bool on_terminal;  // whether `err` is one: progress is shown

  std::string store;                                             // --store, empty: as the platform file says
  std::string platform_file = ko_platform::default_config_path;  // --platform-file
  bool json = false;                                             // --json
  std::function<int()> action;                                   // what the command line asks for; returns exit status

  const ko_platform::config &settings();  // of the platform file; throws config_error
  interfaces ports() { return interfaces(settings()); }
  store_client connect();
  progress_line progress(const std::string &what, size_t total);

 private:
  std::optional<ko_platform::config> settings_;
};

}  // namespace lspanctl
