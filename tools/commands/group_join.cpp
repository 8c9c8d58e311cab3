// lspanctl group join: interfaces come into a group.
#include "commands.h"
#include "errors.h"
#include "membership.h"
#include "objections.h"
#include "values.h"

namespace lspanctl {
namespace {

struct join_options {
  std::optional<std::string> group;
  std::vector<std::string> interfaces;
  bool force = false;
};

// Copies to the group must not come back to their source when the interfaces are in it.
void refuse_loops(context &ctx, store_client &store, uint32_t group, const std::vector<uint32_t> &joining) {
  const std::vector<member> members = load_members(ctx, store);
  std::map<uint32_t, uint32_t> groups = load_memberships(ctx, store);
  for (const uint32_t ifx : joining) groups[ifx] = group;
  const interfaces ports = ctx.ports();
  const objections raised(members, groups, ports);
  for (const member &what : members) {
    if (!what.targets_group() || group_id_of(what.key.d_ifx) != group) continue;
    if (const std::string why = raised.to_path_of(what); !why.empty())
      throw refused(to_text(what, ports) + " would not work: " + why + ", or --force it");
  }
}

void join_one(context &ctx, store_client &store, const std::string &name, uint32_t group,
              const ko_store::owned_change &change) {
  const uint32_t before = group_now(store, change).value_or(0);
  const std::string to = "group " + std::to_string(group);
  const json details = {{"interface", name}, {"group", group}, {"group_before", before}};
  if (before == group) {
    ctx.report("unchanged", name + " is in " + to + " already", details);
    return;
  }
  store.write(change);
  if (before == 0)
    ctx.report("joined", name + " joined " + to, details);
  else
    ctx.report("moved", name + " moved from group " + std::to_string(before) + " to " + to, details);
}

int join(context &ctx, const join_options &options) {
  const interfaces ports = ctx.ports();
  const uint32_t group = parse_number(*options.group, "group", 1);
  std::vector<uint32_t> joining;
  joining.reserve(options.interfaces.size());
  for (const std::string &name : options.interfaces) joining.push_back(parse_group_interface(ports, name, false));
  store_client store = ctx.connect();
  if (!options.force) refuse_loops(ctx, store, group, joining);
  for (size_t i = 0; i < joining.size(); ++i)
    join_one(ctx, store, options.interfaces[i], group, membership(joining[i], group, ko_store::change_kind::set));
  return 0;
}

std::vector<argument> arguments(join_options &options) {
  return {{"group", &options.group, "GROUP", "The group's number, 1 or more", "<group>", true},
          {"interfaces", &options.interfaces, "INTERFACE", "Interfaces, by number or name", "<interface>", true},
          {"--force", &options.force, "", "Also the source of a session whose target the group is", ""}};
}

}  // namespace

void add_group_join(command &group, context &ctx) {
  add_command(group, ctx, "join", "Put interfaces into a group, out of the one they are in",
              "  lspanctl group join 2 ge7 ge8", join, arguments);
}

}  // namespace lspanctl
