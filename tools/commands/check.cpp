// lspanctl check: every record that is not as the configuration asks for.
#include <array>

#include "commands.h"
#include "record_json.h"
#include "record_line.h"
#include "wanted.h"

namespace lspanctl {
namespace {

ko_store::message_ptr unpack_at(const record_set &records, const record_place &place) {
  const auto found = records.find(place);
  return found == records.end() ? nullptr : ko_store::unpack(*place.hash.type, found->second);
}

void print_finding(context &ctx, const wanted_state &state, const record_place &place, finding what) {
  const ko_store::message_ptr wanted = unpack_at(state.wanted, place);
  const ko_store::message_ptr stored = unpack_at(state.stored, place);
  std::string text = column(to_text(what), 9) + column(db_name(place.hash.db), 7) +
                     column(std::string(short_name(*place.hash.type)), 18) +
                     to_line(wanted == nullptr ? *stored : *wanted);
  if (what == finding::different) text += " (stored -> wanted: " + difference(*stored, *wanted) + ")";
  ctx.line(text, {{"finding", to_text(what)},
                  {"db", place.hash.db},
                  {"message", place.hash.type->name},
                  {"wanted", wanted == nullptr ? json() : to_json(*wanted)},
                  {"stored", stored == nullptr ? json() : to_json(*stored)}});
}

int check(context &ctx, const no_options &) {
  const wanted_state state = load_wanted(ctx);
  std::array<size_t, n_findings> counts{};
  record_set all = state.wanted;
  all.insert(state.stored.begin(), state.stored.end());
  for (const auto &[place, record] : all) {
    const finding what = compare(state, place);
    ++counts[static_cast<size_t>(what)];
    if (what != finding::right) print_finding(ctx, state, place, what);
  }
  const size_t wrong = all.size() - counts[0];
  std::string text = wrong == 0 ? "all is right: " : "";
  json summary = json::object();
  for (size_t i = 0; i < n_findings; ++i) {
    const char *word = to_text(static_cast<finding>(i));
    text += (i == 0 ? "" : ", ") + std::to_string(counts[i]) + " " + word;
    summary[word] = counts[i];
  }
  ctx.line(text, summary);
  return wrong == 0 ? 0 : 1;
}

}  // namespace

void add_check(command &root, context &ctx) {
  add_command(root, ctx, "check",
              "Compare the daemon's records with what the configuration asks for; status 1 if they differ",
              "  lspanctl check\n"
              "  lspanctl check --json\n\n"
              "What is wanted is what a daemon started on this configuration would write. Records of a change that\n"
              "is under way are listed too; check again.",
              check, no_arguments);
}

}  // namespace lspanctl
