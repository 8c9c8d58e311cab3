// lspanctl top: the rates of copies, again and again.
#include <cmath>
#include <ostream>

#include "clock_text.h"
#include "commands.h"
#include "counters.h"
#include "stop_signals.h"
#include "values.h"

namespace lspanctl {
namespace {

using clock = std::chrono::steady_clock;

struct top_options {
  std::optional<std::string> interval, count;
};

// The counts of the forwarding side for each member at one time.
struct sample {
  clock::time_point at;
  std::map<member_key, traffic> of;
};

struct rate {
  const member *what;
  traffic total;
  double packets = 0, bytes = 0;  // a second
};

sample take_sample(context &ctx, const std::vector<member> &members, const interfaces &ports) {
  const counters now(ctx);
  sample taken{clock::now(), {}};
  for (const member &what : members)
    if (const auto count = now.of(what, ports)) taken.of[what.key] = *count;
  return taken;
}

// A count that has become smaller has begun anew.
double per_second(uint64_t before, uint64_t now, std::chrono::duration<double> time) {
  return now < before || time.count() <= 0 ? 0 : static_cast<double>(now - before) / time.count();
}

std::vector<rate> rates_of(const std::vector<member> &members, const sample &before, const sample &now) {
  std::vector<rate> rates;
  for (const member &what : members) {
    const auto found = now.of.find(what.key);
    if (found == now.of.end()) continue;
    const auto old = before.of.find(what.key);
    const traffic then = old == before.of.end() ? found->second : old->second;
    const auto time = now.at - before.at;
    rates.push_back({&what, found->second, per_second(then.packets, found->second.packets, time),
                     per_second(then.bytes, found->second.bytes, time)});
  }
  return rates;
}

std::string rounded(double value) { return std::to_string(std::llround(value)); }

void show(context &ctx, const std::vector<rate> &rates, const interfaces &ports) {
  table rows({"SESSION", "SOURCE", "TARGET", "DIRECTION", "ACL", "PACKETS/S", "BYTES/S", "PACKETS", "BYTES"});
  for (const rate &each : rates) {
    const member_key &key = each.what->key;
    rows.add({std::to_string(key.session), ports.text(key.s_ifx),
              ports.target_text(key.d_ifx, each.what->targets_group()), direction_text(key.dir),
              key.acl_id == 0 ? "-" : std::to_string(key.acl_id), rounded(each.packets), rounded(each.bytes),
              std::to_string(each.total.packets), std::to_string(each.total.bytes)});
    if (ctx.json_output)
      ctx.line("", {{"time", now_text(true)},
                    {"session", key.session},
                    {"source", ports.text(key.s_ifx)},
                    {"target", ports.target_text(key.d_ifx, each.what->targets_group())},
                    {"direction", direction_text(key.dir)},
                    {"acl", key.acl_id},
                    {"packets_per_second", each.packets},
                    {"bytes_per_second", each.bytes},
                    {"packets", each.total.packets},
                    {"bytes", each.total.bytes}});
  }
  if (ctx.json_output) return;
  if (ctx.out_on_terminal) ctx.out << "\033[H\033[J";
  ctx.out << now_text(false) << '\n';
  rows.print(ctx.out);
  ctx.out << std::flush;
}

int top(context &ctx, const top_options &options) {
  const auto interval = std::chrono::seconds(parse_number(options.interval.value_or("1"), "--interval", 1, 3600));
  const uint32_t count = options.count ? parse_number(*options.count, "--count", 1) : 0;
  const interfaces ports = ctx.ports();
  const stop_signals signals;
  store_client store = ctx.connect();
  sample before = take_sample(ctx, load_members(ctx, store), ports);
  for (uint32_t shown = 0; (count == 0 || shown < count) && ctx.out; ++shown) {
    signals.wait(interval);
    if (signals.requested()) break;
    const std::vector<member> members = load_members(ctx, store);
    sample now = take_sample(ctx, members, ports);
    show(ctx, rates_of(members, before, now), ports);
    before = std::move(now);
  }
  return 0;
}

std::vector<argument> arguments(top_options &options) {
  return {{"--interval", &options.interval, "SECONDS", "Time between two counts (1)", ""},
          {"--count", &options.count, "N", "End after so many (never)", ""}};
}

}  // namespace

void add_top(command &root, context &ctx) {
  add_command(root, ctx, "top", "Show how much is copied for each member, again and again, until Ctrl-C",
              "  lspanctl top\n  lspanctl top --interval 10 --json", top, arguments);
}

}  // namespace lspanctl
