// The answers: result records of the members, under this side's owner name.
#pragma once

#include <map>
#include <set>

#include "vx_mom.h"
#include "wanted.h"

namespace ko_forward {

inline constexpr const char *result_owner = "du_span";

class result_book {
 public:
  // Writes the answers that are new or others than before, and those whose key is in `again`; takes away those that are
  // not in `answers` any more.
  void write(vx_global *store, const std::map<result_key, uint32_t> &answers, const std::set<result_key> &again);

 private:
  std::map<result_key, uint32_t> written_;
};

}  // namespace ko_forward
