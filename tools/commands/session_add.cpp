// lspanctl session add: one member more, or other contents for one that is there.
#include "commands.h"
#include "member_fields.h"

namespace lspanctl {
namespace {

int add_member(context &ctx, const member_texts &texts) {
  const interfaces ports = ctx.ports();
  const member what = member_from(texts, ports);
  const bool was_there = ctx.connect().write(make_change(what, ko_store::change_kind::set));
  const std::string done = was_there ? "replaced" : "added";
  ctx.report(done, done + " " + to_text(what, ports), {{"member", to_json(what, ports)}});
  return 0;
}

std::vector<argument> arguments(member_texts &texts) { return member_arguments(texts, false); }

}  // namespace

void add_session_add(command &session, context &ctx) {
  add_command(session, ctx, "add", "Add a member, or replace what the member with the same key holds",
              "  lspanctl session add 3 --source ge5 --target ge9 --direction rx\n"
              "  lspanctl session add 4 --source 6 --target group:2 --learning keep\n"
              "  lspanctl session add 5 --source 5 --target 9 --acl 7 --rate 64\n"
              "  lspanctl session add 6 --target 9 --vlans 10,20-29",
              add_member, arguments);
}

}  // namespace lspanctl
