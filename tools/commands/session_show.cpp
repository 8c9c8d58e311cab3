// lspanctl session show: the members of sessions, and how far each has come.
#include "commands.h"
#include "counters.h"
#include "member_fields.h"
#include "member_state.h"
#include "record_json.h"
#include "values.h"

namespace lspanctl {
namespace {

struct show_options {
  std::optional<std::string> session;
  bool counters = false;
};

std::vector<std::string> row_of(const member &what, const member_state &state, const interfaces &ports) {
  const std::string vlans = vlans_text(what.vlan_map.data(), what.vlan_map.size());
  return {std::to_string(what.key.session),
          ports.text(what.key.s_ifx),
          ports.target_text(what.key.d_ifx, what.targets_group()),
          direction_text(what.key.dir),
          what.key.acl_id == 0 ? "-" : std::to_string(what.key.acl_id),
          vlans.empty() ? "-" : vlans,
          what.sample_rate == 0 ? "-" : std::to_string(what.sample_rate),
          learning_text(what.mtp_switch),
          enum_text(u_monitor__mirror_type__descriptor, what.apply_type),
          printable(what.key.owner),
          to_text(state)};
}

json entry_of(const member &what, const member_state &state, const interfaces &ports) {
  json entry = to_json(what, ports);
  entry.update(
      {{"state", state.state}, {"reason", state.reason}, {"result", state.result ? json(*state.result) : json()}});
  return entry;
}

// Before the state, which is the longest.
void add_counts(const std::optional<traffic> &count, json &entry, std::vector<std::string> &row) {
  entry["packets"] = count ? json(count->packets) : json();
  entry["bytes"] = count ? json(count->bytes) : json();
  row.insert(row.end() - 1, {count ? std::to_string(count->packets) : "-", count ? std::to_string(count->bytes) : "-"});
}

// Whether a record that cannot be used is, as far as its key tells, a member of the session.
bool is_of_session(const ko_store::owned_change &record, uint32_t session) {
  if (record.hash != session_members) return false;
  const ko_store::message_ptr message = record_of_key(*record.hash.type, record.key);
  const auto *what = reinterpret_cast<const UMonitor__MirrorLspanInfo *>(message.get());
  return what != nullptr && what->index->session_num == session;
}

int show_members(context &ctx, const show_options &options) {
  const interfaces ports = ctx.ports();
  const bool all = !options.session;
  const uint32_t only = all ? 0 : parse_number(*options.session, "session");
  const wanted_state state = load_wanted(ctx);
  if (!all) std::erase_if(ctx.unusable, [only](const auto &record) { return !is_of_session(record, only); });
  json list = json::array();
  const std::optional<counters> counted = options.counters ? std::optional<counters>(ctx) : std::nullopt;
  std::vector<std::string> heading = {"SESSION", "SOURCE",   "TARGET", "DIRECTION", "ACL",  "VLANS",
                                      "RATE",    "LEARNING", "TYPE",   "OWNER",     "STATE"};
  if (counted) heading.insert(heading.end() - 1, {"PACKETS", "BYTES"});
  table rows(heading);
  for (const member_outcome &outcome : state.members) {
    if (!all && outcome.what.key.session != only) continue;
    const member_state now = state_of(state, outcome, ports);
    list.push_back(entry_of(outcome.what, now, ports));
    std::vector<std::string> row = row_of(outcome.what, now, ports);
    if (counted) add_counts(counted->of(outcome.what, ports), list.back(), row);
    rows.add(row);
  }
  ctx.list(rows, list, all ? "no session members" : "session " + std::to_string(only) + " has no members");
  return 0;
}

std::vector<argument> arguments(show_options &options) {
  return {{"session", &options.session, "SESSION", "Only this session", "<session>"},
          {"--counters", &options.counters, "", "With what the forwarding side has copied", ""}};
}

}  // namespace

void add_session_show(command &session, context &ctx) {
  add_command(session, ctx, "show", "Show the members of all sessions, or of one",
              "  lspanctl session show\n"
              "  lspanctl session show 3 --json\n"
              "  lspanctl session show --counters",
              show_members, arguments);
}

}  // namespace lspanctl
