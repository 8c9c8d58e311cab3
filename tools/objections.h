// Members that the daemon would not act on as they say: why, and the remedy.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "context.h"
#include "member.h"

namespace lspanctl {

// Looks at a whole configuration as it is going to be. Borrows all that it is given.
class objections {
 public:
  // `groups`: the group of each interface that is in one.
  objections(const std::vector<member> &members, const std::map<uint32_t, uint32_t> &groups, const interfaces &ports);

  // The objection to the member `what` of the configuration, as a sentence; empty: there is none.
  std::string to(const member &what) const;

  // The objection that its copies would come back to it; the former includes it.
  std::string to_path_of(const member &what) const;

 private:
  using source_key = std::tuple<uint32_t, uint32_t, uint32_t, uint32_t>;  // session, interface, direction, ACL

  std::string to_contents(const member &what) const;
  std::string to_neighbours(const member &what) const;
  std::vector<uint32_t> targets_of(const member &what) const;
  const member *way_back(uint32_t from, uint32_t to, std::set<uint32_t> &seen) const;

  const interfaces &ports_;
  std::map<uint32_t, std::vector<uint32_t>> groups_;            // interfaces of each group
  std::map<uint32_t, std::vector<const member *>> of_session_;  // by session
  std::map<source_key, std::vector<const member *>> of_source_;
  std::map<uint32_t, std::vector<const member *>> copying_sent_;  // by the interface whose sent frames they mirror
};

// Throws refused when something speaks against one of `changed`, which come to the `stored` members or in the place of
// those with their keys.
void refuse_objectionable(context &ctx, store_client &store, std::vector<member> stored,
                          const std::vector<member> &changed);

}  // namespace lspanctl
