// From the filters that hang at a place to those that shall: which to put there, in which one's stead, and which to
// take away. No input and output.
#pragma once

#include <map>
#include <set>
#include <tuple>
#include <vector>

#include "netlink.h"

namespace ko_forward {

// What hangs at one place.
struct place_filters {
  using key = std::tuple<uint32_t, uint32_t, uint32_t>;  // chain, pref, handle

  std::map<key, kernel_filter> own;
  std::set<key> foreign;
};

struct filter_change {
  place at;
  filter what;
  bool fresh = false;  // it is not there yet; else it takes the place of the one with its pref and handle
};

struct filter_plan {
  std::vector<filter_change> changes;
  std::vector<kernel_filter> gone;

  // Some change takes an old filter's place, and so needs to know that one's actions.
  bool replaces() const;
};

// A target that stays keeps its action, whose number the kernel counts under, and its filter: nothing is copied twice
// or not at all while targets come and go.
filter_plan plan_filters(const place &at, const std::map<mark, wanted_filter> &wanted, const place_filters &has,
                         uint32_t pref);

// The mark that an own filter carries.
mark mark_in(const filter &what);

}  // namespace ko_forward
