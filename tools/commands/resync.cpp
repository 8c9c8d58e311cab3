// lspanctl resync: the daemon becomes as if it had just been started.
#include "commands.h"
#include "request.h"

namespace lspanctl {
namespace {

int resync(context &ctx, const no_options &) {
  const json done = ask_or_refuse(ctx, daemon_program, "resync", ctx.patience());
  const auto count = [&done](const char *key) { return std::to_string(done.value(key, uint64_t{0})); };
  ctx.report("resynced", "resynced: " + count("written") + " written, " + count("deleted") + " deleted", done);
  return 0;
}

}  // namespace

void add_resync(command &root, context &ctx) {
  add_command(root, ctx, "resync", "Have the daemon read everything again and write what differs, as if just started",
              "  lspanctl resync\n  lspanctl resync --timeout 60", resync, no_arguments);
}

}  // namespace lspanctl
