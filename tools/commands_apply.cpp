// lspanctl session export, apply: all members as a file, and back.
#include <algorithm>
#include <map>
#include <memory>
#include <ostream>

#include "commands.h"
#include "json_file.h"
#include "member_fields.h"
#include "proc/ko_span_public.h"
#include "records.h"
#include "text.h"

namespace lspanctl {
namespace {

using ko_store::change_kind;
using member_map = std::map<member_key, member>;

struct apply_options {
  std::string file;
  std::string owner = tool_owner;
  bool all_owners = false;
  bool dry_run = false;
};

bool is_concerned(const apply_options &options, const member_key &key) {
  return options.all_owners || key.owner == options.owner;
}

// The stored members that are concerned, and how many others there are.
member_map load_concerned(context &ctx, store_client &store, const apply_options &options, size_t &others,
                          size_t &bad) {
  member_map members;
  for (const loaded_record &record : load_records(ctx, store, CONF_DB, u_monitor__mirror_lspan_info__descriptor, bad)) {
    member what = from_record(*reinterpret_cast<const UMonitor__MirrorLspanInfo *>(record.message.get()));
    if (!is_concerned(options, what.key))
      ++others;
    else
      members[what.key] = std::move(what);
  }
  return members;
}

// ---- the file ----

std::string text_of(const json &value) {
  if (value.is_string()) return value.get<std::string>();
  if (value.is_number_unsigned() || value.is_array()) return dump(value);
  throw usage_error("give a text or a number");
}

void set_field(member_fields &fields, const std::string &name, const json &value) {
  if (name == "session") return void(fields.session = text_of(value));
  if (name == "vlan_map") return void(fields.vlan_map = text_of(value));
  for (const member_field &field : member_field_table())
    if (name == field.name) return void(fields.*field.text = text_of(value));
  throw usage_error("no such member of a session");
}

member parse_entry(const json &entry, const apply_options &options, const interfaces &ports) {
  if (!entry.is_object()) throw usage_error("give an object");
  member_fields fields;
  fields.owner = options.owner;
  for (const auto &[name, value] : entry.items()) {
    try {
      set_field(fields, name, value);
    } catch (const usage_error &error) {
      throw usage_error(printable(name) + ": " + error.what());
    }
  }
  member what = member_from(fields, ports);
  if (!is_concerned(options, what.key))
    throw usage_error("owner " + printable(what.key.owner) + " is another than " + printable(options.owner) +
                      "; name it with --owner, or say --all-owners");
  return what;
}

member_map read_file(const apply_options &options, const interfaces &ports) {
  const json root = read_json_file(options.file);
  const std::string name = options.file == "-" ? "standard input" : options.file;
  if (!root.is_object() || root.size() != 1 || !root.contains("sessions") || !root["sessions"].is_array())
    throw refused(name + ": give an object with the one member \"sessions\", an array; session export shows the form");
  member_map members;
  std::map<member_key, size_t> place;
  for (size_t i = 0; i < root["sessions"].size(); ++i) {
    const std::string where = name + ": sessions[" + std::to_string(i) + "]: ";
    try {
      member what = parse_entry(root["sessions"][i], options, ports);
      const auto [first, fresh] = place.try_emplace(what.key, i);
      if (!fresh) throw usage_error("is the same member as sessions[" + std::to_string(first->second) + "]");
      members[what.key] = std::move(what);
    } catch (const std::runtime_error &error) {
      throw refused(where + error.what());
    }
  }
  return members;
}

// ---- export ----

int export_members(context &ctx, const apply_options &options) {
  const interfaces ports = ctx.ports();
  store_client store = ctx.connect();
  size_t others = 0;
  size_t bad = 0;
  const member_map members = load_concerned(ctx, store, options, others, bad);
  // A line for each member, so that versions of the file can be compared.
  ctx.out << "{\n  \"sessions\": [";
  const char *gap = "\n    ";
  for (const auto &[key, what] : members) {
    ctx.out << gap << dump(to_json(what, ports));
    gap = ",\n    ";
  }
  ctx.out << (members.empty() ? "]\n}\n" : "\n  ]\n}\n");
  return bad == 0 ? 0 : 1;
}

// ---- apply ----

struct step {
  const char *what;  // delete, add, change
  const member *now;
  const member *before;  // null for an add
  change write;
};

// Deletes first: a member that got another target then leaves the old one before it comes to the new.
std::vector<step> plan(const member_map &stored, const member_map &wanted) {
  std::vector<step> steps;
  for (const auto &[key, before] : stored)
    if (!wanted.contains(key)) steps.push_back({"delete", &before, &before, make_change(before, change_kind::del)});
  for (const auto &[key, now] : wanted) {
    const auto before = stored.find(key);
    if (before == stored.end())
      steps.push_back({"add", &now, nullptr, make_change(now, change_kind::set)});
    else if (before->second != now)
      steps.push_back({"change", &now, &before->second, make_change(now, change_kind::set)});
  }
  return steps;
}

std::string changed_fields(const member &before, const member &now) {
  const auto unpacked = [](const member &what) {
    return ko_store::unpack(u_monitor__mirror_lspan_info__descriptor, make_change(what, change_kind::set).record);
  };
  return difference(*unpacked(before), *unpacked(now));
}

void print_step(context &ctx, const step &next, const interfaces &ports) {
  if (ctx.json) {
    ctx.out << dump({{"change", next.what}, {"member", to_json(*next.now, ports)}}) << '\n';
    return;
  }
  std::string word = next.what;
  word.resize(6, ' ');
  ctx.out << word << "  " << to_text(next.now->key, next.now->targets_group(), ports);
  if (next.before != nullptr && next.now != next.before) ctx.out << ": " << changed_fields(*next.before, *next.now);
  ctx.out << '\n';
}

void print_summary(context &ctx, const std::vector<step> &steps, size_t wanted, size_t others, bool dry_run) {
  std::map<std::string, size_t> counts;
  for (const step &next : steps) ++counts[next.what];
  const size_t unchanged = wanted - counts["add"] - counts["change"];
  if (ctx.json) {
    ctx.out << dump({{"dry_run", dry_run},
                     {"added", counts["add"]},
                     {"changed", counts["change"]},
                     {"deleted", counts["delete"]},
                     {"unchanged", unchanged},
                     {"of_other_owners", others}})
            << '\n';
    return;
  }
  ctx.out << (dry_run ? "would be: " : "") << counts["add"] << " added, " << counts["change"] << " changed, "
          << counts["delete"] << " deleted, " << unchanged << " unchanged";
  if (others != 0) ctx.out << " (" << others << " of other owners left alone)";
  ctx.out << '\n';
}

int apply(context &ctx, const apply_options &options) {
  const interfaces ports = ctx.ports();
  const member_map wanted = read_file(options, ports);
  store_client store = ctx.connect();
  size_t others = 0;
  size_t bad = 0;
  const member_map stored = load_concerned(ctx, store, options, others, bad);
  if (bad != 0) throw refused("nothing was changed, as " + std::to_string(bad) + " stored record(s) cannot be used");
  const std::vector<step> steps = plan(stored, wanted);
  if (options.dry_run) {
    for (const step &next : steps) print_step(ctx, next, ports);
  } else {
    progress_line progress = ctx.progress("writing", steps.size());
    std::vector<change> changes;
    changes.reserve(steps.size());
    for (const step &next : steps) changes.push_back(next.write);
    store.write_all(changes, [&progress](size_t done) { progress.show(done); });
  }
  print_summary(ctx, steps, wanted.size(), others, options.dry_run);
  return 0;
}

void add_owner_options(CLI::App &command, apply_options &options) {
  command.add_option("--owner", options.owner, "Only members of this owner (lspanctl)")->type_name("NAME");
  command.add_flag("--all-owners", options.all_owners, "Members of every owner");
}

}  // namespace

void add_file_commands(CLI::App &session, context &ctx) {
  auto options = std::make_shared<apply_options>();
  CLI::App *command = add_command(session, "export", "Write all members as a file for session apply",
                                  "  lspanctl session export > sessions.json");
  add_owner_options(*command, *options);
  command->callback([&ctx, options] { ctx.action = [&ctx, options] { return export_members(ctx, *options); }; });

  command = add_command(session, "apply", "Bring the members to what a file says: add, change and delete",
                        "  lspanctl session apply sessions.json --dry-run\n"
                        "  lspanctl session apply sessions.json");
  command->add_option("file", options->file, "The file, - for standard input")->type_name("FILE")->required();
  command->add_flag("--dry-run", options->dry_run, "Only show what would be done");
  add_owner_options(*command, *options);
  command->callback([&ctx, options] { ctx.action = [&ctx, options] { return apply(ctx, *options); }; });
}

}  // namespace lspanctl
