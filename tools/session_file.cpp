#include "session_file.h"

#include "errors.h"
#include "member_fields.h"

namespace lspanctl {
namespace {

member parse_entry(const json &entry, const owner_choice &whose, const interfaces &ports) {
  member what = from_json(entry, whose.name(), ports);
  if (!whose.includes(what.key))
    throw usage_error("owner " + printable(what.key.owner) + " is another than " + printable(whose.name()) +
                      "; name it with --owner, or say --all-owners");
  return what;
}

}  // namespace

std::vector<argument> owner_arguments(owner_choice &whose) {
  return {{"--owner", &whose.owner, "NAME", "Only members of this owner (lspanctl)", "lspanctl"},
          {"--all-owners", &whose.all, "", "Members of every owner", ""}};
}

member_map load_members_of(context &ctx, store_client &store, const owner_choice &whose, size_t &others) {
  member_map members;
  for (member &what : load_members(ctx, store)) {
    if (!whose.includes(what.key))
      ++others;
    else
      members[what.key] = std::move(what);
  }
  return members;
}

member_map read_session_file(const std::string &path, const owner_choice &whose, const interfaces &ports) {
  const json root = read_json_file(path);
  if (!root.is_object() || root.size() != 1 || !root.contains("sessions") || !root["sessions"].is_array())
    throw refused(name_of_file(path) +
                  ": give an object with the one key \"sessions\", an array; session export shows the form");
  member_map members;
  std::map<member_key, size_t> place;
  for (size_t i = 0; i < root["sessions"].size(); ++i) {
    try {
      member what = parse_entry(root["sessions"][i], whose, ports);
      const auto [first, fresh] = place.try_emplace(what.key, i);
      if (!fresh) throw usage_error("is the same member as sessions[" + std::to_string(first->second) + "]");
      members[what.key] = std::move(what);
    } catch (const std::runtime_error &error) {
      throw refused(name_of_file(path) + ": sessions[" + std::to_string(i) + "]: " + error.what());
    }
  }
  return members;
}

}  // namespace lspanctl
