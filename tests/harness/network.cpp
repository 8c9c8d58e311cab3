#include "network.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/if_packet.h>
#include <linux/rtnetlink.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "namespaces.h"
#include "sandbox.h"

namespace harness {
namespace {

using namespace std::chrono_literals;
using clock = std::chrono::steady_clock;

constexpr std::string_view mark = "ft-frame";  // before the number, at the end of a frame
constexpr size_t block = 1 << 16;              // of a ring

std::runtime_error failed(const std::string &what) { return std::runtime_error(what + ": " + std::strerror(errno)); }

struct outcome {
  int status;
  std::string text;
};

outcome run(const std::string &command) {
  FILE *pipe = popen(("{ " + command + "\n} 2>&1").c_str(), "r");
  if (pipe == nullptr) throw failed(command);
  outcome out{0, {}};
  std::array<char, 4096> piece;
  for (size_t n; (n = fread(piece.data(), 1, piece.size(), pipe)) > 0;) out.text.append(piece.data(), n);
  out.status = pclose(pipe);
  return out;
}

// What has to work, and in which words its absence is told.
constexpr std::pair<const char *, const char *> needs[] = {
    {"ip link set lo up", "a network namespace"},
    {"ip link add ft-a type veth peer name ft-b && ip link set ft-a up && ip link set ft-b up", "veth devices"},
    {"ip link add ft-bridge type bridge && ip link set ft-a master ft-bridge", "a bridge"},
    {"tc qdisc add dev ft-a clsact", "the qdisc clsact"},
    {"tc filter add dev ft-a ingress pref 7 bpf bytecode '1,6 0 0 4294967295' action mirred egress mirror dev ft-b",
     "the filter bpf with the action mirred"},
    {"ip link del ft-a && ip link del ft-bridge", "the removal of devices"},
};

void put_back_tag(std::string &frame, uint16_t tpid, uint16_t tci) {
  const uint16_t tag[2] = {htons(tpid), htons(tci)};
  frame.insert(2 * ETH_ALEN, reinterpret_cast<const char *>(tag), sizeof tag);
}

uint32_t number_of(std::string_view frame) {
  uint32_t number = 0;
  std::memcpy(&number, frame.data() + frame.size() - sizeof number, sizeof number);
  return ntohl(number);
}

bool is_marked(std::string_view frame) {
  constexpr size_t tail = mark.size() + sizeof(uint32_t);
  return frame.size() > tail && frame.substr(frame.size() - tail, mark.size()) == mark;
}

std::string_view bytes_of(const tpacket2_hdr *header) {
  return {reinterpret_cast<const char *>(header) + header->tp_mac, header->tp_snaplen};
}

}  // namespace

std::string enter_network() {
  if (!enter_namespaces(CLONE_NEWNET)) return std::string("network namespaces: ") + std::strerror(errno);
  for (const char *which : {"all", "default"})  // no frames but ours
    write_file(std::string("/proc/sys/net/ipv6/conf/") + which + "/disable_ipv6", "1");
  for (const auto &[command, what] : needs)
    if (const outcome tried = run(command); tried.status != 0) return std::string(what) + ": " + tried.text;
  return {};
}

std::string shell(const std::string &command) {
  const outcome out = run(command);
  if (out.status != 0) ADD_FAILURE() << command << "\n" << out.text;
  return out.text;
}

void make_port(const std::string &name) {
  shell("ip link add " + name + " group 9 type veth peer name " + name + "-w && ip link set " + name +
        " up && ip link set " + name + "-w up");
}

void await_carrier(std::initializer_list<const char *> ports) {
  for (const std::string port : ports)
    eventually([&] { return shell("ip link show " + port).find("state UP") != std::string::npos; },
               "carrier at " + port);
}

// ---- frames ----

std::string frame(const shape &of, uint32_t number) {
  std::string out = "\xff\xff\xff\xff\xff\xff" + std::string("\x02\0\0\0\0\1", 6);
  const auto put = [&out](uint32_t value, int octets) {
    while (octets-- > 0) out.push_back(static_cast<char>(value >> (8 * octets)));
  };
  for (size_t i = 0; i < of.tags.size(); ++i) {
    put(i + 1 < of.tags.size() ? 0x88a8 : ETHERTYPE_VLAN, 2);
    put(of.tags[i], 2);
  }
  put(ETHERTYPE_IP, 2);
  const size_t header = out.size();
  put(0x45000000U + static_cast<uint32_t>(of.size - out.size()), 4);
  put(0, 4);
  put(0x40110000, 4);                      // UDP
  put(0xc0000201, 4), put(0xc0000202, 4);  // 192.0.2.1 to 192.0.2.2
  uint32_t sum = 0;                        // a bridge looks at it
  for (size_t i = header; i < out.size(); i += 2)
    sum += static_cast<uint8_t>(out[i]) << 8 | static_cast<uint8_t>(out[i + 1]);
  sum = ~(sum % 0xFFFF);
  out[header + 10] = static_cast<char>(sum >> 8), out[header + 11] = static_cast<char>(sum);
  put(1234, 2), put(of.udp_port, 2);
  put(static_cast<uint32_t>(of.size - out.size() + 4), 2), put(0, 2);
  while (out.size() < of.size - mark.size() - 4) out.push_back(static_cast<char>(out.size()));
  out += mark;
  put(number, 4);
  return out;
}

void renumber(std::string &frame, uint32_t number) {
  number = htonl(number);
  std::memcpy(frame.data() + frame.size() - sizeof number, &number, sizeof number);
}

tap::tap(const std::string &device, bool large, size_t held)
    : frame_size_(large ? 2048 : 256), frames_(large ? held / 8 : held) {
  socket_ = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);  // hears nothing yet
  if (socket_ < 0) throw failed("packet socket");
  const int version = TPACKET_V2, yes = 1;
  tpacket_req ring{};
  ring.tp_block_size = block;
  ring.tp_block_nr = static_cast<unsigned>(frames_ * frame_size_ / block);
  ring.tp_frame_size = static_cast<unsigned>(frame_size_);
  ring.tp_frame_nr = static_cast<unsigned>(frames_);
  sockaddr_ll to{};
  to.sll_family = AF_PACKET;
  to.sll_protocol = htons(ETH_P_ALL);
  to.sll_ifindex = static_cast<int>(if_nametoindex(device.c_str()));
  if (to.sll_ifindex == 0 || setsockopt(socket_, SOL_PACKET, PACKET_VERSION, &version, sizeof version) != 0 ||
      setsockopt(socket_, SOL_PACKET, PACKET_IGNORE_OUTGOING, &yes, sizeof yes) != 0 ||
      setsockopt(socket_, SOL_PACKET, PACKET_RX_RING, &ring, sizeof ring) != 0)
    throw failed("tap on " + device);
  void *at = mmap(nullptr, frames_ * frame_size_, PROT_READ | PROT_WRITE, MAP_SHARED, socket_, 0);
  if (at == MAP_FAILED || bind(socket_, reinterpret_cast<const sockaddr *>(&to), sizeof to) != 0)
    throw failed("tap on " + device);
  ring_ = static_cast<char *>(at);
}

tap::~tap() {
  munmap(ring_, frames_ * frame_size_);
  close(socket_);
}

void tap::send(const std::vector<std::string> &frames) const {
  std::vector<iovec> pieces;
  for (const std::string &each : frames) pieces.push_back({const_cast<char *>(each.data()), each.size()});
  std::vector<mmsghdr> messages(frames.size());
  for (size_t i = 0; i < frames.size(); ++i)
    messages[i].msg_hdr.msg_iov = &pieces[i], messages[i].msg_hdr.msg_iovlen = 1;
  for (size_t sent = 0; sent < frames.size();) {
    const int n = sendmmsg(socket_, &messages[sent], static_cast<unsigned>(frames.size() - sent), 0);
    if (n < 0 && errno != EAGAIN && errno != ENOBUFS && errno != EINTR) throw failed("frames");
    sent += static_cast<size_t>(std::max(n, 0));
  }
}

const tpacket2_hdr *tap::ready() {
  for (;; done()) {
    auto *header = reinterpret_cast<tpacket2_hdr *>(ring_ + at_ * frame_size_);
    if ((std::atomic_ref(header->tp_status).load(std::memory_order_acquire) & TP_STATUS_USER) == 0) return nullptr;
    if (is_marked(bytes_of(header))) return header;
  }
}

void tap::done() {
  auto *header = reinterpret_cast<tpacket2_hdr *>(ring_ + at_ * frame_size_);
  std::atomic_ref(header->tp_status).store(TP_STATUS_KERNEL, std::memory_order_release);
  at_ = (at_ + 1) % frames_;
}

bool tap::next(uint32_t &number) {
  const tpacket2_hdr *header = ready();
  if (header == nullptr) return false;
  number = number_of(bytes_of(header));
  done();
  return true;
}

bool tap::next(std::string &frame) {
  const tpacket2_hdr *header = ready();
  if (header == nullptr) return false;
  frame = bytes_of(header);
  if ((header->tp_status & TP_STATUS_VLAN_VALID) != 0) put_back_tag(frame, header->tp_vlan_tpid, header->tp_vlan_tci);
  done();
  return true;
}

std::vector<std::string> tap::received(size_t expected) {
  std::vector<std::string> all;
  std::string one;
  for (auto end = clock::now() + 1s; clock::now() < end;) {
    const size_t before = all.size();
    while (next(one)) all.push_back(one);
    if (all.size() >= expected && all.size() > before) end = std::min(end, clock::now() + 2ms);
    if (expected == 0) end = std::min(end, clock::now() + 2ms), expected = SIZE_MAX;
  }
  return all;
}

size_t tap::overrun() const {
  tpacket_stats stats{};
  socklen_t size = sizeof stats;
  getsockopt(socket_, SOL_PACKET, PACKET_STATISTICS, &stats, &size);
  return stats.tp_drops;
}

traffic::traffic(tap &from, tap &through, std::vector<tap *> watched, const shape &of)
    : from_(from), watched_(std::move(watched)) {
  watched_.push_back(&through);
  seen_.resize(watched_.size());
  thread_ = std::thread([this, of] { run(of); });
}

// Each burst waits until the one before has come out, so that no queue on the way overflows.
void traffic::run(const shape &of) {
  std::vector<std::string> frames(burst, frame(of));
  while (!ends_) {
    for (uint32_t i = 0; i < burst; ++i) renumber(frames[i], sent_ + i);
    from_.send(frames);
    sent_ += burst;
    for (const auto end = clock::now() + 20ms; arrived_ < sent_ && clock::now() < end;) drain();
  }
  for (auto end = clock::now() + 20ms; clock::now() < end;)
    if (drain() > 0) end = clock::now() + 20ms;
}

size_t traffic::drain() {
  size_t came = 0;
  for (size_t i = 0; i < watched_.size(); ++i) {
    uint32_t number = 0;
    for (; watched_[i]->next(number); ++came) {
      if (number >= seen_[i].size()) seen_[i].resize(2 * static_cast<size_t>(number) + 1);
      if (seen_[i][number] < UINT8_MAX) ++seen_[i][number];
      if (i + 1 == watched_.size()) ++arrived_;
    }
  }
  return came;
}

void traffic::stop() {
  ends_ = true;
  if (thread_.joinable()) thread_.join();
  for (const tap *each : watched_) EXPECT_EQ(0U, each->overrun()) << "frames were not looked at in time";
}

traffic::tally traffic::of(size_t which, uint32_t first, uint32_t end) const {
  tally out;
  for (uint32_t i = first; i < std::min<uint32_t>(end, sent_); ++i) {
    const uint8_t times = i < seen_[which].size() ? seen_[which][i] : 0;
    out.lost += times == 0;
    out.doubled += times > 1;
    out.copied += times > 0;
  }
  return out;
}

// ---- the kernel ----

listener::listener() : socket_(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC | SOCK_NONBLOCK)) {
  int buffer = 1 << 22;
  if (socket_ == nullptr || mnl_socket_bind(socket_, RTMGRP_LINK | RTMGRP_TC, MNL_SOCKET_AUTOPID) != 0)
    throw failed("rtnetlink listener");
  setsockopt(mnl_socket_get_fd(socket_), SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
}

listener::~listener() { mnl_socket_close(socket_); }

std::vector<std::string> listener::heard() {
  std::vector<std::string> all;
  std::array<char, 1 << 16> buffer;
  for (;;) {
    ssize_t n = mnl_socket_recvfrom(socket_, buffer.data(), buffer.size());
    if (n < 0 && errno == ENOBUFS) all.emplace_back("more than was held");
    if (n <= 0 && errno != ENOBUFS) return all;
    int left = static_cast<int>(n);
    for (auto *head = reinterpret_cast<const nlmsghdr *>(buffer.data()); mnl_nlmsg_ok(head, left);
         head = mnl_nlmsg_next(head, &left))
      all.push_back("message type " + std::to_string(head->nlmsg_type) + " from port " +
                    std::to_string(head->nlmsg_pid));
  }
}

namespace {

// Whether the call that the stopped process enters is one that others can notice.
bool at_point(pid_t victim) {
  __ptrace_syscall_info info{};
  if (ptrace(static_cast<__ptrace_request>(PTRACE_GET_SYSCALL_INFO), victim, sizeof info, &info) < 0 ||
      info.op != PTRACE_SYSCALL_INFO_ENTRY)
    return false;
  constexpr uint64_t points[] = {
      SYS_sendto,
      SYS_sendmsg,
#ifdef SYS_rename
      SYS_rename,
#endif
      SYS_renameat,
  };
  return std::find(std::begin(points), std::end(points), info.entry.nr) != std::end(points);
}

}  // namespace

assassin::assassin(pid_t victim, size_t point) : victim_(victim), thread_([this, point] { run(point); }) {
  while (!attached_) std::this_thread::yield();
}

void assassin::run(size_t point) {
  const pid_t victim = victim_;
  if (ptrace(PTRACE_SEIZE, victim, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL) != 0 ||
      ptrace(PTRACE_INTERRUPT, victim, nullptr, nullptr) != 0)
    ADD_FAILURE() << "cannot trace: " << std::strerror(errno);
  attached_ = true;
  for (;;) {
    siginfo_t info{};
    int status = 0;
    if (waitid(P_PID, static_cast<id_t>(victim), &info, WEXITED | WSTOPPED | WNOWAIT | __WALL) != 0) return;
    if (info.si_code != CLD_TRAPPED && info.si_code != CLD_STOPPED) return;  // it has ended; its parent waits for it
    waitpid(victim, &status, __WALL);
    if (ends_) continue;
    int signal = 0;
    if (WSTOPSIG(status) == (SIGTRAP | 0x80)) {
      if (at_point(victim) && ++points_ == point) {
        struck_ = true;
        kill(victim, SIGKILL);
        continue;
      }
    } else if (status >> 16 == 0) {
      signal = WSTOPSIG(status);
    }
    ptrace(PTRACE_SYSCALL, victim, nullptr, signal);
  }
}

void assassin::join() {
  if (!thread_.joinable()) return;
  ends_ = true;
  kill(victim_, SIGKILL);
  thread_.join();
}

}  // namespace harness
