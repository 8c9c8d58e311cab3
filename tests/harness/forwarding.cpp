#include "forwarding.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "store/layout.h"
#include "u_monitor.pb-c.h"

namespace harness {
namespace {

// The forwarding side names a group by its bare id.
member as_peer(member of) {
  if (of.module == U_MONITOR__MIRROR_MODULE__GROUP) of.d_ifx ^= group_target(0);
  return of;
}

}  // namespace

forwarding::forwarding(const std::string &more, const std::string &more_ports) {
  box.start_server();
  connect();
  std::string ports = R"("ge9":{"ifx":9,"phyid":109})" + more_ports;
  shell("ip link add sw type bridge mcast_snooping 0 && ip link set sw up");  // it sends no frames of its own then
  for (int i = 1; i <= 6; ++i) {
    const std::string name = "ge" + std::to_string(i);
    make_port(name);
    if (i < 6) shell("ip link set " + name + " master sw");
    ports += ",\"" + name + "\":{\"ifx\":" + std::to_string(i) + ",\"phyid\":" + std::to_string(100 + i) + "}";
  }
  await_carrier({"ge1", "ge2", "ge3", "ge4", "ge5", "ge6"});
  box.platform_file(R"({"store":{"socket":")" + box.socket() + R"("},"log":{"file":")" + box.folder() +
                    R"(/log"},"ports":{)" + ports + "}" + more + "}");
  box.start_daemon();
}

forwarding::~forwarding() {
  program.stop();
  shell("ip link del group 9 && ip link del sw");
}

void forwarding::start() { box.start(program, {KO_LSPAN_FWD_PROGRAM}); }

void forwarding::clear() {
  process once;
  box.start(once, {KO_LSPAN_FWD_PROGRAM, "--clear"});
  EXPECT_EQ(0, once.wait()) << read_file(box.folder() + "/stderr");
}

void forwarding::connect() {
  store_ = std::make_unique<client>(box.socket());
  others_ = std::make_unique<producer>(box.socket());
}

void forwarding::restart_store() {
  ask({"SAVE"});
  box.server().stop();
  box.start_server();
  connect();
}

void forwarding::feed(const record &what, bool is_set) {
  is_set ? others_->set(what) : others_->del(what);
  others_->flush();
}

// A session to a port without a device is refused; when its answer is there, all that was fed before is done.
bool forwarding::settle(const std::function<bool()> &gives_up) {
  const member mark{.session = next_mark_++, .s_ifx = 1, .d_ifx = 9, .mtp_switch = 1};
  bool given_up = false;
  const auto until = [&](const std::function<bool()> &condition) {
    return eventually([&] { return condition() || (given_up = gives_up && gives_up()); }, "the answer to a mark");
  };
  set(mark);
  until([&] { return code(mark) != no_answer; });
  del(mark);
  const record answer = result(mark);
  if (!given_up)
    until([&] { return ask({"SELECT", "8"}) == "OK" && ask({"HEXISTS", answer.type->name, answer.key}) == "0"; });
  ask({"SELECT", "4"});
  ask({"HDEL", answer.type->name, relayed(mark).key});
  return !given_up;
}

uint32_t forwarding::code(const member &of) {
  const record key = relayed(as_peer(of));
  ask({"SELECT", "4"});
  const std::string bytes = ask({"HGET", key.type->name, key.key});
  const ko_store::message_ptr message = bytes == "(nil)" ? nullptr : ko_store::unpack(*key.type, bytes);
  return message == nullptr ? no_answer : reinterpret_cast<UMonitor__MirrorResultInfo *>(message.get())->result;
}

void forwarding::expect_code(const member &of, uint32_t value) {
  if (!eventually([&] { return code(of) == value; }, "result " + std::to_string(value)))
    ADD_FAILURE() << "it is " << code(of);
}

std::string forwarding::kernel(bool with_qdiscs) const {
  // A filter is several lines; the first one of each place has no handle, and what the kernel numbers is left out.
  return shell(
      "for d in $(ip -o link show group 9 | sed 's/^[0-9]*: \\([^@]*\\)@.*/\\1/'); do for way in ingress egress; do "
      "tc filter show dev $d $way 2>/dev/null | tr -d '\\n' | sed 's/filter protocol/\\n&/g' | grep handle | "
      "sed \"s/ handle 0x[0-9a-f]* / /; s/index [0-9]* ref [0-9]* bind [0-9]*//g; s/^/$d $way /\"; done; done | sort\n"
      "bridge -o -d link show | sed 's/^[0-9]*: //' | sort\n" +
      std::string(with_qdiscs ? "tc qdisc show" : ""));
}

bool forwarding::rests() {
  const std::string statistics = "/proc/" + std::to_string(program.pid()) + "/schedstat";
  const std::string before = read_file(statistics);
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  return read_file(statistics) == before;
}

size_t forwarding::writes() {
  size_t count = 0;
  const std::string stats = ask({"INFO", "commandstats"});
  for (const char *command : {"cmdstat_hset:calls=", "cmdstat_hdel:calls=", "cmdstat_publish:calls="})
    if (const size_t at = stats.find(command); at != std::string::npos)
      count += std::stoul(stats.substr(at + std::string(command).size()));
  ask({"CONFIG", "RESETSTAT"});
  return count;
}

}  // namespace harness
