// lspanctl check: every record that is not as the configuration asks for.
#include <algorithm>
#include <array>

#include "commands.h"
#include "exit_status.h"
#include "record_json.h"
#include "record_line.h"
#include "request.h"
#include "wanted.h"

namespace lspanctl {
namespace {

ko_store::message_ptr unpack_at(const record_set &records, const record_place &place) {
  const auto found = records.find(place);
  return found == records.end() ? nullptr : ko_store::unpack(*place.hash.type, found->second);
}

// In JSON a word is one word.
std::string json_key(finding what) {
  std::string word = to_text(what);
  std::replace(word.begin(), word.end(), ' ', '_');
  return word;
}

struct report {
  std::string lines;
  json findings = json::array();
  std::array<size_t, n_findings> counts{};
};

void add_finding(const wanted_state &state, const record_place &place, finding what, report &to) {
  const ko_store::message_ptr wanted = unpack_at(state.wanted, place);
  const ko_store::message_ptr stored = unpack_at(state.stored, place);
  to.lines += column(to_text(what), 9) + column(db_name(place.hash.db), 7) +
              column(std::string(short_name(*place.hash.type)), 18) + to_line(wanted == nullptr ? *stored : *wanted);
  if (what == finding::different) to.lines += " (stored -> wanted: " + difference(*stored, *wanted) + ")";
  to.lines += '\n';
  to.findings.push_back({{"finding", json_key(what)},
                         {"db", place.hash.db},
                         {"message", place.hash.type->name},
                         {"wanted", wanted == nullptr ? json() : to_json(*wanted)},
                         {"stored", stored == nullptr ? json() : to_json(*stored)}});
}

report compare_all(const wanted_state &state) {
  report all;
  record_set places = state.wanted;
  places.insert(state.stored.begin(), state.stored.end());
  for (const auto &[place, record] : places) {
    const finding what = compare(state, place);
    ++all.counts[static_cast<size_t>(what)];
    if (what != finding::right) add_finding(state, place, what, all);
  }
  return all;
}

struct check_options {
  bool repair = false;
};

void print_report(context &ctx, const report &found, const json &repaired) {
  std::string text = found.lines + (found.findings.empty() ? "all is right: " : "");
  json value = json::object();
  for (size_t i = 0; i < n_findings; ++i) {
    const auto what = static_cast<finding>(i);
    text += (i == 0 ? "" : ", ") + std::to_string(found.counts[i]) + " " + to_text(what);
    value[json_key(what)] = found.counts[i];
  }
  if (!found.findings.empty() && repaired.is_null()) text += "; check --repair has the daemon mend them";
  value["findings"] = found.findings;
  if (!repaired.is_null()) value["repaired"] = repaired;
  ctx.line(text, value);
}

// Findings are shown before they are repaired, and counted after it.
int check(context &ctx, const check_options &options) {
  report found = compare_all(load_wanted(ctx));
  json repaired;
  if (options.repair && !found.findings.empty()) {
    ctx.text_only(found.lines);
    repaired = ask_or_refuse(ctx, daemon_program, "resync", ctx.patience());
    repaired["findings"] = found.findings;
    ctx.text_only("repaired: " + std::to_string(repaired.value("written", uint64_t{0})) + " written, " +
                  std::to_string(repaired.value("deleted", uint64_t{0})) + " deleted\n");
    found = compare_all(load_wanted(ctx));
  }
  print_report(ctx, found, repaired);
  return found.findings.empty() ? exit_done : exit_refused;
}

std::vector<argument> arguments(check_options &options) {
  return {{"--repair", &options.repair, "", "Have the daemon mend what differs", ""}};
}

}  // namespace

void add_check(command &root, context &ctx) {
  add_command(root, ctx, "check",
              "Compare the daemon's records with what the configuration asks for; status 1 if they differ",
              "  lspanctl check\n"
              "  lspanctl check --repair\n"
              "  lspanctl check --json\n\n"
              "What is wanted is what a daemon started on this configuration would write. Records of a change that\n"
              "is under way are listed too; check again.",
              check, arguments);
}

}  // namespace lspanctl
