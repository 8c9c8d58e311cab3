// The context of a command: the options that all share, the connections that they open, and where they write to.
#pragma once

#include <chrono>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "interfaces.h"
#include "json.h"
#include "platform_config.h"
#include "progress_line.h"
#include "store_client.h"
#include "text.h"

namespace lspanctl {

// The tool's own platform file. Ports that it leaves out are in the one that all programs share.
inline constexpr const char *tool_config_path = "/etc/ko_platform/lspanctl.json";

struct context {
  context(std::ostream &to, std::ostream &errors, bool terminal) : out(to), err(errors), on_terminal(terminal) {}

  std::ostream &out;
  std::ostream &err;
  bool on_terminal;              // whether `err` is one: progress is shown
  bool out_on_terminal = false;  // whether `out` is one: what is shown again and again stays in its place

  std::optional<std::string> store;          // --store; without: as the platform file says
  std::optional<std::string> platform_file;  // --platform-file
  std::optional<std::string> timeout;        // --timeout
  bool json_output = false;                  // --json

  // Stored records that could not be used; each was a line on `err`, and a command that is left with one is not done.
  std::vector<ko_store::owned_change> unusable;

  const ko_platform::config &settings();  // of the platform file; throws config_error
  std::chrono::seconds patience();        // how long an answer is waited for
  interfaces ports() { return interfaces(settings()); }
  store_client connect();
  progress_line progress(const std::string &what, size_t total);

  // The output. A line: `text`, or with --json `value` in a line of its own.
  void line(const std::string &text, const json &value);
  // Text that --json has no value for, as it is.
  void text_only(const std::string &text);
  // What was done: `sentence`, or with --json an object of `done`, a word, and `details`.
  void report(const std::string &done, const std::string &sentence, const json &details);
  // A table, or with --json the array `list`; `none` where the list is empty.
  void list(const table &rows, const json &list, const std::string &none);

 private:
  std::optional<ko_platform::config> settings_;
};

}  // namespace lspanctl
