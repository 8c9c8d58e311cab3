// The platform file: where the store is, which ports exist, where log lines go; settings of the forwarding side.
//
//   {
//     "store":   { "socket": "/run/redis/redis-server.sock", "user": "ko_lspan", "password": "..." },
//     "ports":   { "ge1": { "ifx": 1, "phyid": 101, "device": "eth0" } },
//     "log":     { "file": "/var/log/ko_lspan.log", "zlog_conf": "/etc/ko_platform/zlog.conf" },
//     "acls":    { "7": "tcp port 443" },
//     "forward": { "pref": 20, "saved_flags": "/run/ko_lspan_fwd/saved.json" },
//     "redundancy": { "lease_seconds": 3 }
//   }
//
// Every part may be left out. "store" may name "host" and "port" instead of "socket"; or, where Redis' sentinels watch
// over several servers, "sentinels": ["10.0.0.1:26379", ...] and what the "master" is called there, with
// "sentinel_user" and "sentinel_password" where they want a login.
#pragma once

#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace ko_platform {

inline constexpr const char *default_config_path = "/etc/ko_platform/platform.json";

inline constexpr size_t longest_socket_path = 107;  // bytes; the kernel takes no longer one

struct sentinel_address {
  std::string host;
  uint16_t port = 26379;
};

struct store_address {
  std::string socket = "/run/redis/redis-server.sock";  // Unix socket; empty: host and port are used
  std::string host;
  uint16_t port = 6379;
  std::string user;      // empty: the server's default user
  std::string password;  // empty: no login

  std::vector<sentinel_address> sentinels;  // when there are some, they know socket or host
  std::string master;                       // its name there
  std::string sentinel_user;                // the login there, as above
  std::string sentinel_password;
};

// One line for messages, without the password: the socket, host:port, or the master's name while nothing else is known.
std::string to_string(const store_address &address);

struct port {
  std::string name;
  uint32_t ifx;             // interface index, not 0
  uint32_t phyid;           // physical id
  std::string device = {};  // name of its network device; empty: that of the port
};

// Of the forwarding side.
struct forward_settings {
  uint16_t pref = 20;                                        // preference of its filters in the kernel, not 0
  std::string saved_flags = "/run/ko_lspan_fwd/saved.json";  // file of the port flags from before its changes
};

struct log_settings {
  std::string file;       // empty: standard error
  std::string zlog_conf;  // configuration of zlog, where that is the logging library; empty: its usual place
};

// Of several processes on one store, the one that holds a lease there is active.
struct redundancy_settings {
  uint16_t lease_seconds = 0;  // 0: a process is active from its start
};

struct config {
  std::string path = default_config_path;  // of the file, whether it exists or not
  store_address store;
  bool has_ports = false;   // false: interface indexes are physical ids
  std::vector<port> ports;  // in the order of their names
  log_settings log;
  std::map<uint32_t, std::string> acls;  // by acl_id: which frames, as an expression of pcap-filter(7)
  forward_settings forward;
  redundancy_settings redundancy;
};

// what() is one line: the file, line and column where the text is malformed, and the mistake.
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
