#include "json.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <set>
#include <sstream>
#include <vector>

#include "errors.h"
#include "platform_config.h"
#include "text.h"

namespace lspanctl {
namespace {

std::string read_all(const std::string &path) {
  std::ostringstream text;
  errno = 0;
  if (path == "-") {
    text << std::cin.rdbuf();
    return text.str();
  }
  std::ifstream file(path, std::ios::binary);
  if (file) text << file.rdbuf();
  if (!file || (errno != 0 && text.str().empty()))
    throw refused(path + " cannot be read: " + std::strerror(errno) + "; name a file that can");
  return text.str();
}

// Follows a parser through a value, to tell where an object has a key twice. The parser itself takes the last.
class duplicate_finder {
 public:
  explicit duplicate_finder(std::string file) : file_(std::move(file)) {}

  void take(json::parse_event_t event, const json &parsed) {
    using kind = json::parse_event_t;
    if (event == kind::key) take_key(parsed.get<std::string>());
    if (event == kind::object_end || event == kind::array_end) levels_.pop_back();
    if (event == kind::object_start || event == kind::array_start || event == kind::value) {
      if (!levels_.empty() && levels_.back().is_array) ++levels_.back().n_elements;
      if (event != kind::value) levels_.push_back({event == kind::array_start, 0, {}, {}});
    }
  }

 private:
  struct level {
    bool is_array;
    size_t n_elements;
    std::string key;  // the last
    std::set<std::string> keys;
  };

  void take_key(const std::string &key) {
    if (!levels_.back().keys.insert(key).second)
      throw refused(file_ + ": " + path() + printable(key) + ": stands twice in one object; leave one out");
    levels_.back().key = key;
  }

  // "sessions[1]: "
  std::string path() const {
    std::string text;
    for (const level &each : levels_) {
      if (&each == &levels_.back()) break;
      text += each.is_array ? "[" + std::to_string(each.n_elements - 1) + "]" : (text.empty() ? "" : ".") + each.key;
    }
    return text.empty() ? "" : text + ": ";
  }

  std::string file_;
  std::vector<level> levels_;
};

}  // namespace

std::string dump(const json &value, int indent) {
  return value.dump(indent, ' ', false, json::error_handler_t::replace);
}

std::string name_of_file(const std::string &path) { return path == "-" ? "standard input" : path; }

json read_json_file(const std::string &path) {
  const std::string text = read_all(path);
  try {
    duplicate_finder duplicates(name_of_file(path));
    return json::parse(text, [&duplicates](int, json::parse_event_t event, const json &parsed) {
      duplicates.take(event, parsed);
      return true;
    });
  } catch (const json::parse_error &error) {
    throw refused(name_of_file(path) + ":" + ko_platform::position_of(text, error.byte) +
                  ": malformed JSON; correct it there");
  } catch (const json::out_of_range &) {
    throw refused(name_of_file(path) + " holds a number that is too large for anything; correct it there");
  }
}

}  // namespace lspanctl
