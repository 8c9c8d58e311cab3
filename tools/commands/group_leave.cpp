// lspanctl group leave: interfaces go out of their group.
#include "commands.h"
#include "errors.h"
#include "membership.h"

namespace lspanctl {
namespace {

struct leave_options {
  std::vector<std::string> interfaces;
};

int leave(context &ctx, const leave_options &options) {
  const interfaces ports = ctx.ports();
  store_client store = ctx.connect();
  std::vector<ko_store::owned_change> changes;
  std::vector<uint32_t> groups;
  for (const std::string &name : options.interfaces) {
    changes.push_back(membership(parse_group_interface(ports, name, true), 0, ko_store::change_kind::del));
    const std::optional<uint32_t> group = group_now(store, changes.back());
    if (!group) throw refused("interface " + name + " is in no group; lspanctl group show lists them");
    groups.push_back(*group);
  }
  for (size_t i = 0; i < changes.size(); ++i) {
    store.write(changes[i]);
    ctx.report("left", options.interfaces[i] + " left group " + std::to_string(groups[i]),
               {{"interface", options.interfaces[i]}, {"group_before", groups[i]}});
  }
  return 0;
}

std::vector<argument> arguments(leave_options &options) {
  return {{"interfaces", &options.interfaces, "INTERFACE", "Interfaces, by number or name", "<interface>", true}};
}

}  // namespace

void add_group_leave(command &group, context &ctx) {
  add_command(group, ctx, "leave", "Take interfaces out of the group they are in", "  lspanctl group leave ge7", leave,
              arguments);
}

}  // namespace lspanctl
