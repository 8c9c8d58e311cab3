// lspanctl session del: a member goes.
#include "commands.h"
#include "errors.h"
#include "member_fields.h"

namespace lspanctl {
namespace {

// Who else has this member: a hint for a delete that finds nothing.
std::string other_owner_hint(const std::vector<member> &members, member_key key) {
  for (const member &other : members) {
    key.owner = other.key.owner;
    if (other.key == key) return "; --owner " + printable(key.owner) + " has one";
  }
  return "; lspanctl session show lists them";
}

int delete_member(context &ctx, const member_texts &texts) {
  const interfaces ports = ctx.ports();
  const member what = key_from(texts, ports, true);
  const ko_store::owned_change removal = make_change(what, ko_store::change_kind::del);
  store_client store = ctx.connect();
  if (!store.read(removal.hash, removal.key) || !store.write(removal))
    throw refused("there is no member " + to_text(what, ports) + " of owner " + printable(what.key.owner) +
                  other_owner_hint(load_members(ctx, store), what.key));
  ctx.report("deleted", "deleted " + to_text(what, ports), {{"session", what.key.session}});
  return 0;
}

std::vector<argument> arguments(member_texts &texts) { return member_arguments(texts, true); }

}  // namespace

void add_session_del(command &session, context &ctx) {
  add_command(session, ctx, "del", "Delete the member with this key",
              "  lspanctl session del 3 --source ge5 --target ge9 --direction rx\n"
              "  lspanctl session del 5 --source 5 --target 9 --acl 7",
              delete_member, arguments);
}

}  // namespace lspanctl
