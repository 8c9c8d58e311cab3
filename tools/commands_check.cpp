// lspanctl check: every record that is not as the configuration asks for.
#include <array>
#include <ostream>

#include "commands.h"
#include "wanted.h"

namespace lspanctl {
namespace {

constexpr std::array finding_names = {"right", "missing", "different", "left over"};

ko_store::message_ptr unpack_at(const record_set &records, const record_place &place) {
  const auto found = records.find(place);
  return found == records.end() ? nullptr : ko_store::unpack(*find_kind(place.db, place.message)->type, found->second);
}

void print_finding(context &ctx, const wanted_state &state, const record_place &place, finding what) {
  const ko_store::message_ptr wanted = unpack_at(state.wanted, place);
  const ko_store::message_ptr stored = unpack_at(state.stored, place);
  const record_kind &kind = *find_kind(place.db, place.message);
  const std::string name = finding_names[static_cast<size_t>(what)];
  if (ctx.json) {
    ctx.out << dump({{"finding", name},
                     {"db", place.db},
                     {"message", place.message},
                     {"wanted", wanted == nullptr ? json() : to_json(*wanted)},
                     {"stored", stored == nullptr ? json() : to_json(*stored)}})
            << '\n';
    return;
  }
  const auto column = [&ctx](std::string text, size_t width) {
    text.resize(std::max(text.size(), width), ' ');
    ctx.out << text << "  ";
  };
  column(name, 9);
  column(db_name(place.db), 7);
  column(std::string(short_name(*kind.type)), 18);
  ctx.out << to_line(wanted == nullptr ? *stored : *wanted);
  if (what == finding::different) ctx.out << " (stored -> wanted: " << difference(*stored, *wanted) << ")";
  ctx.out << '\n';
}

int check(context &ctx) {
  const wanted_state state = load_wanted(ctx);
  std::array<size_t, finding_names.size()> counts{};
  record_set all = state.wanted;
  all.insert(state.stored.begin(), state.stored.end());
  for (const auto &[place, record] : all) {
    const finding what = compare(state, place);
    ++counts[static_cast<size_t>(what)];
    if (what != finding::right) print_finding(ctx, state, place, what);
  }
  const size_t wrong = all.size() - counts[0];
  if (ctx.json) {
    json summary = json::object();
    for (size_t i = 0; i < counts.size(); ++i) summary[finding_names[i]] = counts[i];
    ctx.out << dump(summary) << '\n';
  } else {
    ctx.out << (wrong == 0 ? "all is right: " : "") << counts[0] << " right, " << counts[1] << " missing, " << counts[2]
            << " different, " << counts[3] << " left over\n";
  }
  return wrong == 0 && state.bad == 0 ? 0 : 1;
}

}  // namespace

void add_check_command(CLI::App &root, context &ctx) {
  CLI::App *command = add_command(
      root, "check", "Compare the daemon's records with what the configuration asks for; status 1 if they differ",
      "  lspanctl check\n"
      "  lspanctl check --json\n\n"
      "What is wanted is what a daemon started on this configuration would write. Records of a change that\n"
      "is under way are listed too; check again.");
  command->callback([&ctx] { ctx.action = [&ctx] { return check(ctx); }; });
}

}  // namespace lspanctl
