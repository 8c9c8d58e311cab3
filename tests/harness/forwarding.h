// A switch that forwards: the store, the daemon and ko_lspan_fwd, on ports in a network namespace.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "network.h"
#include "records.h"
#include "sandbox.h"

namespace harness {

// Ports ge1 to ge6 have the interface indexes 1 to 6 and the physical ids 101 to 106; ge1 to ge5 are in the bridge
// "sw". ge9 is in the platform file and has no device.
class forwarding {
 public:
  // Makes ports, store and daemon. `more`: members of the platform file, such as "acls"; `more_ports` of its "ports".
  explicit forwarding(const std::string &more = {}, const std::string &more_ports = {});
  forwarding(const forwarding &) = delete;
  forwarding &operator=(const forwarding &) = delete;
  ~forwarding();

  void start();          // the program
  void clear();          // runs it with --clear
  void restart_store();  // kills it and starts it with what it held
  void set(const member &what) { feed(session(what), true); }
  void del(const member &what) { feed(session(what), false); }
  void join(uint32_t ifx, uint32_t group) { feed(membership(ifx, group), true); }
  void leave(uint32_t ifx) { feed(membership(ifx, 0), false); }
  void feed(const record &what, bool is_set);
  // Until everything that was fed has been acted on and answered; false when `gives_up` says so before.
  bool settle(const std::function<bool()> &gives_up = {});

  static constexpr uint32_t no_answer = 0xFFFFFFFF;
  uint32_t code(const member &of);                     // the result that CONF_DB has of the member
  void expect_code(const member &of, uint32_t value);  // it comes soon
  // Filters of all ports and bridge flags, without what differs each time; with_qdiscs: queueing disciplines, too.
  std::string kernel(bool with_qdiscs = false) const;
  size_t writes();  // changes that the store was asked for since the last call
  bool rests();     // the program has done nothing for a while

  std::string ask(const std::vector<std::string> &words) { return store_->run(words); }  // a command to the store

  sandbox box;
  process program;

 private:
  void connect();

  std::unique_ptr<client> store_;
  std::unique_ptr<producer> others_;
  uint32_t next_mark_ = 0xF0000000;
};

}  // namespace harness
