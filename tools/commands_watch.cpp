// lspanctl watch: changes as they happen. It holds a copy of what it watches, which tells what a change changed.
#include <csignal>
#include <ctime>
#include <map>
#include <memory>
#include <ostream>

#include "commands.h"
#include "records.h"
#include "render.h"
#include "text.h"

namespace lspanctl {
namespace {

using ko_store::change_kind;
using clock = std::chrono::steady_clock;

volatile std::sig_atomic_t stop_requested = 0;

void request_stop(int) { stop_requested = 1; }

// While it lives, SIGINT and SIGTERM are held back and arrive only in a wait with mask().
class stop_signals {
 public:
  stop_signals() {
    stop_requested = 0;
    sigset_t held;
    sigemptyset(&held);
    sigaddset(&held, SIGINT);
    sigaddset(&held, SIGTERM);
    sigprocmask(SIG_BLOCK, &held, &before_);
    struct sigaction action = {};
    action.sa_handler = request_stop;
    sigaction(SIGINT, &action, &interrupt_);
    sigaction(SIGTERM, &action, &terminate_);
  }
  ~stop_signals() {
    sigaction(SIGINT, &interrupt_, nullptr);
    sigaction(SIGTERM, &terminate_, nullptr);
    sigprocmask(SIG_SETMASK, &before_, nullptr);
  }
  stop_signals(const stop_signals &) = delete;
  stop_signals &operator=(const stop_signals &) = delete;
  const sigset_t &mask() const { return before_; }

 private:
  sigset_t before_;
  struct sigaction interrupt_, terminate_;
};

struct event {
  const record_kind *kind;
  std::string what;                 // added, changed, same, deleted, request, unreadable
  const ProtobufCMessage *message;  // null when unreadable; of what was deleted and is not known, the key alone
  std::string text;
};

class watcher {
 public:
  watcher(context &ctx, const record_filter &filter) : db_(filter.wanted_db()), message_(filter.wanted_message()) {
    for (const record_kind &kind : record_kinds()) {
      if (!wanted(kind)) continue;
      channels_[ko_store::channel_name(kind.db, kind.type->name)] = &kind;
    }
    if (channels_.empty())
      throw usage_error(db_name(db_) + " has no " + message_ + "; leave one of --db and --message out");
    ctx_ = &ctx;
  }

  // Subscribes before it reads, so that nothing is missed in between.
  void start(store_client &announcements, store_client &store) {
    for (const auto &[channel, kind] : channels_) announcements.subscribe(channel);
    for (const auto &[channel, kind] : channels_) {
      if (!kind->stored) continue;
      for (stored_record &record : store.read_all(kind->db, kind->type->name))
        copy_[channel][record.key] = std::move(record.record);
    }
  }

  void show(const store_client::announced &announced) {
    const record_kind &kind = *channels_.at(announced.channel);
    const auto parsed = ko_store::parse_announcement({kind.db, kind.type}, announced.bytes);
    if (parsed)
      take(kind, *parsed, copy_[announced.channel]);
    else
      print({&kind, "unreadable", nullptr, "announcement 0x" + hex_text(announced.bytes)});
  }

 private:
  using records = std::map<std::string, std::string, std::less<>>;

  bool wanted(const record_kind &kind) const {
    return (db_ == 0 || db_ == kind.db) && (message_.empty() || message_ == kind.type->name);
  }

  void take(const record_kind &kind, const ko_store::change &announced, records &copy) {
    const auto held = copy.find(announced.key);
    const bool known = held != copy.end();
    std::string_view now = announced.record;
    if (announced.kind == change_kind::del && known) now = held->second;
    const bool only_key = announced.kind == change_kind::del && !known;
    const ko_store::message_ptr message =
        only_key ? record_of_key(*kind.type, announced.key) : ko_store::unpack(*kind.type, now);
    const ko_store::message_ptr before = known ? ko_store::unpack(*kind.type, held->second) : nullptr;
    if (only_key) {
      const std::string key = message == nullptr ? "key 0x" + hex_text(announced.key) : to_line(*message);
      print({&kind, "deleted", message.get(), key + ", not seen before"});
    } else if (message == nullptr) {
      print({&kind, "unreadable", nullptr, "key 0x" + hex_text(announced.key) + " record 0x" + hex_text(now)});
    } else if (announced.kind == change_kind::publish) {
      print({&kind, "request", message.get(), to_line(*message)});
    } else if (announced.kind == change_kind::del) {
      print({&kind, "deleted", message.get(), to_line(*message)});
    } else if (before == nullptr) {
      print({&kind, "added", message.get(), to_line(*message)});
    } else {
      const std::string changes = difference(*before, *message);
      const std::string key = key_line(*message);
      print({&kind, changes.empty() ? "same" : "changed", message.get(), changes.empty() ? key : key + ": " + changes});
    }
    if (announced.kind == change_kind::set) copy[std::string(announced.key)] = announced.record;
    if (announced.kind == change_kind::del && known) copy.erase(held);
  }

  static std::string key_line(const ProtobufCMessage &message) {
    const ProtobufCMessage *key = ko_store::key_of(message);
    std::string line;
    for (const cell &part : to_cells(message))
      if (part.in_key) line += (line.empty() ? "" : " ") + part.name + "=" + part.text;
    return key == nullptr ? "no index" : line;
  }

  void print(const event &what) {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    tm local;
    localtime_r(&now.tv_sec, &local);
    char time[32];
    const size_t length = std::strftime(time, sizeof time, ctx_->json ? "%FT%T" : "%T", &local);
    std::snprintf(time + length, sizeof time - length, ".%03ld", now.tv_nsec / 1000000);
    if (ctx_->json) {
      json line = {{"time", time}, {"db", what.kind->db}, {"message", what.kind->type->name}, {"change", what.what}};
      if (what.message != nullptr)
        line["record"] = to_json(*what.message);
      else
        line["text"] = what.text;
      ctx_->out << dump(line) << '\n';
    } else {
      const auto column = [this](std::string text, size_t width) {
        text.resize(std::max(text.size(), width), ' ');
        ctx_->out << text << "  ";
      };
      column(time, 0);
      column(db_name(what.kind->db), 7);
      column(what.what, 7);
      column(std::string(short_name(*what.kind->type)), 18);
      ctx_->out << what.text << '\n';
    }
    ctx_->out.flush();
  }

  context *ctx_;
  uint32_t db_;
  std::string message_;
  std::map<std::string, const record_kind *> channels_;
  std::map<std::string, records> copy_;
};

struct watch_options {
  record_filter filter;
  std::string count, seconds;
};

int watch(context &ctx, const watch_options &options) {
  watcher seen(ctx, options.filter);
  const uint32_t count = options.count.empty() ? 0 : parse_number(options.count, "count", 1);
  std::optional<clock::time_point> deadline;
  if (!options.seconds.empty())
    deadline = clock::now() + std::chrono::seconds(parse_number(options.seconds, "seconds", 1));
  store_client store = ctx.connect();
  store_client announcements = ctx.connect();
  const stop_signals signals;
  seen.start(announcements, store);
  ctx.err << "lspanctl: watching; end it with Ctrl-C" << std::endl;
  for (uint32_t shown = 0; (count == 0 || shown < count) && stop_requested == 0 && ctx.out;) {
    const auto announced = announcements.next(deadline, signals.mask());
    if (!announced && deadline && clock::now() >= *deadline) break;
    if (!announced) continue;
    seen.show(*announced);
    ++shown;
  }
  return 0;
}

}  // namespace

void add_watch_command(CLI::App &root, context &ctx) {
  CLI::App *command = add_command(root, "watch", "Show changes of records as they happen, until Ctrl-C",
                                  "  lspanctl watch\n"
                                  "  lspanctl watch --db 8 --count 3\n"
                                  "  lspanctl watch --message udp_flushdyn --for 60 --json");
  auto options = std::make_shared<watch_options>();
  add_filter_options(*command, options->filter);
  command->add_option("--count", options->count, "End after so many changes")->type_name("N");
  command->add_option("--for", options->seconds, "End after so many seconds")->type_name("SECONDS");
  command->callback([&ctx, options] { ctx.action = [&ctx, options] { return watch(ctx, *options); }; });
}

}  // namespace lspanctl
