#include "session_file.h"

#include "errors.h"
#include "member_fields.h"
#include "membership.h"
#include "values.h"

namespace lspanctl {
namespace {

member parse_entry(const json &entry, const owner_choice &whose, const interfaces &ports) {
  member what = from_json(entry, whose.name(), ports);
  if (!whose.includes(what.key))
    throw usage_error("owner " + printable(what.key.owner) + " is another than " + printable(whose.name()) +
                      "; name it with --owner, or say --all-owners");
  return what;
}

// Calls `parse` for each element of the array `name`; the texts of its errors get the place in front.
template <class Parse>
void for_each_entry(const json &root, const std::string &file, const char *name, const Parse &parse) {
  for (size_t i = 0; i < root[name].size(); ++i) {
    try {
      parse(root[name][i], i);
    } catch (const std::runtime_error &error) {
      throw refused(file + ": " + name + "[" + std::to_string(i) + "]: " + error.what());
    }
  }
}

void parse_group(const json &entry, const interfaces &ports, std::map<uint32_t, uint32_t> &groups) {
  if (!entry.is_object() || entry.size() != 2 || !entry.contains("group") || !entry.contains("interfaces") ||
      !entry["interfaces"].is_array())
    throw usage_error("give an object with the keys \"group\", a number, and \"interfaces\", an array");
  const uint32_t group = parse_number(dump(entry["group"]), "group", 1);
  for (const json &name : entry["interfaces"]) {
    const uint32_t ifx = parse_group_interface(ports, name.is_string() ? name.get<std::string>() : dump(name), false);
    if (!groups.try_emplace(ifx, group).second)
      throw usage_error("interface " + ports.text(ifx) + ": stands in a group already; an interface is in one");
  }
}

void check_form(const json &root, const std::string &file) {
  const bool groups = root.is_object() && root.contains("groups");
  if (!root.is_object() || root.size() != (groups ? 2 : 1) || !root.contains("sessions") ||
      !root["sessions"].is_array() || (groups && !root["groups"].is_array()))
    throw refused(file +
                  ": give an object with the key \"sessions\", an array, and, if groups are meant too, the key "
                  "\"groups\", an array; session export shows the form");
}

}  // namespace

std::vector<argument> owner_arguments(owner_choice &whose) {
  return {{"--owner", &whose.owner, "NAME", "Only members of this owner (lspanctl)", "lspanctl"},
          {"--all-owners", &whose.all, "", "Members of every owner", ""}};
}

configuration load_configuration(context &ctx, store_client &store, const owner_choice &whose) {
  configuration all;
  for (member &what : load_members(ctx, store)) {
    if (whose.includes(what.key))
      all.members[what.key] = std::move(what);
    else
      all.others.push_back(std::move(what));
  }
  all.groups = load_memberships(ctx, store);
  return all;
}

configuration read_session_file(const std::string &path, const owner_choice &whose, const interfaces &ports) {
  const json root = read_json_file(path);
  const std::string file = name_of_file(path);
  check_form(root, file);
  configuration all;
  std::map<member_key, size_t> places;
  for_each_entry(root, file, "sessions", [&](const json &entry, size_t place) {
    member what = parse_entry(entry, whose, ports);
    const auto [first, fresh] = places.try_emplace(what.key, place);
    if (!fresh) throw usage_error("is the same member as sessions[" + std::to_string(first->second) + "]");
    all.members[what.key] = std::move(what);
  });
  if (!root.contains("groups")) return all;
  all.groups.emplace();
  for_each_entry(root, file, "groups", [&](const json &entry, size_t) { parse_group(entry, ports, *all.groups); });
  return all;
}

}  // namespace lspanctl
