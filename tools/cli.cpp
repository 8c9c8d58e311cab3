#include "cli.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ostream>

#include "command_line.h"
#include "errors.h"
#include "exit_status.h"

namespace lspanctl {
namespace {

std::string one_line(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  return text;
}

int parse_and_run(const command &root, context &ctx, const std::vector<std::string> &words) {
  parsed given;
  try {
    parse(root, words, given);
    if (!given.help.empty()) {
      ctx.out << given.help;
      return exit_done;
    }
    if (!given.asked->run) throw usage_error("give a command");
    const int status = given.asked->run();
    return status == exit_done && !ctx.unusable.empty() ? exit_refused : status;
  } catch (const usage_error &error) {
    ctx.err << "lspanctl: " << one_line(error.what()) << "; see " << given.path << " --help\n";
    return exit_wrong_use;
  } catch (const std::bad_alloc &) {
    ctx.err << "lspanctl: memory is exhausted\n";
  } catch (const std::exception &error) {
    ctx.err << "lspanctl: " << one_line(error.what()) << '\n';
  }
  return exit_refused;
}

}  // namespace

int run(const std::vector<std::string> &arguments, std::ostream &out, std::ostream &err, bool on_terminal,
        bool out_on_terminal) {
  context ctx(out, err, on_terminal);
  ctx.out_on_terminal = out_on_terminal;
  command root;
  make_command_line(root, ctx);
  int status = parse_and_run(root, ctx, arguments);
  out.flush();
  if (!out && status == exit_done) {
    if (errno != EPIPE) err << "lspanctl: the output cannot be written: " << std::strerror(errno) << '\n';
    status = exit_refused;
  }
  return status;
}

}  // namespace lspanctl
