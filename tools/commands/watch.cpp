// lspanctl watch: changes as they happen. It keeps a copy of the records, which shows the fields that a change
// concerns.
#include <algorithm>
#include <iterator>
#include <map>
#include <ostream>
#include <set>
#include <sstream>

#include "clock_text.h"
#include "commands.h"
#include "errors.h"
#include "exit_status.h"
#include "record_filter.h"
#include "record_json.h"
#include "record_line.h"
#include "stop_signals.h"
#include "store/layout.h"
#include "store/record_text.h"
#include "values.h"

namespace lspanctl {
namespace {

using ko_store::change_kind;
using clock = std::chrono::steady_clock;

struct watch_options {
  record_filter filter;
  std::optional<std::string> count, seconds, until;
};

// One line of the output.
struct event {
  const char *change;               // added, changed, same, deleted, absent, request, unreadable
  const ProtobufCMessage *message;  // null when unreadable; of what was absent, the key alone
  std::string text;
};

// Words that a change must agree with, all of them: its kind, its message or database, NAME=VALUE of the record.
class condition {
 public:
  explicit condition(const std::string &text) {
    std::istringstream words(text);
    for (std::string word; words >> word;) words_.push_back(word);
    if (words_.empty()) throw usage_error("--until: give words such as \"deleted span_dst_info session_id=3\"");
    for (const std::string &word : words_)
      if (word.find('=') == std::string::npos && !is_known(word))
        throw usage_error("--until: " + printable(word) + " is neither a kind of change, nor a message or database");
  }

  bool agrees(const record_kind &kind, const event &what) const {
    std::set<std::string> has{what.change, db_name(kind.hash.db), std::string(short_name(*kind.hash.type)),
                              kind.hash.type->name};
    if (what.message != nullptr)
      for (const cell &part : to_cells(*what.message)) has.insert(part.name + "=" + part.text);
    return std::all_of(words_.begin(), words_.end(), [&has](const std::string &word) { return has.contains(word); });
  }

 private:
  static bool is_known(const std::string &word) {
    constexpr std::string_view changes[] = {"added", "changed", "same", "deleted", "absent", "request", "unreadable"};
    const std::span<const record_kind> kinds = record_kinds();
    return std::find(std::begin(changes), std::end(changes), word) != std::end(changes) ||
           std::any_of(kinds.begin(), kinds.end(), [&word](const record_kind &kind) {
             return word == db_name(kind.hash.db) || word == short_name(*kind.hash.type) ||
                    word == kind.hash.type->name;
           });
  }

  std::vector<std::string> words_;
};

class watcher {
 public:
  watcher(context &ctx, const std::vector<const record_kind *> &kinds, const std::optional<std::string> &until)
      : ctx_(ctx) {
    if (until) until_.emplace(*until);
    for (const record_kind *kind : kinds)
      channels_[ko_store::channel_name(kind->hash.db, kind->hash.type->name)] = kind;
  }

  // Subscribes before it reads, so that nothing is missed in between.
  void start(store_client &announcements, store_client &store) {
    for (const auto &[channel, kind] : channels_) announcements.subscribe(channel);
    for (const auto &[channel, kind] : channels_) {
      if (!kind->stored) continue;
      for (ko_store::owned_change &record : store.read_all(kind->hash))
        copy_[channel][record.key] = std::move(record.record);
    }
  }

  // Whether the awaited change has been shown.
  bool matched() const { return matched_; }

  void show(const store_client::announced &announced) {
    const record_kind &kind = *channels_.at(announced.channel);
    const auto parsed = ko_store::parse_announcement(kind.hash, announced.bytes);
    if (parsed)
      take(kind, *parsed, copy_[announced.channel]);
    else
      print(kind, {"unreadable", nullptr, "announcement 0x" + ko_store::hex_digits(announced.bytes)});
  }

 private:
  using records = std::map<std::string, std::string, std::less<>>;

  void take(const record_kind &kind, const ko_store::change &announced, records &copy) {
    const auto held = copy.find(announced.key);
    const bool known = held != copy.end();
    if (announced.kind == change_kind::del && !known)
      print_unknown_delete(kind, announced.key);
    else
      print_change(kind, announced, known ? std::optional<std::string_view>(held->second) : std::nullopt);
    if (announced.kind == change_kind::set) copy[std::string(announced.key)] = announced.record;
    if (announced.kind == change_kind::del && known) copy.erase(held);
  }

  // The daemon also deletes records that are not there.
  void print_unknown_delete(const record_kind &kind, std::string_view key) {
    const ko_store::message_ptr message = record_of_key(*kind.hash.type, key);
    if (message == nullptr)
      print(kind, {"unreadable", nullptr, "key 0x" + ko_store::hex_digits(key) + " of what is deleted"});
    else
      print(kind, {"absent", message.get(), key_line(*message) + ": deleted, and was not there"});
  }

  void print_change(const record_kind &kind, const ko_store::change &announced, std::optional<std::string_view> held) {
    const std::string_view now = announced.kind == change_kind::del ? *held : announced.record;
    const ko_store::message_ptr message = ko_store::unpack(*kind.hash.type, now);
    const ko_store::message_ptr before = held ? ko_store::unpack(*kind.hash.type, *held) : nullptr;
    if (message == nullptr) {
      print(kind, {"unreadable", nullptr,
                   "key 0x" + ko_store::hex_digits(announced.key) + " record 0x" + ko_store::hex_digits(now)});
    } else if (announced.kind != change_kind::set || before == nullptr) {
      const char *change = announced.kind == change_kind::publish ? "request" : "deleted";
      print(kind, {announced.kind == change_kind::set ? "added" : change, message.get(), to_line(*message)});
    } else {
      const std::string changes = difference(*before, *message);
      print(kind, {changes.empty() ? "same" : "changed", message.get(),
                   key_line(*message) + (changes.empty() ? "" : ": " + changes)});
    }
  }

  void print(const record_kind &kind, const event &what) {
    matched_ = matched_ || (until_ && until_->agrees(kind, what));
    json value = {
        {"time", now_text(true)}, {"db", kind.hash.db}, {"message", kind.hash.type->name}, {"change", what.change}};
    if (what.message != nullptr && what.change == std::string_view("absent"))
      value["key"] = to_json(*ko_store::key_of(*what.message));
    else if (what.message != nullptr)
      value["record"] = to_json(*what.message);
    else
      value["text"] = what.text;
    ctx_.line(column(now_text(false), 0) + column(db_name(kind.hash.db), 7) + column(what.change, 7) +
                  column(std::string(short_name(*kind.hash.type)), 18) + what.text,
              value);
  }

  context &ctx_;
  std::optional<condition> until_;
  bool matched_ = false;
  std::map<std::string, const record_kind *> channels_;
  std::map<std::string, records> copy_;
};

int watch(context &ctx, const watch_options &options) {
  watcher seen(ctx, wanted_kinds(options.filter), options.until);
  const uint32_t count = options.count ? parse_number(*options.count, "count", 1) : 0;
  std::optional<clock::time_point> deadline;
  if (options.seconds) deadline = clock::now() + std::chrono::seconds(parse_number(*options.seconds, "seconds", 1));
  store_client store = ctx.connect();
  store_client announcements = ctx.connect();
  const stop_signals signals;
  seen.start(announcements, store);
  ctx.err << "lspanctl: watching; end it with Ctrl-C" << std::endl;
  for (uint32_t shown = 0; (count == 0 || shown < count) && !seen.matched() && !signals.requested() && ctx.out;) {
    const auto announced = announcements.next(deadline, signals.mask());
    if (!announced && deadline && clock::now() >= *deadline) break;
    if (!announced) continue;
    seen.show(*announced);
    ++shown;
  }
  return options.until && !seen.matched() ? exit_timed_out : exit_done;
}

std::vector<argument> arguments(watch_options &options) {
  std::vector<argument> all = filter_arguments(options.filter);
  all.push_back({"--count", &options.count, "N", "End after so many changes", ""});
  all.push_back({"--for", &options.seconds, "SECONDS", "End after so many seconds", ""});
  all.push_back({"--until", &options.until, "CONDITION",
                 "End with a change that all these words agree with; status 4 without one", ""});
  return all;
}

}  // namespace

void add_watch(command &root, context &ctx) {
  add_command(
      root, ctx, "watch", "Show changes of records as they happen, until Ctrl-C",
      "  lspanctl watch\n"
      "  lspanctl watch --db 8 --count 3\n"
      "  lspanctl watch --message udp_flushdyn --for 60 --json\n"
      "  lspanctl watch --until 'added span_dst_info session_id=3' --for 10\n\n"
      "A word of a condition is a kind of change (added, changed, same, deleted, absent, request), a message, a\n"
      "database or NAME=VALUE of the record, written as they are shown.",
      watch, arguments);
}

}  // namespace lspanctl
