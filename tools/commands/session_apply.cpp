// lspanctl session apply: brings the store to what a file says.
#include <map>

#include "commands.h"
#include "errors.h"
#include "member_fields.h"
#include "record_line.h"
#include "session_file.h"
#include "store/layout.h"

namespace lspanctl {
namespace {

using ko_store::change_kind;

struct apply_options {
  std::optional<std::string> file;
  owner_choice whose;
  bool dry_run = false;
};

struct step {
  const char *what;  // delete, add, change
  const member *now;
  const member *before;  // null for an add
  ko_store::owned_change write;
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
    const ko_store::owned_change write = make_change(what, change_kind::set);
    return ko_store::unpack(*write.hash.type, write.record);
  };
  return difference(*unpacked(before), *unpacked(now));
}

void print_step(context &ctx, const step &next, const interfaces &ports) {
  std::string text = column(next.what, 6) + to_text(*next.now, ports);
  if (next.before != nullptr && next.now != next.before) text += ": " + changed_fields(*next.before, *next.now);
  ctx.line(text, {{"change", next.what}, {"member", to_json(*next.now, ports)}});
}

void print_summary(context &ctx, const std::vector<step> &steps, size_t wanted, size_t others, bool dry_run) {
  std::map<std::string, size_t> counts;
  for (const step &next : steps) ++counts[next.what];
  const size_t unchanged = wanted - counts["add"] - counts["change"];
  std::string text = dry_run ? "would be: " : "";
  text += std::to_string(counts["add"]) + " added, " + std::to_string(counts["change"]) + " changed, " +
          std::to_string(counts["delete"]) + " deleted, " + std::to_string(unchanged) + " unchanged";
  if (others != 0) text += " (" + std::to_string(others) + " of other owners left alone)";
  ctx.line(text, {{"dry_run", dry_run},
                  {"added", counts["add"]},
                  {"changed", counts["change"]},
                  {"deleted", counts["delete"]},
                  {"unchanged", unchanged},
                  {"of_other_owners", others}});
}

int apply(context &ctx, const apply_options &options) {
  const interfaces ports = ctx.ports();
  const member_map wanted = read_session_file(*options.file, options.whose, ports);
  store_client store = ctx.connect();
  size_t others = 0;
  const member_map stored = load_members_of(ctx, store, options.whose, others);
  if (ctx.unusable != 0)
    throw refused("nothing was changed, as " + std::to_string(ctx.unusable) + " stored record(s) cannot be used");
  const std::vector<step> steps = plan(stored, wanted);
  if (options.dry_run) {
    for (const step &next : steps) print_step(ctx, next, ports);
  } else {
    progress_line progress = ctx.progress("writing", steps.size());
    std::vector<ko_store::owned_change> changes;
    changes.reserve(steps.size());
    for (const step &next : steps) changes.push_back(next.write);
    store.write_all(changes, [&progress](size_t done) { progress.show(done); });
  }
  print_summary(ctx, steps, wanted.size(), others, options.dry_run);
  return 0;
}

std::vector<argument> arguments(apply_options &options) {
  std::vector<argument> all = owner_arguments(options.whose);
  all.push_back({"file", &options.file, "FILE", "The file, - for standard input", "<file>", true});
  all.push_back({"--dry-run", &options.dry_run, "", "Only show what would be done", ""});
  return all;
}

}  // namespace

void add_session_apply(command &session, context &ctx) {
  add_command(session, ctx, "apply", "Bring the members to what a file says: add, change and delete",
              "  lspanctl session apply sessions.json --dry-run\n"
              "  lspanctl session apply sessions.json",
              apply, arguments);
}

}  // namespace lspanctl
