#include "platform_config.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>

namespace ko_platform {

static_assert(longest_socket_path == sizeof(sockaddr_un::sun_path) - 1);

namespace {

using nlohmann::json;

constexpr off_t most_bytes = off_t{4} << 20;  // 100,000 ports
constexpr int deepest = 8;                    // of what stands in one another; the settings need 3

std::optional<config> &given_config() {
  static std::optional<config> settings;
  return settings;
}

[[noreturn]] void fail(const std::string &where, const std::string &what) { throw config_error(where + ": " + what); }

// The members of an object, each of which `allowed` must name.
void check_members(const json &object, const std::string &where, const std::set<std::string> &allowed) {
  if (!object.is_object()) fail(where, "must be an object");
  std::string known;
  for (const std::string &name : allowed) known += (known.empty() ? "" : ", ") + name;
  for (const auto &item : object.items())
    if (!allowed.contains(item.key()))
      fail(where, "unknown member \"" + item.key() + "\"; those that are known: " + known);
}

void read_text(const json &object, const char *name, const std::string &where, std::string &out) {
  const auto found = object.find(name);
  if (found == object.end()) return;
  if (!found->is_string()) fail(where + "." + name, "must be a text");
  out = found->get<std::string>();
  if (out.find('\0') != std::string::npos) fail(where + "." + name, "must not hold a NUL character");
}

template <class Number>
void read_number(const json &object, const char *name, const std::string &where, Number least, Number &out) {
  const auto found = object.find(name);
  if (found == object.end()) return;
  constexpr uint64_t most = std::numeric_limits<Number>::max();
  if (!found->is_number_unsigned() || found->get<uint64_t>() < least || found->get<uint64_t>() > most)
    fail(where + "." + name, "must be a number from " + std::to_string(least) + " to " + std::to_string(most));
  out = found->get<Number>();
}

// "host:port", where an IPv6 address stands in brackets, or a host alone.
sentinel_address parse_sentinel(const json &entry, const std::string &where) {
  const std::string text = entry.is_string() ? entry.get<std::string>() : "";
  const bool in_brackets = text.starts_with('[');
  const size_t host_end = in_brackets ? text.find(']') : text.find(':');
  sentinel_address out{text.substr(in_brackets ? 1 : 0, host_end - (in_brackets ? 1 : 0))};
  const std::string rest = host_end == std::string::npos ? "" : text.substr(host_end + (in_brackets ? 1 : 0));
  if (!rest.empty()) {
    const char *first = rest.data() + 1, *last = rest.data() + rest.size();
    const auto [end, error] = std::from_chars(first, last, out.port);
    if (rest[0] != ':' || error != std::errc() || end != last || out.port == 0) out.host.clear();
  }
  if (out.host.empty() || (in_brackets && host_end == std::string::npos) || out.host.find('\0') != std::string::npos)
    fail(where, "must hold texts \"host:port\"");
  return out;
}

void read_sentinels(const json &store, const std::string &where, store_address &out) {
  read_text(store, "master", where, out.master);
  read_text(store, "sentinel_user", where, out.sentinel_user);
  read_text(store, "sentinel_password", where, out.sentinel_password);
  const auto found = store.find("sentinels");
  if (found == store.end()) {
    if (!out.master.empty() || !out.sentinel_user.empty() || !out.sentinel_password.empty())
      fail(where, "names no \"sentinels\"");
    return;
  }
  if (store.contains("socket") || store.contains("host"))
    fail(where, "\"sentinels\" stand for \"socket\" and \"host\"");
  if (!found->is_array() || found->empty()) fail(where + ".sentinels", "must be an array of texts \"host:port\"");
  for (const json &entry : *found) out.sentinels.push_back(parse_sentinel(entry, where + ".sentinels"));
  if (out.master.empty()) fail(where, "\"sentinels\" need the name of the \"master\"");
  if (!out.sentinel_user.empty() && out.sentinel_password.empty())
    fail(where, "\"sentinel_user\" needs \"sentinel_password\"");
  out.socket.clear();
}

void read_store(const json &store, const std::string &path, store_address &out) {
  const std::string where = path + ": store";
  check_members(
      store, where,
      {"socket", "host", "port", "user", "password", "sentinels", "master", "sentinel_user", "sentinel_password"});
  if (store.contains("socket") && store.contains("host")) fail(where, "name either \"socket\" or \"host\", not both");
  if (store.contains("host")) out.socket.clear();
  read_text(store, "socket", where, out.socket);
  if (out.socket.size() > longest_socket_path)
    fail(where + ".socket", "is longer than " + std::to_string(longest_socket_path) + " bytes");
  read_text(store, "host", where, out.host);
  read_number<uint16_t>(store, "port", where, 1, out.port);
  read_text(store, "user", where, out.user);
  read_text(store, "password", where, out.password);
  read_sentinels(store, where, out);
  if (out.socket.empty() && out.host.empty() && out.sentinels.empty()) fail(where, "names neither a socket nor a host");
  if (!out.user.empty() && out.password.empty()) fail(where, "\"user\" needs \"password\"");
}

// Why a port cannot have this name, by which lspanctl could not find it; null when it can.
const char *name_defect(const std::string &name) {
  if (name.empty()) return "a port needs a name";
  if (name.find_first_not_of("0123456789") == std::string::npos) return "this name would be read as an interface index";
  if (name == "none") return "this name stands for no port";
  return name.starts_with("group:") ? "this name would be read as a group" : nullptr;
}

void read_ports(const json &ports, const std::string &path, config &out) {
  const std::string where = path + ": ports";
  if (!ports.is_object()) fail(where, "must be an object");
  out.has_ports = true;
  std::set<uint32_t> seen;
  for (const auto &[name, value] : ports.items()) {
    const std::string here = std::string(where).append(".").append(name);
    if (const char *defect = name_defect(name); defect != nullptr) fail(here, defect);
    check_members(value, here, {"ifx", "phyid", "device"});
    if (!value.contains("ifx") || !value.contains("phyid")) fail(here, "needs \"ifx\" and \"phyid\"");
    port entry{name, 0, 0};
    read_number<uint32_t>(value, "ifx", here, 1, entry.ifx);
    read_number<uint32_t>(value, "phyid", here, 0, entry.phyid);
    read_text(value, "device", here, entry.device);
    if (!seen.insert(entry.ifx).second) fail(here, "ifx " + std::to_string(entry.ifx) + " has another name already");
    out.ports.push_back(entry);
  }
}

// The number that `text` is, all of it in decimal digits.
std::optional<uint32_t> number_of(const std::string &text) {
  uint32_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

void read_acls(const json &acls, const std::string &path, config &out) {
  const std::string where = path + ": acls";
  if (!acls.is_object()) fail(where, "must be an object");
  for (const auto &item : acls.items()) {
    const std::optional<uint32_t> id = number_of(item.key());
    if (!id.has_value()) fail(where, "\"" + item.key() + "\" is not the number of an ACL");
    if (out.acls.contains(*id)) fail(where, "ACL " + std::to_string(*id) + " stands there twice");
    read_text(acls, item.key().c_str(), where, out.acls[*id]);
  }
}

void read_forward(const json &forward, const std::string &path, forward_settings &out) {
  const std::string where = path + ": forward";
  check_members(forward, where, {"pref", "saved_flags"});
  read_number<uint16_t>(forward, "pref", where, 1, out.pref);
  read_text(forward, "saved_flags", where, out.saved_flags);
}

config parse_config(const std::string &text, const std::string &path) {
  config out;
  json root;
  const auto check_depth = [&path](int depth, json::parse_event_t, const json &) {
    if (depth > deepest) fail(path, "is nested too deeply");
    return true;
  };
  try {
    root = json::parse(text, check_depth);
  } catch (const json::parse_error &error) {
    fail(path + ":" + position_of(text, error.byte), "malformed JSON");
  } catch (const json::out_of_range &) {
    fail(path, "holds a number that is too large for anything");
  }
  check_members(root, path, {"store", "ports", "log", "acls", "forward", "redundancy"});
  if (root.contains("store")) read_store(root["store"], path, out.store);
  if (root.contains("ports")) read_ports(root["ports"], path, out);
  if (root.contains("log")) {
    check_members(root["log"], path + ": log", {"file", "zlog_conf"});
    read_text(root["log"], "file", path + ": log", out.log.file);
    read_text(root["log"], "zlog_conf", path + ": log", out.log.zlog_conf);
  }
  if (root.contains("acls")) read_acls(root["acls"], path, out);
  if (root.contains("forward")) read_forward(root["forward"], path, out.forward);
  if (root.contains("redundancy")) {
    check_members(root["redundancy"], path + ": redundancy", {"lease_seconds"});
    read_number<uint16_t>(root["redundancy"], "lease_seconds", path + ": redundancy", 1, out.redundancy.lease_seconds);
  }
  return out;
}

struct descriptor {
  int fd;
  ~descriptor() {
    if (fd >= 0) close(fd);
  }
};

// The contents of the file; nothing when there is none. Only a regular file has an end, and no other process that could
// be waited for.
std::optional<std::string> read_file(const std::string &path) {
  const descriptor file{open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)};
  if (file.fd < 0 && (errno == ENOENT || errno == ENOTDIR)) return std::nullopt;
  struct stat status;
  if (file.fd < 0 || fstat(file.fd, &status) != 0) fail(path, std::strerror(errno));
  if (!S_ISREG(status.st_mode)) fail(path, "is not a regular file");
  if (status.st_size > most_bytes) fail(path, "is larger than 4 MiB");
  std::string text(static_cast<size_t>(status.st_size), '\0');
  const ssize_t length = read(file.fd, text.data(), text.size());
  if (length < 0) fail(path, std::strerror(errno));
  text.resize(static_cast<size_t>(length));
  return text;
}

}  // namespace

std::string position_of(const std::string &text, size_t offset) {
  const size_t end = std::min(offset == 0 ? 0 : offset - 1, text.size());
  const auto line = 1 + std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(end), '\n');
  const size_t line_start = end == 0 ? std::string::npos : text.rfind('\n', end - 1);
  const size_t column = line_start == std::string::npos ? end + 1 : end - line_start;
  return std::to_string(line) + ":" + std::to_string(column);
}

std::string to_string(const store_address &address) {
  if (address.socket.empty() && address.host.empty()) return "the master \"" + address.master + "\"";
  return address.socket.empty() ? address.host + ":" + std::to_string(address.port) : address.socket;
}

config load_config(const std::string &path) {
  const std::optional<std::string> text = read_file(path);
  config out = text.has_value() ? parse_config(*text, path) : config{};
  out.path = path;
  return out;
}

const config &process_config() {
  if (given_config()) return *given_config();
  static const config settings = load_config(default_config_path);
  return settings;
}

void use_config(config settings) { given_config() = std::move(settings); }

log_settings process_log_settings() noexcept {
  try {
    return process_config().log;
  } catch (...) {
    return {};
  }
}

}  // namespace ko_platform
