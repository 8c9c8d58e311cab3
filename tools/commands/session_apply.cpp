// lspanctl session apply: makes the configuration in the store that of a file.
#include <map>

#include "await.h"
#include "commands.h"
#include "errors.h"
#include "exit_status.h"
#include "member_changes.h"
#include "member_fields.h"
#include "membership.h"
#include "objections.h"
#include "request.h"
#include "session_file.h"

namespace lspanctl {
namespace {

using ko_store::change_kind;

constexpr size_t most_told = 20;  // objections

struct apply_options {
  std::optional<std::string> file;
  owner_choice whose;
  bool dry_run = false;
  bool force = false;
  std::optional<std::string> wait;
};

struct step {
  const char *what;  // delete, add, change; leave, join, move
  std::string text;  // of whom
  json details;
  transaction writes;
};

// The changes that lead from one configuration to another.
class plan {
 public:
  plan(store_client &store, const interfaces &ports, const configuration &stored, const configuration &wanted)
      : store_(store), ports_(ports) {
    for (const auto &[key, before] : stored.members)
      if (!wanted.members.contains(key)) add_member_step("delete", before, "", delete_member(store_, before));
    if (wanted.groups) add_group_steps(*stored.groups, *wanted.groups);
    for (const auto &[key, now] : wanted.members) {
      const auto before = stored.members.find(key);
      if (before == stored.members.end() || before->second != now) written.push_back(now);
      if (before == stored.members.end())
        add_member_step("add", now, "", set_member(store_, nullptr, now));
      else if (before->second != now)
        add_member_step("change", now, ": " + difference(before->second, now),
                        set_member(store_, &before->second, now));
      else
        ++unchanged;
    }
  }

  // Members are deleted first and added last: what got another target leaves the old one before it comes to the new.
  std::vector<step> steps;
  size_t unchanged = 0;         // members
  std::vector<member> written;  // those that are added or changed

 private:
  void add_member_step(const char *what, const member &whom, const std::string &how, transaction writes) {
    steps.push_back({what, to_text(whom, ports_) + how, {{"member", to_json(whom, ports_)}}, std::move(writes)});
  }

  void add_group_step(const char *what, uint32_t ifx, uint32_t before, uint32_t group) {
    std::string text = ports_.text(ifx);
    if (before != 0) text += " from group " + std::to_string(before);
    if (group != 0) text += " to group " + std::to_string(group);
    const json details = {{"interface", ports_.text(ifx)}, {"group", group}, {"group_before", before}};
    const change_kind kind = group == 0 ? change_kind::del : change_kind::set;
    steps.push_back({what, text, details, {membership(ifx, group, kind)}});
  }

  void add_group_steps(const std::map<uint32_t, uint32_t> &stored, const std::map<uint32_t, uint32_t> &wanted) {
    for (const auto &[ifx, before] : stored)
      if (!wanted.contains(ifx)) add_group_step("leave", ifx, before, 0);
    for (const auto &[ifx, group] : wanted) {
      const auto before = stored.find(ifx);
      if (before == stored.end())
        add_group_step("join", ifx, 0, group);
      else if (before->second != group)
        add_group_step("move", ifx, before->second, group);
    }
  }

  store_client &store_;
  const interfaces &ports_;
};

void print_step(context &ctx, const step &next) {
  json value = {{"change", next.what}};
  value.update(next.details);
  ctx.line(column(next.what, 6) + next.text, value);
}

void print_summary(context &ctx, const plan &all, const configuration &stored, bool dry_run, const std::string &note) {
  std::map<std::string, size_t> counts;
  for (const step &next : all.steps) ++counts[next.what];
  const size_t others = stored.others.size();
  const auto count = [&counts](const char *what, const char *word) {
    return std::to_string(counts[what]) + " " + word;
  };
  std::string text = dry_run ? "would be: " : "";
  text += count("add", "added") + ", " + count("change", "changed") + ", " + count("delete", "deleted") + ", " +
          std::to_string(all.unchanged) + " unchanged";
  if (counts["join"] + counts["move"] + counts["leave"] != 0)
    text += "; of groups " + count("join", "joined") + ", " + count("move", "moved") + ", " + count("leave", "left");
  if (others != 0) text += " (" + std::to_string(others) + " of other owners left alone)";
  ctx.line(text + note, {{"dry_run", dry_run},
                         {"added", counts["add"]},
                         {"changed", counts["change"]},
                         {"deleted", counts["delete"]},
                         {"unchanged", all.unchanged},
                         {"joined", counts["join"]},
                         {"moved", counts["move"]},
                         {"left", counts["leave"]},
                         {"of_other_owners", others}});
}

// Names every objection, not only the first.
void refuse_objectionable(context &ctx, const configuration &stored, const configuration &wanted) {
  std::vector<member> all = stored.others;
  all.reserve(all.size() + wanted.members.size());
  for (const auto &[key, what] : wanted.members) all.push_back(what);
  const interfaces ports = ctx.ports();
  const objections raised(all, wanted.groups ? *wanted.groups : *stored.groups, ports);
  size_t n_raised = 0;
  for (const auto &[key, what] : wanted.members) {
    const auto before = stored.members.find(key);
    if (before != stored.members.end() && before->second == what) continue;
    const std::string why = raised.to(what);
    if (why.empty()) continue;
    if (++n_raised <= most_told) ctx.err << "lspanctl: " << to_text(what, ports) << ": " << why << '\n';
  }
  if (n_raised != 0)
    throw refused("nothing was changed, as the daemon would not act on " + std::to_string(n_raised) +
                  " member(s) as they say; correct them, or --force them");
}

int apply(context &ctx, const apply_options &options) {
  const interfaces ports = ctx.ports();
  const configuration wanted = read_session_file(*options.file, options.whose, ports);
  store_client store = ctx.connect();
  const configuration stored = load_configuration(ctx, store, options.whose);
  if (!ctx.unusable.empty())
    throw refused("nothing was changed, as " + std::to_string(ctx.unusable.size()) +
                  " stored record(s) cannot be used");
  if (!options.force) refuse_objectionable(ctx, stored, wanted);
  const plan all(store, ports, stored, wanted);
  if (options.dry_run) {
    for (const step &next : all.steps) print_step(ctx, next);
  } else {
    std::vector<transaction> writes;
    writes.reserve(all.steps.size());
    for (const step &next : all.steps) writes.push_back(next.writes);
    store.write_all(writes, [&](size_t i) { print_step(ctx, all.steps[i]); });
  }
  const bool waits = options.wait && !options.dry_run;
  print_summary(ctx, all, stored, options.dry_run, options.dry_run || waits ? "" : away_note(store));
  if (waits) return await(ctx, *options.wait, all.written);
  return options.dry_run && !all.steps.empty() ? exit_would_change : exit_done;
}

std::vector<argument> arguments(apply_options &options) {
  std::vector<argument> all = owner_arguments(options.whose);
  all.push_back({"file", &options.file, "FILE", "The file, - for standard input", "<file>", true});
  all.push_back(
      {"--dry-run", &options.dry_run, "", "Only show what would be done; status 3 if there is something", ""});
  all.push_back({"--force", &options.force, "", "Also what the daemon would not act on as it says", ""});
  all.push_back(wait_argument(options.wait));
  return all;
}

}  // namespace

void add_session_apply(command &session, context &ctx) {
  add_command(
      session, ctx, "apply", "Bring members and groups to what a file says: add, change and delete",
      "  lspanctl session apply sessions.json --dry-run\n"
      "  lspanctl session apply sessions.json\n\n"
      "The file: {\"groups\": [{\"group\": 2, \"interfaces\": [\"ge7\", \"ge8\"]}],\n"
      "           \"sessions\": [{\"session\": 3, \"source\": \"ge5\", \"target\": \"ge9\", \"direction\": \"rx\"}]}\n"
      "A session has the keys of the options of session add, with _ for -. Without \"groups\" they stay.",
      apply, arguments);
}

}  // namespace lspanctl
