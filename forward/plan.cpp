#include "plan.h"

#include <algorithm>

namespace ko_forward {
namespace {

// A filter that there is or shall be, with the targets that fall to it.
struct share {
  const kernel_filter *old;  // null: a new one
  std::set<int> targets;
};

bool is_as_made(const kernel_filter &old, const mark &marked) {
  const std::vector<copy_action> &actions = old.what.actions;
  return old.is_sound && !actions.empty() && std::all_of(actions.begin(), actions.end(), [&](const copy_action &at) {
           return at.marked == marked && at.is_last == (&at == &actions.back());
         });
}

bool is_right(const kernel_filter &old, const mark &marked, const program &code, const std::set<int> &targets) {
  if (!is_as_made(old, marked) || old.what.actions.size() != targets.size()) return false;
  std::set<int> found;
  for (const copy_action &action : old.what.actions) found.insert(action.target);
  const auto same = [](const sock_filter &a, const sock_filter &b) {
    return a.code == b.code && a.jt == b.jt && a.jf == b.jf && a.k == b.k;
  };
  return found == targets && std::equal(code.begin(), code.end(), old.what.code.begin(), old.what.code.end(), same);
}

// Who has a target keeps it; others go where there is room, and then to new filters.
std::vector<share> share_out(std::set<int> targets, const std::vector<const kernel_filter *> &olds) {
  std::vector<share> shares;
  for (const kernel_filter *old : olds) {
    share &mine = shares.emplace_back(share{old, {}});
    for (const copy_action &action : old->what.actions)
      if (targets.erase(action.target) != 0) mine.targets.insert(action.target);
  }
  const auto fill = [&targets](share &mine) {
    while (!targets.empty() && mine.targets.size() < most_actions)
      mine.targets.insert(targets.extract(targets.begin()));
  };
  for (share &mine : shares) fill(mine);
  while (!targets.empty()) fill(shares.emplace_back(share{nullptr, {}}));
  return shares;
}

// New actions come before the one that ends the filter, as that one's control cannot be changed while it is kept.
std::vector<copy_action> actions_for(const share &mine, const mark &marked) {
  std::vector<copy_action> actions;
  std::set<int> targets = mine.targets;
  copy_action last;
  if (mine.old != nullptr && is_as_made(*mine.old, marked)) {
    for (const copy_action &old : mine.old->what.actions) {
      if (targets.erase(old.target) == 0) continue;
      (old.is_last ? last : actions.emplace_back()) = old;
    }
  }
  for (const int target : targets) actions.push_back({target, 0, false, marked});
  if (last.target != 0)
    actions.push_back(last);
  else
    actions.back() = {actions.back().target, 0, true, marked};
  return actions;
}

class place_planner {
 public:
  place_planner(const place &at, const place_filters &has, uint32_t pref) : at_(at), has_(has), pref_(pref) {
    for (const auto &[key, filter] : has.own) by_mark_.emplace(mark_in(filter.what), &filter);
  }

  filter_plan run(const std::map<mark, wanted_filter> &wanted) {
    for (const auto &[marked, what] : wanted) plan(marked, what);
    for (const auto &[marked, filter] : by_mark_)
      if (!wanted.contains(marked)) out_.gone.push_back(*filter);
    return std::move(out_);
  }

 private:
  void plan(const mark &marked, const wanted_filter &what) {
    std::vector<const kernel_filter *> olds;
    for (auto [at, end] = by_mark_.equal_range(marked); at != end; ++at) {
      const kernel_filter &old = *at->second;
      // Another chain, preference or protocol cannot be changed in place.
      if (old.chain == 0 && old.what.pref == pref_ && old.is_replaceable)
        olds.push_back(&old);
      else
        out_.gone.push_back(old);
    }
    for (const share &mine : share_out(what.targets, olds)) {
      if (mine.targets.empty()) {
        out_.gone.push_back(*mine.old);
      } else if (mine.old == nullptr) {
        out_.changes.push_back({at_, {pref_, free_handle(), *what.code, actions_for(mine, marked)}, true});
      } else if (!is_right(*mine.old, marked, *what.code, mine.targets)) {
        out_.changes.push_back({at_, {pref_, mine.old->what.handle, *what.code, actions_for(mine, marked)}, false});
      }
    }
  }

  // The lowest one, as the kernel's table of handles grows with the highest.
  uint32_t free_handle() {
    const auto taken = [this](uint32_t handle) {
      const place_filters::key key = {0, pref_, handle};
      return has_.own.contains(key) || has_.foreign.contains(key);
    };
    do ++handle_;
    while (taken(handle_));
    return handle_;
  }

  place at_;
  const place_filters &has_;
  uint32_t pref_;
  uint32_t handle_ = 0;
  std::multimap<mark, const kernel_filter *> by_mark_;
  filter_plan out_;
};

}  // namespace

bool filter_plan::replaces() const {
  return std::any_of(changes.begin(), changes.end(), [](const filter_change &change) { return !change.fresh; });
}

mark mark_in(const filter &what) {
  for (const copy_action &action : what.actions)
    if (is_own_mark(action.marked)) return action.marked;
  return {};
}

filter_plan plan_filters(const place &at, const std::map<mark, wanted_filter> &wanted, const place_filters &has,
                         uint32_t pref) {
  return place_planner(at, has, pref).run(wanted);
}

}  // namespace ko_forward
