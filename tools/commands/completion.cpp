// lspanctl completion: the scripts that complete command lines in shells, and what may follow a command line, which
// they ask for.
#include <algorithm>
#include <ostream>
#include <set>
#include <sstream>

#include "commands.h"
#include "completion_scripts.h"
#include "errors.h"
#include "member.h"
#include "membership.h"
#include "values.h"

namespace lspanctl {
namespace {

struct completion_options {
  std::optional<std::string> shell, line;
};

struct script {
  const char *shell;
  const char *text;
};

constexpr script scripts[] = {{"bash", bash_completion}, {"zsh", zsh_completion}, {"fish", fish_completion}};

std::vector<std::string> words_of(const std::string &line) {
  std::istringstream stream(line);
  std::vector<std::string> words;
  for (std::string word; stream >> word;) words.push_back(word);
  if (line.empty() || line.back() == ' ') words.emplace_back();
  return words;
}

// How far the words before the last one have come.
struct position {
  std::vector<const command *> path;  // from the root
  const argument *awaited = nullptr;  // the option whose value comes next
  size_t placed = 0;                  // arguments of the command that are known by their place

  const command &asked() const { return *path.back(); }
};

const argument *find_option(const position &at, const std::string &name) {
  for (const command *each : at.path)
    for (const argument &arg : each->arguments)
      if (arg.name == name) return &arg;
  return nullptr;
}

// The options of the root take effect: they say which store and which ports are meant.
void take_value(const position &at, const argument &option, const std::string &value) {
  const auto &own = at.path.front()->arguments;
  const bool of_root = std::any_of(own.begin(), own.end(), [&](const argument &arg) { return &arg == &option; });
  if (of_root) *std::get<std::optional<std::string> *>(option.to) = value;
}

void take_word(position &at, const std::string &word) {
  if (at.awaited != nullptr) {
    take_value(at, *at.awaited, word);
    at.awaited = nullptr;
    return;
  }
  if (word.starts_with('-')) {
    const size_t sign = word.find('=');
    const argument *option = find_option(at, word.substr(0, sign));
    if (option == nullptr || !option->takes_word()) return;
    if (sign == std::string::npos)
      at.awaited = option;
    else
      take_value(at, *option, word.substr(sign + 1));
    return;
  }
  for (const command &sub : at.asked().subcommands) {
    if (sub.name != word) continue;
    at.path.push_back(&sub);
    return;
  }
  ++at.placed;
}

// The next of the arguments that are known by their place; null when there is none.
const argument *next_placed(const position &at) {
  size_t place = 0;
  for (const argument &arg : at.asked().arguments) {
    if (arg.is_option()) continue;
    const bool repeats = std::holds_alternative<std::vector<std::string> *>(arg.to);
    if (place++ == at.placed || repeats) return &arg;
  }
  return nullptr;
}

using offers = std::set<std::string>;

void offer_interfaces(context &ctx, offers &out) {
  const interfaces ports = ctx.ports();
  for (const ko_platform::port &port : ctx.settings().ports) out.insert(ports.text(port.ifx));
}

void offer_groups(context &ctx, const std::string &prefix, offers &out) {
  store_client store = ctx.connect();
  for (const auto &[ifx, group] : load_memberships(ctx, store)) out.insert(prefix + std::to_string(group));
  for (const member &what : load_members(ctx, store))
    if (what.targets_group()) out.insert(prefix + std::to_string(group_id_of(what.key.d_ifx)));
}

void offer_values(context &ctx, const argument &arg, offers &out) {
  std::istringstream words(arg.offers);
  for (std::string word; words >> word;) {
    if (word == "<interface>" || word == "<target>") offer_interfaces(ctx, out);
    if (word == "<target>") offer_groups(ctx, "group:", out);
    if (word == "<group>") offer_groups(ctx, "", out);
    if (word == "<session>") {
      store_client store = ctx.connect();
      for (const member &what : load_members(ctx, store)) out.insert(std::to_string(what.key.session));
    }
    if (!word.starts_with('<') || word == "<file>") out.insert(word);
  }
}

void offer_options(const position &at, offers &out) {
  for (const command *each : at.path)
    for (const argument &arg : each->arguments)
      if (arg.is_option()) out.insert(arg.name);
  out.insert("--help");
}

// The words that may stand in place of `started`, the last word.
offers offered(context &ctx, const command &root, const std::vector<std::string> &words, const std::string &started) {
  position at{{&root}};
  for (size_t i = 1; i < words.size(); ++i) take_word(at, words[i]);  // the first is the program
  offers out;
  if (at.awaited != nullptr) {
    offer_values(ctx, *at.awaited, out);
  } else if (!started.starts_with('-') && !at.asked().subcommands.empty()) {
    for (const command &sub : at.asked().subcommands) out.insert(sub.name);
  } else if (const argument *arg = next_placed(at); !started.starts_with('-') && arg != nullptr) {
    offer_values(ctx, *arg, out);
  } else {
    offer_options(at, out);
  }
  return out;
}

void print_offered(context &ctx, const command &root, const std::string &line) {
  std::vector<std::string> words = words_of(line);
  std::string started = words.back();
  words.pop_back();
  std::string option;  // of "--option=value", which is the same as "--option value"
  if (const size_t sign = started.find('='); started.starts_with("--") && sign != std::string::npos) {
    option = started.substr(0, sign + 1);
    words.push_back(started.substr(0, sign));
    started.erase(0, sign + 1);
  }
  for (const std::string &word : offered(ctx, root, words, started))
    if (word == "<file>" || word.starts_with(started)) ctx.out << (word == "<file>" ? "" : option) << word << '\n';
}

int completion(context &ctx, const command &root, const completion_options &options) {
  if (options.line) {
    print_offered(ctx, root, *options.line);
    return 0;
  }
  for (const script &each : scripts) {
    if (options.shell.value_or("bash") != each.shell) continue;
    ctx.out << each.text;
    return 0;
  }
  throw usage_error("shell " + printable(*options.shell) + ": give bash, zsh or fish");
}

}  // namespace

void add_completion(command &root, context &ctx) {
  auto options = std::make_shared<completion_options>();
  root.subcommands.push_back({"completion",
                              "Print the script that completes command lines in a shell",
                              "  source <(lspanctl completion)\n"
                              "  lspanctl completion fish > ~/.config/fish/completions/lspanctl.fish",
                              {{"shell", &options->shell, "SHELL", "bash, zsh or fish (bash)", "bash zsh fish"},
                               {"--of", &options->line, "LINE", "Instead, what may follow this command line", ""}},
                              [&ctx, &root, options] { return completion(ctx, root, *options); },
                              {}});
}

}  // namespace lspanctl
