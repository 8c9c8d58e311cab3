#include "counters.h"

#include "errors.h"
#include "request.h"

namespace lspanctl {

counters::counters(context &ctx) {
  const json said = ask_or_refuse(ctx, forwarding_program, "counters", ctx.patience());
  try {
    for (const json &each : said.at("members")) {
      const auto number = [&each](const char *name) { return each.at(name).get<uint32_t>(); };
      traffic &sum =
          by_key_[{number("session"), number("s_phyid"), number("d_phyid"), number("dir"), number("acl_id")}];
      sum.packets += each.at("packets").get<uint64_t>();
      sum.bytes += each.at("bytes").get<uint64_t>();
    }
  } catch (const json::exception &) {
    throw refused(std::string(forwarding_program) + " counts in a form that is not known here; update it or lspanctl");
  }
}

std::optional<traffic> counters::of(const member &what, const interfaces &ports) const {
  const uint32_t target = what.targets_group() ? what.key.d_ifx : ports.phyid(what.key.d_ifx);
  const auto found =
      by_key_.find({what.key.session, ports.phyid(what.key.s_ifx), target, what.key.dir, what.key.acl_id});
  return found == by_key_.end() ? std::nullopt : std::optional(found->second);
}

}  // namespace lspanctl
