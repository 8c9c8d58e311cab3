// lspanctl group join: interfaces come into a group.
#include "commands.h"
#include "membership.h"
#include "values.h"

namespace lspanctl {
namespace {

struct join_options {
  std::optional<std::string> group;
  std::vector<std::string> interfaces;
};

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
  std::vector<ko_store::owned_change> changes;
  for (const std::string &name : options.interfaces)
    changes.push_back(membership(parse_group_interface(ports, name, false), group, ko_store::change_kind::set));
  store_client store = ctx.connect();
  for (size_t i = 0; i < changes.size(); ++i) join_one(ctx, store, options.interfaces[i], group, changes[i]);
  return 0;
}

std::vector<argument> arguments(join_options &options) {
  return {{"group", &options.group, "GROUP", "The group's number, 1 or more", "<group>", true},
          {"interfaces", &options.interfaces, "INTERFACE", "Interfaces, by number or name", "<interface>", true}};
}

}  // namespace

void add_group_join(command &group, context &ctx) {
  add_command(group, ctx, "join", "Put interfaces into a group, out of the one they are in",
              "  lspanctl group join 2 ge7 ge8", join, arguments);
}

}  // namespace lspanctl
