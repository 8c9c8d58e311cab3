// Counts of the copies that the forwarding side has made.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <tuple>

#include "context.h"
#include "member.h"

namespace lspanctl {

struct traffic {
  uint64_t packets = 0;
  uint64_t bytes = 0;
};

class counters {
 public:
  // Asks the forwarding side. Throws refused when there is none.
  explicit counters(context &ctx);

  // Of the member; nothing when the forwarding side does not know it.
  std::optional<traffic> of(const member &what, const interfaces &ports) const;

 private:
  // session, physical ids of source and target, direction, ACL
  using key = std::tuple<uint32_t, uint32_t, uint32_t, uint32_t, uint32_t>;
  std::map<key, traffic> by_key_;
};

}  // namespace lspanctl
