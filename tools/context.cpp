#include "context.h"

#include <cstdlib>
#include <filesystem>
#include <ostream>

#include "errors.h"
#include "master_search.h"
#include "values.h"

namespace lspanctl {
namespace {

// One that was named has to be there.
ko_platform::config load_named(const std::string &path, const std::string &by) {
  std::error_code why;
  if (!std::filesystem::exists(path, why))
    throw refused(by + " " + printable(path) + ": there is no such file; correct the name or leave it out");
  return ko_platform::load_config(path);
}

// The tool's own login, and the ports that all programs share.
ko_platform::config load_own_and_shared() {
  std::error_code why;
  if (!std::filesystem::exists(tool_config_path, why))
    return ko_platform::load_config(ko_platform::default_config_path);
  ko_platform::config own = ko_platform::load_config(tool_config_path);
  if (own.has_ports) return own;
  ko_platform::config both = ko_platform::load_config(ko_platform::default_config_path);
  both.store = own.store;
  return both;
}

}  // namespace

const ko_platform::config &context::settings() {
  if (settings_) return *settings_;
  const char *named = std::getenv("LSPANCTL_PLATFORM_FILE");
  if (platform_file)
    settings_ = load_named(*platform_file, "--platform-file");
  else if (named != nullptr && *named != '\0')
    settings_ = load_named(named, "LSPANCTL_PLATFORM_FILE");
  else
    settings_ = load_own_and_shared();
  return *settings_;
}

std::chrono::seconds context::patience() {
  constexpr uint32_t usual = 5, most = 3600;
  return std::chrono::seconds(timeout ? parse_number(*timeout, "--timeout", 1, most) : usual);
}

store_client context::connect() {
  const ko_platform::store_address address = store ? parse_store(*store) : settings().store;
  return {address.sentinels.empty() ? address : find_master(address, patience()), patience()};
}

progress_line context::progress(const std::string &what, size_t total) {
  return {on_terminal ? &err : nullptr, what, total};
}

void context::line(const std::string &text, const json &value) {
  out << (json_output ? dump(value) : text) << '\n' << std::flush;
}

void context::text_only(const std::string &text) {
  if (!json_output) out << text << std::flush;
}

void context::report(const std::string &done, const std::string &sentence, const json &details) {
  json object = {{"done", done}};
  object.update(details);
  line(sentence, object);
}

void context::list(const table &rows, const json &list, const std::string &none) {
  if (json_output)
    out << dump(list, 2) << '\n';
  else if (list.empty())
    out << none << '\n';
  else
    rows.print(out);
}

}  // namespace lspanctl
