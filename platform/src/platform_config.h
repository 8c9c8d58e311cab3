// The platform file: where the store is, which ports exist, where log lines go.
//
//   {
//     "store": { "socket": "/run/redis/redis-server.sock", "user": "ko_lspan", "password": "..." },
//     "ports": { "ge1": { "ifx": 1, "phyid": 101 } },
//     "log":   { "file": "/var/log/ko_lspan.log", "zlog_conf": "/etc/ko_platform/zlog.conf" }
//   }
//
// Every part may be left out. "store" may name "host" and "port" instead of "socket".
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace ko_platform {

inline constexpr const char *default_config_path = "/etc/ko_platform/platform.json";

inline constexpr size_t longest_socket_path = 107;  // bytes; what is longer, the kernel cannot connect to

struct store_address {
  std::string socket = "/run/redis/redis-server.sock";  // Unix socket; empty: host and port are used
  std::string host;
  uint16_t port = 6379;
  std::string user;      // empty: the server's default user
  std::string password;  // empty: no login
};

// One line for messages, without the password: the socket, or host:port.
std::string to_string(const store_address &address);

struct port {
  std::string name;
  uint32_t ifx;    // interface index, not 0
  uint32_t phyid;  // physical id
};

struct log_settings {
  std::string file;       // empty: standard error
  std::string zlog_conf;  // configuration of zlog, where that is the logging library; empty: its usual place
};

struct config {
  store_address store;
  bool has_ports = false;   // false: interface indexes are physical ids
  std::vector<port> ports;  // in the order of their names
  log_settings log;
};

// what() is one line: the file, the line and column where the text is malformed, and what is wrong.
class config_error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Reads `path`; a file that does not exist gives the defaults. Throws config_error.
config load_config(const std::string &path);

// The settings of this process, read once from default_config_path. Throws config_error, every time.
const config &process_config();

// Puts `settings` in their place, for a tool that was given another file. The platform's libraries see them from then
// on.
void use_config(config settings);

// Line and column of byte `offset` of `text`, all from 1, as "3:14".
std::string position_of(const std::string &text, size_t offset);

// Where this process logs to; the defaults when the platform file cannot be used.
log_settings process_log_settings() noexcept;

}  // namespace ko_platform
