// The answers: result records of the members, under this side's owner name.
#pragma once

#include <map>
#include <set>
#include <span>

#include "vx_mom.h"
#include "wanted.h"

namespace ko_forward {

inline constexpr const char *app_name = "ko_lspan_fwd";
inline constexpr const char *result_owner = "du_span";

// Declares to the store what is read, and the results as what is written: those that are there and are not written
// again are taken away. False when that is refused.
bool declare_results(vx_mom_ab *store, std::span<const mom_ds_entry> inputs);

// Takes all results out of the store. False when the store does not take that within some seconds; the log says why.
bool remove_results();

class result_book {
 public:
  // Writes the answers that are new or others than before, and those whose key is in `again`; takes away those that are
  // not in `answers` any more.
  void write(vx_global *store, const std::map<result_key, uint32_t> &answers, const std::set<result_key> &again);

 private:
  std::map<result_key, uint32_t> written_;
};

}  // namespace ko_forward
