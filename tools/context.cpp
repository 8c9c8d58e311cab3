#include "context.h"

#include <ostream>

namespace lspanctl {

const ko_platform::config &context::settings() {
  if (!settings_) settings_ = ko_platform::load_config(platform_file.value_or(ko_platform::default_config_path));
  return *settings_;
}

store_client context::connect() { return store_client(store ? parse_store(*store) : settings().store); }

progress_line context::progress(const std::string &what, size_t total) {
  return {on_terminal ? &err : nullptr, what, total};
}

void context::line(const std::string &text, const json &value) {
  out << (json_output ? dump(value) : text) << '\n' << std::flush;
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
