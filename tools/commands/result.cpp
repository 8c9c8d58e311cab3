// lspanctl result: an answer in the forwarding side's place.
#include <ostream>

#include "catalog.h"
#include "commands.h"
#include "errors.h"
#include "member_fields.h"
#include "record_json.h"
#include "values.h"

namespace lspanctl {
namespace {

struct result_options {
  member_texts texts;
  std::optional<std::string> code, type;
  bool remove = false;
};

// The daemon asks for a member of any owner.
void note_unknown_member(context &ctx, store_client &store, member_key key) {
  for (const member &known : load_members(ctx, store)) {
    key.owner = known.key.owner;
    if (known.key == key) return;
  }
  ctx.err << "lspanctl: note: there is no such member; the daemon deletes results of unknown members\n";
}

int write_result(context &ctx, const result_options &options) {
  const interfaces ports = ctx.ports();
  member_texts texts = options.texts;
  if (!text_in(texts, "owner")) text_in(texts, "owner") = forwarding_owner;
  const member what = key_from(texts, ports, true);
  UMonitor__MirrorIndex index = index_of(what.key);
  if (what.targets_group()) index.d_ifx = result_target(what.key.d_ifx);
  UMonitor__MirrorResultInfo result = U_MONITOR__MIRROR_RESULT_INFO__INIT;
  result.index = &index;
  result.result = parse_number(options.code.value_or("0"), "code");
  result.msg_type = parse_number(options.type.value_or("0"), "type");
  const auto kind = options.remove ? ko_store::change_kind::del : ko_store::change_kind::set;
  const std::string text = to_text(what, ports);
  store_client store = ctx.connect();
  if (!options.remove) note_unknown_member(ctx, store, what.key);
  const bool was_there = store.write(ko_store::make_change(results.db, kind, result.base));
  if (options.remove && !was_there)
    throw refused("there is no result of " + text + "; lspanctl records --message mirror_result_info lists them");
  const json details = {{"record", to_json(result.base)}};
  if (options.remove)
    ctx.report("deleted", "deleted the result of " + text, details);
  else
    ctx.report("written", "wrote result " + std::to_string(result.result) + " of " + text, details);
  return 0;
}

std::vector<argument> arguments(result_options &options) {
  std::vector<argument> all = member_arguments(options.texts, true);
  for (argument &each : all) {
    if (each.name != "--owner") continue;
    each.help = "Who answers; the daemon relays du_span (du_span)";
    each.offers = "du_span";
  }
  all.push_back({"--code", &options.code, "N", "The answer, 0: accepted (0)", ""});
  all.push_back({"--type", &options.type, "N", "Type of the message, the daemon relays 0 and 1 (0)", "0 1"});
  all.push_back({"--delete", &options.remove, "", "Take the answer away instead", ""});
  return all;
}

}  // namespace

void add_result(command &root, context &ctx) {
  add_command(root, ctx, "result", "Answer for a member in the forwarding side's place, to try things out without one",
              "  lspanctl result 3 --source ge5 --target ge9 --direction rx\n"
              "  lspanctl result 3 --source ge5 --target ge9 --direction rx --code 7",
              write_result, arguments);
}

}  // namespace lspanctl
