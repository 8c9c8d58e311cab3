// lspanctl session del: a member goes, or all of a session.
#include "await.h"
#include "commands.h"
#include "errors.h"
#include "exit_status.h"
#include "member_changes.h"
#include "member_fields.h"
#include "request.h"

namespace lspanctl {
namespace {

struct del_options {
  member_texts texts;
  bool if_exists = false;
  std::optional<std::string> wait;
};

// Who else has such members: a hint for a delete that finds nothing.
std::string other_owner_hint(const std::vector<member> &members, const member_texts &texts, const interfaces &ports) {
  for (const member &other : members) {
    member_texts theirs = texts;
    text_in(theirs, "owner") = other.key.owner;
    if (member_filter(theirs, ports).includes(other)) return "; --owner " + printable(other.key.owner) + " has one";
  }
  return "; lspanctl session show lists them";
}

// With a target, one member is named, and what is left out of its key has its usual value. Without, all members are
// meant that the key fields fit.
std::vector<member> chosen(const std::vector<member> &stored, member_texts &texts, const interfaces &ports) {
  if (text_in(texts, "target")) {
    for (const auto &[name, usual] : {std::pair("source", "none"), {"direction", "both"}, {"acl", "0"}})
      if (!text_in(texts, name)) text_in(texts, name) = usual;
  }
  const member_filter filter(texts, ports);
  std::vector<member> out;
  for (const member &each : stored)
    if (filter.includes(each)) out.push_back(each);
  return out;
}

int delete_members(context &ctx, const del_options &options) {
  const interfaces ports = ctx.ports();
  member_texts texts = options.texts;
  store_client store = ctx.connect();
  const std::vector<member> stored = load_members(ctx, store);
  const std::vector<member> going = chosen(stored, texts, ports);
  const std::string none = "there is no member " + member_filter(texts, ports).text(ports) + " of owner " +
                           printable(member_filter(texts, ports).owner());
  if (going.empty() && !options.if_exists) throw refused(none + other_owner_hint(stored, texts, ports));
  if (going.empty()) ctx.report("unchanged", none, json::object());
  std::vector<transaction> writes;
  writes.reserve(going.size());
  for (const member &what : going) writes.push_back(delete_member(store, what));
  const std::string note = options.wait ? "" : away_note(store);
  store.write_all(writes, [&](size_t i) {
    ctx.report("deleted", "deleted " + to_text(going[i], ports) + note,
               {{"session", going[i].key.session}, {"member", to_json(going[i], ports)}});
  });
  return options.wait ? await(ctx, *options.wait, {}) : exit_done;
}

std::vector<argument> arguments(del_options &options) {
  std::vector<argument> all = member_arguments(options.texts, true);
  all.push_back({"--if-exists", &options.if_exists, "", "Status 0 also when there is no such member", ""});
  all.push_back(wait_argument(options.wait));
  return all;
}

}  // namespace

void add_session_del(command &session, context &ctx) {
  add_command(session, ctx, "del", "Delete all members of a session, or those that the options name",
              "  lspanctl session del 3\n"
              "  lspanctl session del 3 --source ge5 --if-exists\n"
              "  lspanctl session del 3 --source ge5 --target ge9 --direction rx\n\n"
              "With a target, exactly one member is meant: direction both and no ACL, unless they are given.",
              delete_members, arguments);
}

}  // namespace lspanctl
