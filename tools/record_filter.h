// The options --db and --message of records and watch.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "catalog.h"
#include "command.h"

namespace lspanctl {

struct record_filter {
  std::optional<std::string> db, message;
};

std::vector<argument> filter_arguments(record_filter &filter);

// The kinds that the filter lets through, never none. Throws usage_error.
std::vector<const record_kind *> wanted_kinds(const record_filter &filter);

}  // namespace lspanctl
