// lspanctl records: the records of the databases.
#include "records.h"

#include <ostream>

#include "commands.h"
#include "errors.h"
#include "record_filter.h"
#include "record_json.h"
#include "record_line.h"

namespace lspanctl {
namespace {

// Columns of the contents that say nothing are left out and named below the table.
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

void print_kind(std::ostream &out, const record_kind &kind, const std::vector<decoded_record> &records) {
  out << db_name(kind.hash.db) << " (" << kind.hash.db << ") " << kind.hash.type->name << ": " << kind.meaning << " ("
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

struct records_options : record_filter {
  std::optional<std::string> unusable;  // key of the record that is to be deleted
};

// The bytes that "0x6b31" names.
std::string parse_key(const std::string &text) {
  const bool is_hex = text.starts_with("0x") && text.size() % 2 == 0 &&
                      text.find_first_not_of("0123456789abcdefABCDEF", 2) == std::string::npos;
  if (!is_hex) throw usage_error("key " + printable(text) + ": give it as it is told, 0x and two digits for each byte");
  std::string key;
  for (size_t at = 2; at < text.size(); at += 2) key += static_cast<char>(std::stoi(text.substr(at, 2), nullptr, 16));
  return key;
}

// Sound records go with what they are of, so that nothing is left over from them.
int delete_unusable(context &ctx, const std::vector<const record_kind *> &kinds, const std::string &text) {
  const std::string key = parse_key(text);
  store_client store = ctx.connect();
  std::vector<ko_store::owned_change> found;
  for (const record_kind *kind : kinds)
    if (const auto record = store.read(kind->hash, key))
      found.push_back({kind->hash, ko_store::change_kind::del, key, *record});
  if (found.empty())
    throw refused("no record has the key " + text + "; lspanctl records names those that cannot be used");
  if (found.size() > 1) throw refused("several records have the key " + text + "; name one with --db and --message");
  ko_store::owned_change &gone = found.front();
  const ko_store::message_ptr message = ko_store::unpack(*gone.hash.type, gone.record);
  if (ko_store::check_record(message.get(), key) == ko_store::defect::none)
    throw refused("the record with the key " + text +
                  " can be used; take it away with session del, group leave or result --delete");
  gone.record.clear();
  store.write(gone);
  ctx.report("deleted", "deleted " + place_text(gone.hash) + " " + text,
             {{"db", gone.hash.db}, {"message", gone.hash.type->name}, {"key", text}});
  return 0;
}

int show_records(context &ctx, const records_options &filter) {
  std::vector<const record_kind *> kinds = wanted_kinds(filter);
  const std::string first = kinds.front()->hash.type->name;
  std::erase_if(kinds, [](const record_kind *kind) { return !kind->stored; });
  if (kinds.empty()) throw usage_error(first + " is announced and never stored; lspanctl watch shows it");
  if (filter.unusable) return delete_unusable(ctx, kinds, *filter.unusable);
  store_client store = ctx.connect();
  bool any = false;
  json list = json::array();
  for (const record_kind *kind : kinds) {
    const std::vector<decoded_record> records = load_records(ctx, store, kind->hash);
    any = any || !records.empty();
    if (!ctx.json_output && !records.empty()) print_kind(ctx.out, *kind, records);
    for (const decoded_record &record : records)
      if (ctx.json_output)
        list.push_back(
            {{"db", kind->hash.db}, {"message", kind->hash.type->name}, {"record", to_json(*record.message)}});
  }
  if (ctx.json_output || !any) ctx.list(table({}), list, "no records");
  return 0;
}

std::vector<argument> arguments(records_options &options) {
  std::vector<argument> all = filter_arguments(options);
  all.push_back({"--delete", &options.unusable, "KEY", "Delete the record with that key, which cannot be used", ""});
  return all;
}

}  // namespace

void add_records(command &root, context &ctx) {
  add_command(root, ctx, "records", "Show the records of the databases",
              "  lspanctl records\n"
              "  lspanctl records --db 8\n"
              "  lspanctl records --message span_dst_info --json\n"
              "  lspanctl records --db 4 --message mirror_lspan_info --delete 0x6b31",
              show_records, arguments);
}

}  // namespace lspanctl
