// lspanctl session add, del, show: the members of mirror sessions.
#include <algorithm>
#include <memory>
#include <ostream>

#include "commands.h"
#include "member_fields.h"
#include "member_state.h"
#include "proc/ko_span_public.h"
#include "records.h"
#include "text.h"

namespace lspanctl {
namespace {

const ProtobufCMessageDescriptor &member_type = u_monitor__mirror_lspan_info__descriptor;

void add_member_options(CLI::App &command, member_fields &fields, bool key_only) {
  command.add_option("session", fields.session, "Number of the session")->type_name("SESSION")->required();
  for (const member_field &field : member_field_table())
    if (field.in_key || !key_only)
      command.add_option(option_name(field), fields.*field.text, field.help)->type_name(field.type);
}

int add_member(context &ctx, const member_fields &fields) {
  const interfaces ports = ctx.ports();
  const member what = member_from(fields, ports);
  const bool was_there = ctx.connect().write(make_change(what, ko_store::change_kind::set));
  const std::string done = was_there ? "replaced" : "added";
  report(ctx, done, done + " " + to_text(what.key, what.targets_group(), ports), {{"member", to_json(what, ports)}});
  return 0;
}

std::vector<member> load_members(context &ctx, store_client &store, size_t &bad) {
  std::vector<member> members;
  for (const loaded_record &record : load_records(ctx, store, CONF_DB, member_type, bad))
    members.push_back(from_record(*reinterpret_cast<const UMonitor__MirrorLspanInfo *>(record.message.get())));
  std::sort(members.begin(), members.end(), [](const member &a, const member &b) { return a.key < b.key; });
  return members;
}

// Who else has this member: a hint for a delete that finds nothing.
std::string other_owner_hint(const std::vector<member> &members, member_key key) {
  for (const member &other : members) {
    key.owner = other.key.owner;
    if (other.key == key) return "; --owner " + printable(key.owner) + " has one";
  }
  return "; lspanctl session show lists them";
}

int delete_member(context &ctx, const member_fields &fields) {
  const interfaces ports = ctx.ports();
  bool is_group = false;
  member what;
  what.key = key_from(fields, ports, true, &is_group);
  const change removal = make_change(what, ko_store::change_kind::del);
  const std::string text = to_text(what.key, is_group, ports);
  store_client store = ctx.connect();
  if (!store.read(removal.hash.db, removal.hash.type->name, removal.key) || !store.write(removal)) {
    size_t bad = 0;
    throw refused("there is no member " + text + " of owner " + printable(what.key.owner) +
                  other_owner_hint(load_members(ctx, store, bad), what.key));
  }
  report(ctx, "deleted", "deleted " + text, {{"session", what.key.session}});
  return 0;
}

std::vector<std::string> row_of(const member &what, const interfaces &ports) {
  const std::string vlans = vlans_text(what.vlan_map.data(), what.vlan_map.size());
  return {std::to_string(what.key.session),
          ports.text(what.key.s_ifx),
          ports.target_text(what.key.d_ifx, what.targets_group()),
          dir_text(what.key.dir),
          what.key.acl_id == 0 ? "-" : std::to_string(what.key.acl_id),
          vlans.empty() ? "-" : vlans,
          what.sample_rate == 0 ? "-" : std::to_string(what.sample_rate),
          learning_text(what.mtp_switch),
          enum_text(u_monitor__mirror_type__descriptor, what.apply_type),
          printable(what.key.owner)};
}

int show_members(context &ctx, const std::string &session) {
  const interfaces ports = ctx.ports();
  const bool all = session.empty();
  const uint32_t number = all ? 0 : parse_number(session, "session");
  wanted_state state = load_wanted(ctx);
  if (!all) std::erase_if(state.members, [number](const auto &each) { return each.what.key.session != number; });
  json list = json::array();
  table rows(
      {"SESSION", "SOURCE", "TARGET", "DIRECTION", "ACL", "VLANS", "RATE", "LEARNING", "TYPE", "OWNER", "STATE"});
  for (const member_outcome &outcome : state.members) {
    const member_state now = state_of(state, outcome, ports);
    if (ctx.json) {
      json entry = to_json(outcome.what, ports);
      entry.update({{"state", now.state}, {"reason", now.reason}, {"result", now.result ? json(*now.result) : json()}});
      list.push_back(std::move(entry));
    } else {
      std::vector<std::string> row = row_of(outcome.what, ports);
      row.push_back(to_text(now));
      rows.add(std::move(row));
    }
  }
  if (ctx.json)
    ctx.out << dump(list, 2) << '\n';
  else if (state.members.empty())
    ctx.out << (all ? "no session members\n" : "session " + session + " has no members\n");
  else
    rows.print(ctx.out);
  return state.bad == 0 ? 0 : 1;
}

void add_add(CLI::App &parent, context &ctx) {
  CLI::App *command = add_command(parent, "add", "Add a member, or replace what the member with the same key holds",
                                  "  lspanctl session add 3 --source ge5 --target ge9 --direction rx\n"
                                  "  lspanctl session add 4 --source 6 --target group:2 --learning keep\n"
                                  "  lspanctl session add 5 --source 5 --target 9 --acl 7 --rate 64\n"
                                  "  lspanctl session add 6 --target 9 --vlans 10,20-29");
  auto fields = std::make_shared<member_fields>();
  add_member_options(*command, *fields, false);
  command->callback([&ctx, fields] { ctx.action = [&ctx, fields] { return add_member(ctx, *fields); }; });
}

void add_del(CLI::App &parent, context &ctx) {
  CLI::App *command = add_command(parent, "del", "Delete the member with this key",
                                  "  lspanctl session del 3 --source ge5 --target ge9 --direction rx\n"
                                  "  lspanctl session del 5 --source 5 --target 9 --acl 7");
  auto fields = std::make_shared<member_fields>();
  add_member_options(*command, *fields, true);
  command->callback([&ctx, fields] { ctx.action = [&ctx, fields] { return delete_member(ctx, *fields); }; });
}

void add_show(CLI::App &parent, context &ctx) {
  CLI::App *command = add_command(parent, "show", "Show the members of all sessions, or of one",
                                  "  lspanctl session show\n"
                                  "  lspanctl session show 3 --json");
  auto session = std::make_shared<std::string>();
  command->add_option("session", *session, "Only this session")->type_name("SESSION");
  command->callback([&ctx, session] { ctx.action = [&ctx, session] { return show_members(ctx, *session); }; });
}

// ---- results ----

struct result_options {
  member_fields member;
  std::string code = "0", type = "0";
  bool remove = false;
};

// The daemon asks for a member of any owner.
void note_unknown_member(context &ctx, store_client &store, member_key key) {
  size_t bad = 0;
  for (const member &known : load_members(ctx, store, bad)) {
    key.owner = known.key.owner;
    if (known.key == key) return;
  }
  ctx.err << "lspanctl: note: there is no such member; the daemon deletes results of unknown members\n";
}

int write_result(context &ctx, const result_options &options) {
  const interfaces ports = ctx.ports();
  bool is_group = false;
  const member_key key = key_from(options.member, ports, true, &is_group);
  UMonitor__MirrorIndex index = index_of(key);
  if (is_group) index.d_ifx = result_target(key.d_ifx);
  UMonitor__MirrorResultInfo result = U_MONITOR__MIRROR_RESULT_INFO__INIT;
  result.index = &index;
  result.result = parse_number(options.code, "code");
  result.msg_type = parse_number(options.type, "type");
  const auto kind = options.remove ? ko_store::change_kind::del : ko_store::change_kind::set;
  const std::string text = to_text(key, is_group, ports);
  store_client store = ctx.connect();
  if (!options.remove) note_unknown_member(ctx, store, key);
  const bool was_there = store.write(make_change(UDP_DB, kind, result.base));
  if (options.remove && !was_there)
    throw refused("there is no result of " + text + "; lspanctl records --message mirror_result_info lists them");
  const json details = {{"record", to_json(result.base)}};
  if (options.remove) {
    report(ctx, "deleted", "deleted the result of " + text, details);
    return 0;
  }
  report(ctx, "written", "wrote result " + std::to_string(result.result) + " of " + text, details);
  return 0;
}

}  // namespace

void add_session_commands(CLI::App &root, context &ctx) {
  CLI::App *parent = root.add_subcommand("session", "The members of mirror sessions");
  add_add(*parent, ctx);
  add_del(*parent, ctx);
  add_show(*parent, ctx);
  add_file_commands(*parent, ctx);
}

void add_result_command(CLI::App &root, context &ctx) {
  CLI::App *command =
      add_command(root, "result", "Answer for a member in the forwarding side's place, to try things out without one",
                  "  lspanctl result 3 --source ge5 --target ge9 --direction rx\n"
                  "  lspanctl result 3 --source ge5 --target ge9 --direction rx --code 7");
  auto options = std::make_shared<result_options>();
  options->member.owner = "du_span";
  add_member_options(*command, options->member, true);
  command->get_option("--owner")->description("Who answers; the daemon relays du_span (du_span)");
  command->add_option("--code", options->code, "The answer, 0: accepted (0)")->type_name("N");
  command->add_option("--type", options->type, "Type of the message, the daemon relays 0 and 1 (0)")->type_name("N");
  command->add_flag("--delete", options->remove, "Take the answer away instead");
  command->callback([&ctx, options] { ctx.action = [&ctx, options] { return write_result(ctx, *options); }; });
}

}  // namespace lspanctl
