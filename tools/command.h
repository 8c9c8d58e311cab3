// The command line as data: commands with their arguments. Parsing, help and completion are made from it.
#pragma once

#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "context.h"

namespace lspanctl {

struct argument {
  std::string name;  // an option or a flag with its dashes; without dashes, known by its place
  // Where it goes: a flag, a value, or values where it may be given more than once. Borrowed.
  std::variant<bool *, std::optional<std::string> *, std::vector<std::string> *> to;
  std::string type;  // of the value, as the help shows it
  std::string help;
  // Words that completion offers, separated by blanks. Those in angle brackets stand for <interface>, <group>,
  // <target>, <session>, <file>.
  std::string offers;
  bool required = false;
  std::string bare = {};  // the value when none is given, of an option that may stand without one

  bool is_option() const { return name.starts_with('-'); }
  // Whether the next word is its value.
  bool takes_word() const { return !std::holds_alternative<bool *>(to) && bare.empty(); }
};

struct command {
  std::string name;
  std::string help;
  std::string examples;  // a line each; text behind them
  std::vector<argument> arguments;
  std::function<int()> run;  // returns the exit status; none where there are subcommands
  std::list<command> subcommands;
};

// A group of commands.
command &add_commands(command &parent, const std::string &name, const std::string &help);

struct no_options {};
inline std::vector<argument> no_arguments(no_options &) { return {}; }

// A command that calls `run` with its options, which live as long as the command and are set when it is parsed.
template <class Options>
command &add_command(command &parent, context &ctx, const std::string &name, const std::string &help,
                     const std::string &examples, int (*run)(context &, const Options &),
                     std::vector<argument> (*arguments)(Options &)) {
  auto options = std::make_shared<Options>();
  parent.subcommands.push_back(
      {name, help, examples, arguments(*options), [&ctx, options, run] { return run(ctx, *options); }, {}});
  return parent.subcommands.back();
}

}  // namespace lspanctl
