#include "record_filter.h"

#include <set>

#include "errors.h"

namespace lspanctl {

std::vector<argument> filter_arguments(record_filter &filter) {
  std::set<std::string> known;
  for (const record_kind &kind : record_kinds()) known.emplace(short_name(*kind.hash.type));
  std::string names;
  for (const std::string &name : known) names += (names.empty() ? "" : " ") + name;
  return {{"--db", &filter.db, "DB", "Only this database: 4 (CONF_DB), 6 (FWD_DB) or 8 (UDP_DB)", "4 6 8"},
          {"--message", &filter.message, "NAME", "Only this message, with or without its package", names}};
}

std::vector<const record_kind *> wanted_kinds(const record_filter &filter) {
  const uint32_t db = filter.db ? parse_db(*filter.db) : 0;
  const std::string message = filter.message ? parse_message(*filter.message) : "";
  std::vector<const record_kind *> kinds;
  for (const record_kind &kind : record_kinds())
    if ((db == 0 || db == kind.hash.db) && (message.empty() || message == kind.hash.type->name)) kinds.push_back(&kind);
  if (kinds.empty()) throw usage_error(db_name(db) + " has no " + message + "; leave one of --db and --message out");
  return kinds;
}

}  // namespace lspanctl
