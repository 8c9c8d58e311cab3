// lspanctl group show: groups, their interfaces, and the sessions that target them.
#include <set>

#include "commands.h"
#include "member.h"
#include "membership.h"
#include "values.h"

namespace lspanctl {
namespace {

struct show_options {
  std::optional<std::string> group;
};

struct group_state {
  std::vector<uint32_t> interfaces;
  std::set<uint32_t> sessions;  // that target it
};

std::map<uint32_t, group_state> load_groups(context &ctx) {
  std::map<uint32_t, group_state> groups;
  store_client store = ctx.connect();
  for (const auto &[ifx, group] : load_memberships(ctx, store)) groups[group].interfaces.push_back(ifx);
  for (const member &what : load_members(ctx, store))
    if (what.targets_group()) groups[group_id_of(what.key.d_ifx)].sessions.insert(what.key.session);
  return groups;
}

template <class Items, class Text>
std::string joined(const Items &items, const Text &text) {
  std::string line;
  for (const auto &item : items) line += (line.empty() ? "" : ", ") + text(item);
  return line.empty() ? "-" : line;
}

int show(context &ctx, const show_options &options) {
  const interfaces ports = ctx.ports();
  const uint32_t only = options.group ? parse_number(*options.group, "group", 1) : 0;
  const auto name = [&ports](uint32_t ifx) { return ports.text(ifx); };
  json list = json::array();
  table rows({"GROUP", "INTERFACES", "TARGET OF SESSION"});
  for (const auto &[id, state] : load_groups(ctx)) {
    if (only != 0 && id != only) continue;
    rows.add({std::to_string(id), joined(state.interfaces, name),
              joined(state.sessions, [](uint32_t session) { return std::to_string(session); })});
    json entry = {{"group", id}, {"interfaces", json::array()}, {"sessions", state.sessions}};
    for (const uint32_t ifx : state.interfaces) entry["interfaces"].push_back(name(ifx));
    list.push_back(entry);
  }
  ctx.list(rows, list,
           only == 0 ? "no groups" : "group " + std::to_string(only) + " has no interfaces, and no session targets it");
  return 0;
}

std::vector<argument> arguments(show_options &options) {
  return {{"group", &options.group, "GROUP", "Only this group", "<group>"}};
}

}  // namespace

void add_group_show(command &group, context &ctx) {
  add_command(group, ctx, "show", "Show groups, their interfaces and the sessions that target them",
              "  lspanctl group show\n  lspanctl group show 2 --json", show, arguments);
}

}  // namespace lspanctl
