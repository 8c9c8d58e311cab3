// lspanctl simulate: events from a file through the daemon's code, with no server.
#include "catalog.h"
#include "commands.h"
#include "dry_daemon.h"
#include "errors.h"
#include "record_json.h"
#include "record_line.h"
#include "values.h"
#include "vx_zlog.h"

namespace lspanctl {
namespace {

using ko_store::change_kind;

struct simulate_options {
  std::optional<std::string> file, level;
};

// One event of the file, ready to be played.
struct scripted_event {
  change_kind kind;
  const record_kind *record;
  ko_store::message_ptr message;
};

// Words of this command, and those that watch --json writes.
change_kind parse_kind(const json &event) {
  if (!event.contains("change")) return change_kind::set;
  const json &word = event["change"];
  for (const char *set : {"set", "added", "changed", "same"})
    if (word == set) return change_kind::set;
  for (const char *del : {"del", "deleted", "absent"})
    if (word == del) return change_kind::del;
  throw refused("change: give \"set\" or \"del\"");
}

const record_kind *parse_place(const json &event) {
  if (!event.contains("message") || !event["message"].is_string()) throw refused("message: give its name");
  const std::string message = parse_message(event["message"].get<std::string>());
  const bool any = !event.contains("db");
  const uint32_t db = any ? 0 : parse_db(event["db"].is_string() ? event["db"].get<std::string>() : dump(event["db"]));
  const record_kind *found = nullptr;
  // The result record stands in two databases; the daemon reads it in the latter.
  for (const record_kind &kind : record_kinds())
    if (kind.stored && message == kind.hash.type->name && (any || db == kind.hash.db)) found = &kind;
  if (found == nullptr) throw refused("message: " + message + " is not stored in that database");
  return found;
}

scripted_event parse_event(const json &event, const interfaces &ports) {
  if (!event.is_object()) throw refused("give an object");
  for (const auto &[name, value] : event.items())
    if (name != "change" && name != "message" && name != "db" && name != "record" && name != "key" && name != "time")
      throw refused(printable(name) + ": give change, message, db and record");
  if (!event.contains("record") && !event.contains("key")) throw refused("record: give one");
  const json record = event.contains("record") ? event["record"] : json{{"index", event["key"]}};
  scripted_event parsed{parse_kind(event), parse_place(event), nullptr};
  const auto lookup = [&ports](const std::string &text) { return ports.parse(text, true); };
  try {
    parsed.message = from_json(*parsed.record->hash.type, record, lookup);
  } catch (const refused &error) {
    throw refused("record: " + std::string(error.what()));
  }
  if (ko_store::key_of(*parsed.message) == nullptr) throw refused("record: index: give it, it is the key");
  return parsed;
}

std::vector<scripted_event> read_events(const std::string &path, const interfaces &ports) {
  json root = read_json_file(path);
  if (root.is_object() && root.contains("events")) root = root["events"];
  if (!root.is_array())
    throw refused(
        name_of_file(path) +
        ": give an array of events, each {\"change\": \"set\" or \"del\", \"message\": NAME, \"record\": {...}}");
  std::vector<scripted_event> events;
  for (size_t i = 0; i < root.size(); ++i) {
    try {
      events.push_back(parse_event(root[i], ports));
    } catch (const std::runtime_error &error) {
      throw refused(name_of_file(path) + ": [" + std::to_string(i) + "]: " + error.what());
    }
  }
  return events;
}

const char *level_name(int level) {
  if (level >= VX_ZLOG_ERROR) return "error";
  if (level >= VX_ZLOG_WARN) return "warn";
  return level >= VX_ZLOG_INFO ? "info" : "debug";
}

const char *kind_name(change_kind kind) {
  if (kind == change_kind::publish) return "publish";
  return kind == change_kind::set ? "set" : "del";
}

// Shows calls, log lines and statuses as they come.
class trace {
 public:
  explicit trace(context &ctx) : ctx_(ctx) {}

  dry_daemon_observer observer() {
    return {.log = [this](const log_line &line) { log(line); },
            .write = [this](const ko_store::change &what) { write(what); },
            .event = [this](int32_t status) { returned(status); }};
  }

  void event(size_t number, const scripted_event &next) {
    handled_ = false;
    const ko_store::hash_id &hash = next.record->hash;
    ctx_.line("\nevent " + std::to_string(number) + ": " + kind_name(next.kind) + " " + place_text(hash) + "  " +
                  to_line(*next.message),
              {{"event", number},
               {"change", kind_name(next.kind)},
               {"db", hash.db},
               {"message", hash.type->name},
               {"record", to_json(*next.message)}});
  }

  void end_event(const scripted_event &next) {
    if (handled_) return;
    const std::string why = next.kind == change_kind::del
                                ? "no event: there is no such record, or the daemon does not ask for its deletes"
                                : "no event: the daemon does not read this record";
    ctx_.line("  " + why, {{"note", why}});
  }

 private:
  void log(const log_line &what) {
    if (what.category != "ko_lspan") return;  // the platform's own view of the same
    std::string text = what.text;
    while (text.ends_with('\n') || text.ends_with('\r')) text.pop_back();
    ctx_.line("  log      " + column(level_name(what.level), 5) + what.function + ": " + text,
              {{"log", level_name(what.level)}, {"function", what.function}, {"text", text}});
  }

  // A delete carries the key alone: it is shown as a record that has nothing else.
  void write(const ko_store::change &what) {
    const ProtobufCMessageDescriptor &type = *what.hash.type;
    const ko_store::message_ptr message =
        what.kind == change_kind::del ? record_of_key(type, what.key) : ko_store::unpack(type, what.record);
    ctx_.line(
        "  " + column(kind_name(what.kind), 7) + column(db_name(what.hash.db), 7) + std::string(short_name(type)) +
            "  " + to_line(*message),
        {{"write", kind_name(what.kind)}, {"db", what.hash.db}, {"message", type.name}, {"record", to_json(*message)}});
  }

  void returned(int32_t status) {
    handled_ = true;
    ctx_.line("  status   " + std::to_string(status), {{"status", status}});
  }

  context &ctx_;
  bool handled_ = false;
};

int simulate(context &ctx, const simulate_options &options) {
  const uint32_t level = parse_number(options.level.value_or("5"), "level", 0, 5);
  const std::vector<scripted_event> events = read_events(*options.file, ctx.ports());
  trace shown(ctx);
  ctx.text_only("start\n");
  dry_daemon daemon(ctx.settings(), level, shown.observer());
  for (size_t i = 0; i < events.size(); ++i) {
    const scripted_event &next = events[i];
    shown.event(i + 1, next);
    daemon.put(ko_store::make_change(next.record->hash.db, next.kind, *next.message));
    shown.end_event(next);
  }
  return 0;
}

std::vector<argument> arguments(simulate_options &options) {
  return {{"file", &options.file, "FILE", "The file, - for standard input", "<file>", true},
          {"--level", &options.level, "N", "Level of the daemon's log, 0 (nothing) to 5 (debug) (5)", "0 1 2 3 4 5"}};
}

}  // namespace

void add_simulate(command &root, context &ctx) {
  add_command(
      root, ctx, "simulate", "Play events through the daemon's own code, with no server; shows all it would do",
      "  lspanctl simulate events.json\n"
      "  lspanctl records --message mirror_lspan_info --json | lspanctl simulate -\n"
      "\nThe file is an array of events:\n"
      "  [{\"change\": \"set\", \"message\": \"data_intf_conf\", \"record\": {\"index\": {\"index\": 7},\n"
      "    \"group_id\": 2}},\n"
      "   {\"change\": \"set\", \"message\": \"mirror_lspan_info\", \"record\": {\"index\": {\"session_num\": 4,\n"
      "    \"s_ifx\": 5, \"d_ifx\": \"group:2\", \"dir\": \"rx\"}, \"module_type\": \"GROUP\",\n"
      "    \"role\": \"LOCALSPAN_DST\"}}]",
      simulate, arguments);
}

}  // namespace lspanctl
