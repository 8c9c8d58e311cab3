// lspanctl session set: other contents for members, field by field.
#include "await.h"
#include "commands.h"
#include "errors.h"
#include "exit_status.h"
#include "member_changes.h"
#include "member_fields.h"
#include "objections.h"
#include "request.h"

namespace lspanctl {
namespace {

struct set_options {
  member_texts texts;
  bool force = false;
  std::optional<std::string> wait;
};

int set_members(context &ctx, const set_options &options) {
  const interfaces ports = ctx.ports();
  const member_filter filter(options.texts, ports);
  store_client store = ctx.connect();
  const std::vector<member> stored = load_members(ctx, store);
  std::vector<member> before, now;
  for (const member &each : stored) {
    if (!filter.includes(each)) continue;
    before.push_back(each);
    now.push_back(with_contents(each, options.texts, ports));
  }
  if (before.empty())
    throw refused("there is no member " + filter.text(ports) + " of owner " + printable(filter.owner()) +
                  "; lspanctl session show lists them");
  if (!options.force) refuse_objectionable(ctx, store, stored, now);
  std::vector<transaction> writes;
  std::vector<size_t> places;
  for (size_t i = 0; i < before.size(); ++i) {
    const json details = {{"member", to_json(now[i], ports)}};
    if (now[i] == before[i]) {
      ctx.report("unchanged", to_text(now[i], ports) + " is so already", details);
      continue;
    }
    writes.push_back(set_member(store, &before[i], now[i]));
    places.push_back(i);
  }
  const std::string note = options.wait ? "" : away_note(store);
  store.write_all(writes, [&](size_t i) {
    const size_t place = places[i];
    ctx.report("changed", "changed " + to_text(now[place], ports) + ": " + difference(before[place], now[place]) + note,
               {{"member", to_json(now[place], ports)}});
  });
  return options.wait ? await(ctx, *options.wait, now) : exit_done;
}

std::vector<argument> arguments(set_options &options) {
  std::vector<argument> all = member_arguments(options.texts, false);
  all.push_back({"--force", &options.force, "", "Also what the daemon would not act on as it says", ""});
  all.push_back(wait_argument(options.wait));
  return all;
}

}  // namespace

void add_session_set(command &session, context &ctx) {
  add_command(session, ctx, "set", "Change what members hold; what is not given stays",
              "  lspanctl session set 3 --rate 64\n"
              "  lspanctl session set 3 --source ge5 --learning keep\n\n"
              "Source, target, direction, ACL and owner choose the members of the session; the others are changed.",
              set_members, arguments);
}

}  // namespace lspanctl
