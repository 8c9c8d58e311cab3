#include "saved.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>

#include "forward_log.h"

namespace ko_forward {
namespace {

using nlohmann::json;

constexpr const char *flag_names[n_port_flags] = {"learning", "locked", "flood", "mcast_flood", "bcast_flood"};

struct descriptor {
  int fd;
  ~descriptor() {
    if (fd >= 0) close(fd);
  }
};

// Empty, or why it cannot be done.
std::string write_file(const std::string &path, const std::string &text) {
  const std::string fresh = path + ".new";
  std::error_code ignored;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
  const descriptor file{open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644)};
  if (file.fd < 0) return std::strerror(errno);
  const ssize_t written = write(file.fd, text.data(), text.size());
  if (written < 0) return std::strerror(errno);
  if (static_cast<size_t>(written) != text.size()) return "it was written in part only";
  return std::rename(fresh.c_str(), path.c_str()) == 0 ? "" : std::strerror(errno);
}

}  // namespace

std::string to_text(const saved_state &state) {
  json root = {{"ports", json::array()}, {"hooks", json::array()}};
  for (const auto &[index, port] : state.ports) {
    json entry = {{"index", index}, {"name", port.name}, {"bridge", port.bridge}};
    for (size_t i = 0; i < n_port_flags; ++i)
      if (port.flags[i] != flag_state::unknown) entry[flag_names[i]] = port.flags[i] == flag_state::on;
    root["ports"].push_back(entry);
  }
  for (const auto &[index, name] : state.hooks) root["hooks"].push_back({{"index", index}, {"name", name}});
  return root.dump(1, ' ', false, json::error_handler_t::replace) + "\n";
}

saved_state from_text(const std::string &text) {
  const json root = json::parse(text);
  saved_state state;
  for (const json &entry : root.at("ports")) {
    saved_port port{entry.at("name"), entry.at("bridge")};
    for (size_t i = 0; i < n_port_flags; ++i)
      if (entry.contains(flag_names[i]))
        port.flags[i] = entry[flag_names[i]].get<bool>() ? flag_state::on : flag_state::off;
    state.ports.emplace(entry.at("index").get<int>(), std::move(port));
  }
  for (const json &entry : root.at("hooks")) state.hooks.emplace(entry.at("index").get<int>(), entry.at("name"));
  return state;
}

saved_file::saved_file(std::string path) : path_(std::move(path)) {
  std::ifstream file(path_);
  if (!file) return;
  const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  try {
    state_ = from_text(text);
  } catch (const std::exception &error) {
    FORWARD_ERROR("%s cannot be used, and so the flags that ports had before are not known: %s", path_.c_str(),
                  error.what());
  }
}

bool saved_file::keep(const saved_state &state) {
  if (state == state_) return true;
  std::string why;
  if (state == saved_state{}) {
    if (unlink(path_.c_str()) != 0 && errno != ENOENT) why = std::strerror(errno);
  } else {
    why = write_file(path_, to_text(state));
  }
  if (!why.empty()) {
    if (why != told_) FORWARD_ERROR("%s cannot be written: %s", path_.c_str(), why.c_str());
    told_ = why;
    return false;
  }
  told_.clear();
  state_ = state;
  return true;
}

}  // namespace ko_forward
