// Ports in a network namespace of the test's own, frames that are sent and received on them, and what the kernel says.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <ostream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

struct mnl_socket;
struct tpacket2_hdr;

namespace harness {

// Moves this process into network and mount namespaces of its own, for an ordinary user into a user namespace too, and
// tries what a mirror needs there. Gives what is missing; empty: nothing. Call it before there are threads.
std::string enter_network();

// Runs a shell command and gives what it prints; the test fails when the command does.
std::string shell(const std::string &command);
// Port NAME and the other end of its cable, NAME-w; both are up. `ip link del group 9` takes all ports away.
void make_port(const std::string &name);
// A port that was just set up loses what it is to send until the kernel has noticed its carrier, up to a second later.
void await_carrier(std::initializer_list<const char *> ports);

// ---- frames ----

struct shape {
  std::vector<uint16_t> tags = {};  // VLAN ids, the outermost first; of two, the first is a service tag
  uint16_t udp_port = 4000;         // where the datagram inside goes
  size_t size = 64;
};
// A broadcast frame that ends with its number.
std::string frame(const shape &of, uint32_t number = 0);
void renumber(std::string &frame, uint32_t number);

// A device, as a sender and a receiver of such frames. All others are passed over.
class tap {
 public:
  // Holds up to `held` frames of up to 180 bytes, an eighth as many when they are `large`, up to 1,900 bytes.
  explicit tap(const std::string &device, bool large = false, size_t held = 65536);
  tap(const tap &) = delete;
  tap &operator=(const tap &) = delete;
  ~tap();

  void send(const std::vector<std::string> &frames) const;
  bool next(uint32_t &number);  // of the next frame that came; false: none
  bool next(std::string &frame);
  // Waits for so many frames, then shortly for more, and gives what came.
  std::vector<std::string> received(size_t expected);
  size_t overrun() const;  // frames that came and were not held

 private:
  const tpacket2_hdr *ready();
  void done();

  int socket_ = -1;
  char *ring_ = nullptr;
  size_t frame_size_, frames_, at_ = 0;
};

// Frames with the numbers from 0 on, sent at full speed by a thread of its own.
class traffic {
 public:
  // From `from`, to come out at `through`; copies come to the `watched`.
  traffic(tap &from, tap &through, std::vector<tap *> watched, const shape &of = {});
  traffic(const traffic &) = delete;
  traffic &operator=(const traffic &) = delete;
  ~traffic() { stop(); }

  static constexpr uint32_t burst = 64;  // frames that are sent in one call

  void stop();                             // and waits for the last copies
  uint32_t sent() const { return sent_; }  // of the next burst, some may be on their way already

  struct tally {
    size_t lost = 0, doubled = 0, copied = 0;
    bool operator==(const tally &) const = default;
    friend std::ostream &operator<<(std::ostream &out, const tally &t) {
      return out << t.lost << " lost, " << t.doubled << " doubled, " << t.copied << " copied";
    }
  };
  // Of the frames `first` to `end`, how many were never, more than once and at least once seen at watched `which`.
  tally of(size_t which, uint32_t first = 0, uint32_t end = UINT32_MAX) const;
  tally through() const { return of(watched_.size() - 1); }
  tally every_one() const { return {0, 0, sent_}; }

 private:
  void run(const shape &of);
  size_t drain();

  tap &from_;
  std::vector<tap *> watched_;  // the last is where the frames themselves come out
  std::vector<std::vector<uint8_t>> seen_;
  std::atomic<uint32_t> sent_{0};
  size_t arrived_ = 0;
  std::atomic<bool> ends_{false};
  std::thread thread_;
};

// ---- the kernel ----

// What the kernel announces of links, queueing disciplines and filters.
class listener {
 public:
  listener();
  listener(const listener &) = delete;
  listener &operator=(const listener &) = delete;
  ~listener();
  std::vector<std::string> heard();  // since the last call

 private:
  mnl_socket *socket_;
};

// Kills a process right before its `point`-th call that sends or renames; 0: only counts. From construction to join
// nobody else may wait for the process.
class assassin {
 public:
  assassin(pid_t victim, size_t point);
  ~assassin() { join(); }
  void join();  // kills it if it still runs
  bool struck() const { return struck_; }
  size_t points() const { return points_; }

 private:
  void run(size_t point);

  const pid_t victim_;
  std::atomic<bool> struck_{false}, attached_{false}, ends_{false};
  std::atomic<size_t> points_{0};
  std::thread thread_;
};

}  // namespace harness
