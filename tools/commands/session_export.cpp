// lspanctl session export: all members as a file.
#include <ostream>

#include "commands.h"
#include "member_fields.h"
#include "session_file.h"

namespace lspanctl {
namespace {

int export_members(context &ctx, const owner_choice &whose) {
  const interfaces ports = ctx.ports();
  store_client store = ctx.connect();
  size_t others = 0;
  const member_map members = load_members_of(ctx, store, whose, others);
  // A line for each member, so that versions of the file can be compared.
  ctx.out << "{\n  \"sessions\": [";
  const char *gap = "\n    ";
  for (const auto &[key, what] : members) {
    ctx.out << gap << dump(to_json(what, ports));
    gap = ",\n    ";
  }
  ctx.out << (members.empty() ? "]\n}\n" : "\n  ]\n}\n");
  return 0;
}

}  // namespace

void add_session_export(command &session, context &ctx) {
  add_command(session, ctx, "export", "Write all members as a file for session apply",
              "  lspanctl session export > sessions.json", export_members, owner_arguments);
}

}  // namespace lspanctl
