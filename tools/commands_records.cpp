// lspanctl records: what stands in the databases.
#include <memory>
#include <ostream>

#include "commands.h"
#include "records.h"
#include "render.h"
#include "text.h"

namespace lspanctl {
namespace {

// Payload columns that say nothing are left out and named below the table.
std::string print_columns(std::ostream &out, const std::vector<std::vector<cell>> &rows) {
  std::vector<bool> shown(rows.front().size());
  std::vector<std::string> heading;
  std::string left_out;
  for (size_t i = 0; i < shown.size(); ++i) {
    shown[i] = rows.front()[i].in_key;
    for (const auto &row : rows) shown[i] = shown[i] || !row[i].is_default;
    if (shown[i])
      heading.push_back(rows.front()[i].name);
    else
      left_out += " " + rows.front()[i].name;
  }
  table columns(heading);
  for (const auto &row : rows) {
    std::vector<std::string> texts;
    for (size_t i = 0; i < row.size(); ++i)
      if (shown[i]) texts.push_back(row[i].text);
    columns.add(texts);
  }
  columns.print(out, "  ");
  return left_out;
}

void print_kind(std::ostream &out, const record_kind &kind, const std::vector<loaded_record> &records) {
  out << db_name(kind.db) << " (" << kind.db << ") " << kind.type->name << ": " << kind.meaning << " ("
      << records.size() << ")\n";
  // A message with an absent part has fewer cells; such records get a table of their own.
  for (size_t first = 0; first < records.size();) {
    std::vector<std::vector<cell>> rows;
    for (; first < records.size(); ++first) {
      auto row = to_cells(*records[first].message);
      if (!rows.empty() && row.size() != rows.front().size()) break;
      rows.push_back(std::move(row));
    }
    const std::string left_out = print_columns(out, rows);
    if (!left_out.empty()) out << "  (0 or empty:" << left_out << ")\n";
  }
  out << '\n';
}

int show_records(context &ctx, const record_filter &filter) {
  const uint32_t db = filter.wanted_db();
  const std::string message = filter.wanted_message();
  store_client store = ctx.connect();
  size_t bad = 0;
  bool any = false;
  json list = json::array();
  for (const record_kind &kind : record_kinds()) {
    if (!kind.stored || (db != 0 && db != kind.db) || (!message.empty() && message != kind.type->name)) continue;
    const std::vector<loaded_record> records = load_records(ctx, store, kind.db, *kind.type, bad);
    any = any || !records.empty();
    if (!ctx.json && !records.empty()) print_kind(ctx.out, kind, records);
    for (const loaded_record &record : records)
      if (ctx.json)
        list.push_back({{"db", kind.db}, {"message", kind.type->name}, {"record", to_json(*record.message)}});
  }
  if (ctx.json)
    ctx.out << dump(list, 2) << '\n';
  else if (!any)
    ctx.out << "no records\n";
  return bad == 0 ? 0 : 1;
}

}  // namespace

void add_records_command(CLI::App &root, context &ctx) {
  CLI::App *command = add_command(root, "records", "Show the records of the databases",
                                  "  lspanctl records\n"
                                  "  lspanctl records --db 8\n"
                                  "  lspanctl records --message span_dst_info --json");
  auto filter = std::make_shared<record_filter>();
  add_filter_options(*command, *filter);
  command->callback([&ctx, filter] { ctx.action = [&ctx, filter] { return show_records(ctx, *filter); }; });
}

}  // namespace lspanctl
