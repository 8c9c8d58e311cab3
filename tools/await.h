// Waiting until a change is in effect.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "command.h"
#include "member.h"

namespace lspanctl {

// The option --wait[=SECONDS].
argument wait_argument(std::optional<std::string> &seconds);

// Waits until the records are what a daemon started on the stored configuration would write, asking for a resync where
// they do not become so by themselves, and until the forwarding side, where one answers, has accepted or refused each
// of `members`. Tells how it ended and returns the exit status. Throws refused when no daemon is there.
int await(context &ctx, const std::string &seconds, const std::vector<member> &members);

}  // namespace lspanctl
