// lspanctl group join, leave, show: which interfaces are in which outflow group.
#include <map>
#include <memory>
#include <ostream>
#include <set>

#include "commands.h"
#include "member.h"
#include "p_policy.pb-c.h"
#include "proc/ko_span_public.h"
#include "records.h"
#include "text.h"

namespace lspanctl {
namespace {

const ProtobufCMessageDescriptor &membership_type = p_policy__data_intf_conf__descriptor;

change membership(uint32_t ifx, uint32_t group, ko_store::change_kind kind) {
  PIntf__Intfindex index = P_INTF__INTFINDEX__INIT;
  index.index = ifx;
  PPolicy__DataIntfConf record = P_POLICY__DATA_INTF_CONF__INIT;
  record.index = &index;
  record.group_id = group;
  return make_change(CONF_DB, kind, record.base);
}

// The group that the interface of `what` is in now, 0 for none.
uint32_t group_now(store_client &store, const change &what) {
  const std::optional<std::string> bytes = store.read(what.hash.db, what.hash.type->name, what.key);
  if (!bytes) return 0;
  const ko_store::message_ptr record = ko_store::unpack(membership_type, *bytes);
  return record == nullptr ? 0 : reinterpret_cast<const PPolicy__DataIntfConf *>(record.get())->group_id;
}

uint32_t parse_member_interface(const interfaces &ports, const std::string &text, bool any_number) {
  const uint32_t ifx = ports.parse(text, any_number);
  if (ifx == 0) throw usage_error("interface " + text + ": give one that exists");
  return ifx;
}

int join(context &ctx, const std::string &group_given, const std::vector<std::string> &names) {
  const interfaces ports = ctx.ports();
  const uint32_t group = parse_number(group_given, "group", 1);
  std::vector<change> changes;
  changes.reserve(names.size());
  for (const std::string &name : names)
    changes.push_back(membership(parse_member_interface(ports, name, false), group, ko_store::change_kind::set));
  store_client store = ctx.connect();
  for (size_t i = 0; i < changes.size(); ++i) {
    const uint32_t before = group_now(store, changes[i]);
    const std::string to = "group " + std::to_string(group);
    const json details = {{"interface", names[i]}, {"group", group}, {"group_before", before}};
    if (before == group) {
      report(ctx, "unchanged", names[i] + " is in " + to + " already", details);
      continue;
    }
    store.write(changes[i]);
    if (before == 0)
      report(ctx, "joined", names[i] + " joined " + to, details);
    else
      report(ctx, "moved", names[i] + " moved from group " + std::to_string(before) + " to " + to, details);
  }
  return 0;
}

int leave(context &ctx, const std::vector<std::string> &names) {
  const interfaces ports = ctx.ports();
  std::vector<change> changes;
  store_client store = ctx.connect();
  std::vector<uint32_t> groups;
  for (const std::string &name : names) {
    changes.push_back(membership(parse_member_interface(ports, name, true), 0, ko_store::change_kind::del));
    if (!store.read(changes.back().hash.db, membership_type.name, changes.back().key))
      throw refused("interface " + name + " is in no group; lspanctl group show lists them");
    groups.push_back(group_now(store, changes.back()));
  }
  for (size_t i = 0; i < changes.size(); ++i) {
    store.write(changes[i]);
    report(ctx, "left", names[i] + " left group " + std::to_string(groups[i]),
           {{"interface", names[i]}, {"group_before", groups[i]}});
  }
  return 0;
}

struct group_state {
  std::vector<uint32_t> members;
  std::set<uint32_t> sessions;  // that target it
};

std::map<uint32_t, group_state> load_groups(context &ctx, size_t &bad) {
  std::map<uint32_t, group_state> groups;
  store_client store = ctx.connect();
  for (const loaded_record &record : load_records(ctx, store, CONF_DB, membership_type, bad)) {
    const auto &membership = *reinterpret_cast<const PPolicy__DataIntfConf *>(record.message.get());
    if (membership.group_id != 0) groups[membership.group_id].members.push_back(membership.index->index);
  }
  for (const loaded_record &record : load_records(ctx, store, CONF_DB, u_monitor__mirror_lspan_info__descriptor, bad)) {
    const member what = from_record(*reinterpret_cast<const UMonitor__MirrorLspanInfo *>(record.message.get()));
    if (what.targets_group()) groups[ko_span_group_id(what.key.d_ifx)].sessions.insert(what.key.session);
  }
  return groups;
}

template <class Items, class Text>
std::string joined(const Items &items, const Text &text) {
  std::string line;
  for (const auto &item : items) line += (line.empty() ? "" : ", ") + text(item);
  return line.empty() ? "-" : line;
}

int show(context &ctx, const std::string &group_given) {
  const interfaces ports = ctx.ports();
  const uint32_t only = group_given.empty() ? 0 : parse_number(group_given, "group", 1);
  size_t bad = 0;
  json list = json::array();
  table rows({"GROUP", "INTERFACES", "TARGET OF SESSION"});
  std::map<uint32_t, group_state> groups = load_groups(ctx, bad);
  if (only != 0) std::erase_if(groups, [only](const auto &group) { return group.first != only; });
  for (const auto &[id, state] : groups) {
    const auto name = [&ports](uint32_t ifx) { return ports.text(ifx); };
    rows.add({std::to_string(id), joined(state.members, name),
              joined(state.sessions, [](uint32_t session) { return std::to_string(session); })});
    json entry = {{"group", id}, {"interfaces", json::array()}, {"sessions", state.sessions}};
    for (const uint32_t ifx : state.members) entry["interfaces"].push_back(name(ifx));
    list.push_back(entry);
  }
  if (ctx.json)
    ctx.out << dump(list, 2) << '\n';
  else if (groups.empty())
    ctx.out << "no groups\n";
  else
    rows.print(ctx.out);
  return bad == 0 ? 0 : 1;
}

struct group_options {
  std::string group;
  std::vector<std::string> interfaces;
};

}  // namespace

void add_group_commands(CLI::App &root, context &ctx) {
  CLI::App *parent = root.add_subcommand("group", "Outflow groups, which sessions can have as target group:ID");
  auto options = std::make_shared<group_options>();

  CLI::App *command = add_command(*parent, "join", "Put interfaces into a group, out of the one they are in",
                                  "  lspanctl group join 2 ge7 ge8");
  command->add_option("group", options->group, "The group's number, 1 or more")->type_name("GROUP")->required();
  command->add_option("interfaces", options->interfaces, "Interfaces, by number or name")
      ->required()
      ->type_name("INTERFACE");
  command->callback(
      [&ctx, options] { ctx.action = [&ctx, options] { return join(ctx, options->group, options->interfaces); }; });

  command = add_command(*parent, "leave", "Take interfaces out of the group they are in", "  lspanctl group leave ge7");
  command->add_option("interfaces", options->interfaces, "Interfaces, by number or name")
      ->required()
      ->type_name("INTERFACE");
  command->callback([&ctx, options] { ctx.action = [&ctx, options] { return leave(ctx, options->interfaces); }; });

  command = add_command(*parent, "show", "Show groups, their interfaces and the sessions that target them",
                        "  lspanctl group show\n  lspanctl group show 2 --json");
  command->add_option("group", options->group, "Only this group")->type_name("GROUP");
  command->callback([&ctx, options] { ctx.action = [&ctx, options] { return show(ctx, options->group); }; });
}

}  // namespace lspanctl
