// lspanctl completion: the script that completes command lines in bash, made from the definition of the command line.
#include <map>
#include <ostream>
#include <set>

#include "catalog.h"
#include "commands.h"
#include "member_fields.h"

namespace lspanctl {
namespace {

// What the script is made of.
struct vocabulary {
  std::map<std::string, std::string> words;   // what may follow a command, by the command ("session add")
  std::map<std::string, std::string> values;  // of options; empty: any, or a file
};

void append(std::string &words, const std::string &word) { words += (words.empty() ? "" : " ") + word; }

void collect(const CLI::App &command, const std::string &path, vocabulary &out) {
  std::string &words = out.words[path];
  for (const CLI::App *app = &command; app != nullptr; app = app->get_parent()) {
    for (const CLI::Option *option : app->get_options()) {
      if (option->get_lnames().empty()) continue;
      const std::string name = "--" + option->get_lnames().front();
      if (app == &command || (name != "--help" && name != "--version")) append(words, name);
      if (option->get_type_size() > 0) out.values.try_emplace(name);
    }
  }
  for (const CLI::App *sub : command.get_subcommands([](const CLI::App *) { return true; })) {
    append(words, sub->get_name());
    collect(*sub, path.empty() ? sub->get_name() : path + " " + sub->get_name(), out);
  }
}

vocabulary collect(const CLI::App &root) {
  vocabulary out;
  collect(root, "", out);
  for (const member_field &field : member_field_table()) out.values[option_name(field)] = field.values;
  std::set<std::string> messages;
  for (const record_kind &kind : record_kinds()) messages.emplace(short_name(*kind.type));
  for (const std::string &name : messages) append(out.values["--message"], name);
  out.values["--db"] = "4 6 8";
  return out;
}

int print_script(context &ctx, const CLI::App &root) {
  const vocabulary known = collect(root);
  ctx.out << "# bash completion of lspanctl, made by \"lspanctl completion\"\n"
             "_lspanctl() {\n"
             "  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]} path= word words=\n"
             "  case $prev in\n";
  for (const auto &[option, values] : known.values)
    ctx.out << "    " << option << ") COMPREPLY=($(compgen -W '" << values << "' -- \"$cur\")); return ;;\n";
  ctx.out << "  esac\n"
             "  for word in \"${COMP_WORDS[@]:1:COMP_CWORD-1}\"; do\n"
             "    case ${path:+$path }$word in\n"
             "      ";
  const char *gap = "";
  for (const auto &[path, words] : known.words) {
    if (path.empty()) continue;
    ctx.out << gap << "'" << path << "'";
    gap = " | ";
  }
  ctx.out << ") path=${path:+$path }$word ;;\n"
             "    esac\n"
             "  done\n"
             "  case $path in\n";
  for (const auto &[path, words] : known.words) ctx.out << "    '" << path << "') words='" << words << "' ;;\n";
  ctx.out << "  esac\n"
             "  COMPREPLY=($(compgen -W \"$words\" -- \"$cur\"))\n"
             "}\n"
             "complete -o default -F _lspanctl lspanctl\n";
  return 0;
}

}  // namespace

void add_completion_command(CLI::App &root, context &ctx) {
  CLI::App *command = add_command(root, "completion", "Print the script that completes command lines in bash",
                                  "  source <(lspanctl completion)");
  command->callback([&ctx, &root] { ctx.action = [&ctx, &root] { return print_script(ctx, root); }; });
}

}  // namespace lspanctl
