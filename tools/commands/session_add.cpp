// lspanctl session add: members more, or other contents for those that are there.
#include <algorithm>

#include "await.h"
#include "commands.h"
#include "exit_status.h"
#include "member_changes.h"
#include "member_fields.h"
#include "objections.h"
#include "request.h"

namespace lspanctl {
namespace {

struct add_options {
  member_texts texts;
  std::vector<std::string> sources;
  bool may_exist = false;
  bool force = false;
  std::optional<std::string> wait;
};

// A list, unless it is the name of a port.
void append_names(const interfaces &ports, const std::string &given, std::vector<std::string> &names) {
  for (size_t start = 0; start <= given.size();) {
    const size_t end = ports.knows(given) ? given.size() : std::min(given.find(',', start), given.size());
    names.push_back(given.substr(start, end - start));
    start = end + 1;
  }
}

// One member for each source, or one without.
std::vector<member> members_from(const add_options &options, const interfaces &ports) {
  std::vector<std::string> names;
  for (const std::string &given : options.sources) append_names(ports, given, names);
  member_texts texts = options.texts;
  if (names.empty()) return {member_from(texts, ports)};
  std::vector<member> members;
  for (const std::string &name : names) {
    text_in(texts, "source") = name;
    members.push_back(member_from(texts, ports));
  }
  return members;
}

int add_members(context &ctx, const add_options &options) {
  const interfaces ports = ctx.ports();
  const std::vector<member> wanted = members_from(options, ports);
  store_client store = ctx.connect();
  const std::vector<member> stored = load_members(ctx, store);
  if (!options.force) refuse_objectionable(ctx, store, stored, wanted);
  std::vector<transaction> writes;
  std::vector<const member *> written;
  for (const member &what : wanted) {
    const member *before = find_member(stored, what.key);
    if (before != nullptr && options.may_exist) {
      ctx.report("unchanged", to_text(what, ports) + " is there already", {{"member", to_json(*before, ports)}});
      continue;
    }
    writes.push_back(set_member(store, before, what));
    written.push_back(&what);
  }
  const std::string note = options.wait ? "" : away_note(store);
  store.write_all(writes, [&](size_t i) {
    const member &what = *written[i];
    const std::string done = find_member(stored, what.key) == nullptr ? "added" : "replaced";
    ctx.report(done, done + " " + to_text(what, ports) + note, {{"member", to_json(what, ports)}});
  });
  return options.wait ? await(ctx, *options.wait, wanted) : exit_done;
}

std::vector<argument> arguments(add_options &options) {
  std::vector<argument> all = member_arguments(options.texts, false);
  argument &source = *std::find_if(all.begin(), all.end(), [](const argument &arg) { return arg.name == "--source"; });
  source.to = &options.sources;
  source.help = "Mirrored interface, by number or name; more than one: a member each (none)";
  all.push_back({"--may-exist", &options.may_exist, "", "Leave a member that is there as it is", ""});
  all.push_back({"--force", &options.force, "", "Also what the daemon would not act on as it says", ""});
  all.push_back(wait_argument(options.wait));
  return all;
}

}  // namespace

void add_session_add(command &session, context &ctx) {
  add_command(session, ctx, "add", "Add members, or replace what those with the same key hold",
              "  lspanctl session add 3 --source ge5 --target ge9 --direction rx\n"
              "  lspanctl session add 3 --source ge6,ge7 --target ge9 --direction rx\n"
              "  lspanctl session add 4 --source 6 --target group:2 --learning keep\n"
              "  lspanctl session add 5 --source 5 --target 9 --acl 7 --rate 64\n"
              "  lspanctl session add 6 --target 9 --vlans 10,20-29",
              add_members, arguments);
}

}  // namespace lspanctl
