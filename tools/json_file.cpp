#include "json_file.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

#include "platform_config.h"
#include "text.h"

namespace lspanctl {

json read_json_file(const std::string &path) {
  std::ostringstream text;
  errno = 0;
  if (path == "-") {
    text << std::cin.rdbuf();
  } else {
    std::ifstream file(path, std::ios::binary);
    if (file) text << file.rdbuf();
    if (!file || (errno != 0 && text.str().empty()))
      throw refused(path + " cannot be read: " + std::strerror(errno) + "; name a file that can");
  }
  const std::string bytes = text.str(), name = path == "-" ? "standard input" : path;
  try {
    return json::parse(bytes);
  } catch (const json::parse_error &error) {
    throw refused(name + ":" + ko_platform::position_of(bytes, error.byte) + ": malformed JSON; correct it there");
  } catch (const json::out_of_range &) {
    throw refused(name + " holds a number that is too large for anything; correct it there");
  }
}

}  // namespace lspanctl
