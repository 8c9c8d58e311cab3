// lspanctl session export: the configuration as a file.
#include <ostream>

#include "commands.h"
#include "member_fields.h"
#include "session_file.h"

namespace lspanctl {
namespace {

// A line for each entry, so that versions of the file can be compared.
void print_array(std::ostream &out, const char *name, const std::vector<json> &entries) {
  out << "  \"" << name << "\": [";
  const char *gap = "\n    ";
  for (const json &entry : entries) {
    out << gap << dump(entry);
    gap = ",\n    ";
  }
  out << (entries.empty() ? "]" : "\n  ]");
}

std::vector<json> group_entries(const std::map<uint32_t, uint32_t> &groups, const interfaces &ports) {
  std::map<uint32_t, json> lists;
  for (const auto &[ifx, group] : groups)
    lists.try_emplace(group, json::array()).first->second.push_back(ports.text(ifx));
  std::vector<json> entries;
  entries.reserve(lists.size());
  for (const auto &[group, list] : lists) entries.push_back({{"group", group}, {"interfaces", list}});
  return entries;
}

int export_configuration(context &ctx, const owner_choice &whose) {
  const interfaces ports = ctx.ports();
  store_client store = ctx.connect();
  const configuration all = load_configuration(ctx, store, whose);
  std::vector<json> sessions;
  sessions.reserve(all.members.size());
  for (const auto &[key, what] : all.members) sessions.push_back(to_json(what, ports));
  ctx.out << "{\n";
  print_array(ctx.out, "groups", group_entries(*all.groups, ports));
  ctx.out << ",\n";
  print_array(ctx.out, "sessions", sessions);
  ctx.out << "\n}\n";
  return 0;
}

}  // namespace

void add_session_export(command &session, context &ctx) {
  add_command(session, ctx, "export", "Write members and groups as a file for session apply",
              "  lspanctl session export > sessions.json", export_configuration, owner_arguments);
}

}  // namespace lspanctl
