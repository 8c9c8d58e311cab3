// lspanctl platform: whether the programs can use their platform file.
#include <filesystem>

#include "commands.h"

namespace lspanctl {
namespace {

// Throws config_error, whose text is the answer then.
int check_platform_file(context &ctx, const no_options &) {
  const std::string path = ctx.platform_file.value_or(ko_platform::default_config_path);
  const ko_platform::config read = ko_platform::load_config(path);
  std::error_code why;
  const bool is_there = std::filesystem::exists(path, why);
  const std::string store = to_string(read.store);
  const std::string ports = read.has_ports ? std::to_string(read.ports.size()) : "every one";
  ctx.report("checked",
             path + (is_there ? " can be used" : " is not there, and so all has its default") + "; store: " + store +
                 ", ports: " + ports + ", ACLs: " + std::to_string(read.acls.size()),
             {{"file", path},
              {"exists", is_there},
              {"store", store},
              {"ports", read.has_ports ? json(read.ports.size()) : json()},
              {"acls", read.acls.size()}});
  return 0;
}

}  // namespace

void add_platform(command &root, context &ctx) {
  add_command(root, ctx, "platform", "Check the platform file that the daemon and the forwarding side read",
              "  lspanctl platform\n"
              "  lspanctl platform --platform-file /tmp/platform.json",
              check_platform_file, no_arguments);
}

}  // namespace lspanctl
