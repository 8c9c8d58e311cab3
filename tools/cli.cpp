#include "cli.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ostream>

#include "catalog.h"
#include "commands.h"
#include "render.h"
#include "text.h"

namespace lspanctl {
namespace {

constexpr int exit_done = 0;
constexpr int exit_refused = 1;
constexpr int exit_wrong_use = 2;

void build(CLI::App &root, context &ctx) {
  root.fallthrough();
  root.set_help_flag("-h,--help", "Show this help");
  root.set_version_flag("--version", "lspanctl " LSPANCTL_VERSION, "Show the version");
  root.add_option("--store", ctx.store,
                  "Where the store is: a socket's path, unix:PATH or HOST:PORT "
                  "(as the platform file says)")
      ->type_name("ADDRESS");
  root.add_option("--platform-file", ctx.platform_file, "Names the store and the ports")
      ->type_name("PATH")
      ->capture_default_str();
  root.add_flag("--json", ctx.json, "Output for programs");
  root.footer(
      "The options above may stand anywhere. Every command has a help of its own.\n"
      "Exit status: 0 done, 1 refused (the reason is on standard error), 2 wrong use.\n"
      "\nExamples:\n"
      "  lspanctl session add 3 --source ge5 --target ge9 --direction rx\n"
      "  lspanctl session show\n"
      "  lspanctl watch --json");
  add_session_commands(root, ctx);
  add_group_commands(root, ctx);
  add_result_command(root, ctx);
  add_records_command(root, ctx);
  add_watch_command(root, ctx);
  add_check_command(root, ctx);
  add_simulate_command(root, ctx);
  add_completion_command(root, ctx);
}

// What was given of the command so far, to say where there is help.
std::string given_command(const CLI::App &root) {
  std::string text = "lspanctl";
  for (const CLI::App *app = &root; !app->get_subcommands().empty();) {
    app = app->get_subcommands().front();
    text += " " + app->get_name();
  }
  return text;
}

std::string one_line(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  return text;
}

int parse_and_act(CLI::App &root, context &ctx, std::vector<std::string> arguments) {
  const auto wrong_use = [&](const std::string &why) {
    ctx.err << "lspanctl: " << one_line(why) << "; see " << given_command(root) << " --help\n";
    return exit_wrong_use;
  };
  try {
    std::reverse(arguments.begin(), arguments.end());
    root.parse(arguments);
    if (!ctx.action) throw usage_error("give a command");
    return ctx.action();
  } catch (const CLI::ExtrasError &) {
    return wrong_use(printable(root.remaining(true).front()) + " means nothing here");
  } catch (const CLI::ParseError &error) {
    if (error.get_exit_code() != 0) return wrong_use(error.what());
    return root.exit(error, ctx.out, ctx.err);
  } catch (const usage_error &error) {
    return wrong_use(error.what());
  } catch (const std::bad_alloc &) {
    ctx.err << "lspanctl: memory is exhausted\n";
  } catch (const std::exception &error) {
    ctx.err << "lspanctl: " << one_line(error.what()) << '\n';
  }
  return exit_refused;
}

}  // namespace

CLI::App *add_command(CLI::App &parent, const std::string &name, const std::string &help, const std::string &examples) {
  CLI::App *command = parent.add_subcommand(name, help);
  command->footer("With --store, --platform-file and --json as in lspanctl --help.\n\nExamples:\n" + examples);
  return command;
}

void report(context &ctx, const std::string &done, const std::string &sentence, const json &details) {
  if (!ctx.json) {
    ctx.out << sentence << '\n';
    return;
  }
  json object = {{"done", done}};
  object.update(details);
  ctx.out << dump(object) << '\n';
}

void add_filter_options(CLI::App &command, record_filter &filter) {
  command.add_option("--db", filter.db, "Only this database: 4 (CONF_DB), 6 (FWD_DB) or 8 (UDP_DB)")->type_name("DB");
  command.add_option("--message", filter.message, "Only this message, with or without its package")->type_name("NAME");
}

uint32_t record_filter::wanted_db() const { return db.empty() ? 0 : parse_db(db); }

std::string record_filter::wanted_message() const { return message.empty() ? "" : parse_message(message); }

int run(const std::vector<std::string> &arguments, std::ostream &out, std::ostream &err, bool on_terminal) {
  context ctx(out, err, on_terminal);
  CLI::App root("Sets up local mirror sessions and shows what became of them", "lspanctl");
  build(root, ctx);
  int status = parse_and_act(root, ctx, arguments);
  out.flush();
  if (!out && status == exit_done) {
    if (errno != EPIPE) err << "lspanctl: the output cannot be written: " << std::strerror(errno) << '\n';
    status = exit_refused;
  }
  return status;
}

}  // namespace lspanctl
