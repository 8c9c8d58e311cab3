#include "json.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

#include "errors.h"
#include "platform_config.h"

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

}  // namespace

std::string dump(const json &value, int indent) {
  return value.dump(indent, ' ', false, json::error_handler_t::replace);
}

std::string name_of_file(const std::string &path) { return path == "-" ? "standard input" : path; }

json read_json_file(const std::string &path) {
  const std::string text = read_all(path);
  try {
    return json::parse(text);
  } catch (const json::parse_error &error) {
    throw refused(name_of_file(path) + ":" + ko_platform::position_of(text, error.byte) +
                  ": malformed JSON; correct it there");
  } catch (const json::out_of_range &) {
    throw refused(name_of_file(path) + " holds a number that is too large for anything; correct it there");
  }
}

}  // namespace lspanctl
