// The subcommands, each of which adds itself to the command line and leaves in the context what is to be done.
#pragma once

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "context.h"
#include "render.h"

namespace lspanctl {

void add_session_commands(CLI::App &root, context &ctx);  // session add, del, show and those of add_file_commands
void add_file_commands(CLI::App &session, context &ctx);  // session export, apply
void add_group_commands(CLI::App &root, context &ctx);    // group join, leave, show
void add_result_command(CLI::App &root, context &ctx);
void add_records_command(CLI::App &root, context &ctx);
void add_watch_command(CLI::App &root, context &ctx);
void add_check_command(CLI::App &root, context &ctx);
void add_simulate_command(CLI::App &root, context &ctx);
void add_completion_command(CLI::App &root, context &ctx);

// A subcommand whose help ends in `examples`, a line each.
CLI::App *add_command(CLI::App &parent, const std::string &name, const std::string &help, const std::string &examples);

// The options --db and --message of records and watch.
struct record_filter {
  std::string db, message;
  // Checked, as database (0: any) and full name (empty: any). Throw usage_error.
  uint32_t wanted_db() const;
  std::string wanted_message() const;
};
void add_filter_options(CLI::App &command, record_filter &filter);

// Says what was done: `sentence`, or with --json one object of `done`, a word, and `details`.
void report(context &ctx, const std::string &done, const std::string &sentence, const json &details);

}  // namespace lspanctl
