#include "command_line.h"

#include <algorithm>
#include <map>
#include <sstream>

#include <CLI/CLI.hpp>

#include "commands/commands.h"
#include "errors.h"

namespace lspanctl {
namespace {

using apps = std::map<const CLI::App *, const command *>;

void add_argument(CLI::App &app, const argument &arg) {
  CLI::Option *option = nullptr;
  if (bool *const *flag = std::get_if<bool *>(&arg.to)) {
    app.add_flag(arg.name, **flag, arg.help);
    return;
  }
  if (std::optional<std::string> *const *value = std::get_if<std::optional<std::string> *>(&arg.to))
    option = app.add_option_function<std::string>(
        arg.name, [to = *value](const std::string &given) { *to = given; }, arg.help);
  else
    option = app.add_option(arg.name, *std::get<std::vector<std::string> *>(arg.to), arg.help)
                 ->allow_extra_args(!arg.is_option());
  option->type_name(arg.type)->required(arg.required);
}

void fill(CLI::App &app, const command &from, apps &known) {
  known[&app] = &from;
  for (const argument &arg : from.arguments) add_argument(app, arg);
  for (const command &sub : from.subcommands) {
    CLI::App &added = *app.add_subcommand(sub.name, sub.help);
    if (sub.run)
      added.footer("With --store, --platform-file and --json as in lspanctl --help.\n\nExamples:\n" + sub.examples);
    fill(added, sub, known);
  }
}

// An option that may stand without a value gets its usual one.
void fill_bare(const command &from, std::vector<std::string> &words) {
  for (const argument &arg : from.arguments)
    for (std::string &word : words)
      if (!arg.bare.empty() && word == arg.name) word += "=" + arg.bare;
  for (const command &sub : from.subcommands) fill_bare(sub, words);
}

// The innermost command that was given.
const CLI::App *innermost(const CLI::App &root, std::string &path) {
  const CLI::App *app = &root;
  path = app->get_name();
  while (!app->get_subcommands().empty()) {
    app = app->get_subcommands().front();
    path += " " + app->get_name();
  }
  return app;
}

}  // namespace

command &add_commands(command &parent, const std::string &name, const std::string &help) {
  parent.subcommands.push_back({name, help, {}, {}, {}, {}});
  return parent.subcommands.back();
}

void make_command_line(command &root, context &ctx) {
  root.name = "lspanctl";
  root.help = "Sets up local mirror sessions and shows what became of them";
  root.arguments = {
      {"--store", &ctx.store, "ADDRESS",
       "Where the store is: a socket's path, unix:PATH or HOST:PORT (as the platform file says)", "<file>"},
      {"--platform-file", &ctx.platform_file, "PATH",
       std::string("Names the store, the login and the ports (LSPANCTL_PLATFORM_FILE of the environment, else ") +
           tool_config_path + ", else " + ko_platform::default_config_path + ")",
       "<file>"},
      {"--timeout", &ctx.timeout, "SECONDS", "How long an answer is waited for (5)", ""},
      {"--json", &ctx.json_output, "", "Output for programs", ""},
  };
  root.examples =
      "  lspanctl session add 3 --source ge5 --target ge9 --direction rx\n"
      "  lspanctl session show\n"
      "  lspanctl watch --json";
  command &session = add_commands(root, "session", "The members of mirror sessions");
  add_session_add(session, ctx);
  add_session_set(session, ctx);
  add_session_del(session, ctx);
  add_session_show(session, ctx);
  add_session_export(session, ctx);
  add_session_apply(session, ctx);
  command &group = add_commands(root, "group", "Outflow groups, which sessions can have as target group:ID");
  add_group_join(group, ctx);
  add_group_leave(group, ctx);
  add_group_show(group, ctx);
  add_result(root, ctx);
  add_records(root, ctx);
  add_watch(root, ctx);
  add_status(root, ctx);
  add_platform(root, ctx);
  add_resync(root, ctx);
  add_check(root, ctx);
  add_top(root, ctx);
  add_simulate(root, ctx);
  add_completion(root, ctx);
}

void parse(const command &root, std::vector<std::string> words, parsed &out) {
  apps known;
  CLI::App app(root.help, root.name);
  app.fallthrough();
  app.set_help_flag("-h,--help", "Show this help");
  app.set_version_flag("--version",
                       "lspanctl " LSPANCTL_VERSION ", of ko_lspan " LSPANCTL_VERSION
                       "; lspanctl status shows which one runs",
                       "Show the version");
  app.footer(
      "The options above may stand anywhere. Every command has a help of its own.\n"
      "Exit status: 0 done, 1 refused (the reason is on standard error), 2 wrong use, 3 a dry run found something to\n"
      "do, 4 what was waited for did not come in time, 5 the forwarding side refused it.\n"
      "\nExamples:\n" +
      root.examples);
  fill(app, root, known);
  try {
    fill_bare(root, words);
    std::reverse(words.begin(), words.end());
    app.parse(words);
    out.asked = known.at(innermost(app, out.path));
  } catch (const CLI::ExtrasError &) {
    innermost(app, out.path);
    throw usage_error(printable(app.remaining(true).front()) + " means nothing here");
  } catch (const CLI::ParseError &error) {
    innermost(app, out.path);
    if (error.get_exit_code() != 0) throw usage_error(error.what());
    std::ostringstream text;
    app.exit(error, text, text);
    out.help = text.str();
  }
}

}  // namespace lspanctl
