// lspanctl status: whether the daemon and the forwarding side are there, and how they are.
#include <ctime>
#include <ostream>

#include "commands.h"
#include "errors.h"
#include "exit_status.h"
#include "request.h"

namespace lspanctl {
namespace {

struct status_options {
  bool prometheus = false;
};

struct program_status {
  const char *program;
  std::string trouble;  // why there is no answer; empty: there is one
  json answer;          // an object

  bool serves() const { return trouble.empty() && text("state") == "serving"; }
  std::string text(const char *key) const {
    const auto found = answer.find(key);
    if (found == answer.end()) return "";
    return found->is_string() ? found->get<std::string>() : dump(*found);
  }
};

program_status ask_status(requester &from, const char *program, std::chrono::milliseconds patience) {
  answer got = from.ask(program, "status", patience);
  if (!got.listening)
    return {program, "not there: nobody answers on this store; start it, or see in its log why", json::object()};
  if (!got.value)
    return {program, "no answer within " + std::to_string(patience.count() / 1000) + " s; look at its log",
            json::object()};
  return {program, "", std::move(*got.value)};
}

std::string to_text(const program_status &status) {
  if (!status.trouble.empty()) return std::string(status.program) + ": " + status.trouble;
  const auto count = [&status](const char *key, const char *one, const char *more) {
    const std::string number = status.text(key);
    return number + " " + (number == "1" ? one : more);
  };
  std::string text = std::string(status.program) + ": " + status.text("state") + ", pid " + status.text("pid") +
                     ", version " + status.text("version") + ", since " + status.text("since") + "\n  " +
                     (status.text("connected") == "true" ? "connected since " + status.text("connected_since")
                                                         : "not connected to the store") +
                     "\n  " + count("events", "event", "events") + ", " + status.text("handler_failures") +
                     " not carried out; " + count("writes", "write", "writes") + ", " + status.text("refused") +
                     " refused; " + count("reads", "read", "reads") + " of the inputs, " +
                     count("rejected", "record", "records") + " passed over";
  const std::string error = status.text("last_error");
  return text + "\n  last error: " + (error.empty() ? "none" : error + " " + status.text("last_error_at"));
}

json to_json(const program_status &status) {
  json value = {{"program", status.program}, {"serving", status.serves()}, {"trouble", status.trouble}};
  value.update(status.answer);
  return value;
}

// ---- for Prometheus ----

struct metric {
  const char *name;
  const char *type;
  const char *help;
  const char *key;  // in the answer
};
constexpr metric metrics[] = {
    {"ko_lspan_events_total", "counter", "Changes that a handler was called for.", "events"},
    {"ko_lspan_handler_failures_total", "counter", "Changes that a handler did not carry out.", "handler_failures"},
    {"ko_lspan_rejected_total", "counter", "Records and requests that were passed over.", "rejected"},
    {"ko_lspan_writes_total", "counter", "Records written.", "writes"},
    {"ko_lspan_refused_total", "counter", "Writes that the store refused.", "refused"},
    {"ko_lspan_reads_total", "counter", "Times that the inputs were read.", "reads"},
};

void print_metric_head(std::ostream &out, const char *name, const char *type, const char *help) {
  out << "# HELP " << name << ' ' << help << "\n# TYPE " << name << ' ' << type << '\n';
}

void print_prometheus(std::ostream &out, const std::vector<program_status> &all) {
  print_metric_head(out, "ko_lspan_up", "gauge", "Whether the program answers and serves.");
  for (const program_status &status : all)
    out << "ko_lspan_up{program=\"" << status.program << "\"} " << (status.serves() ? 1 : 0) << '\n';
  for (const metric &each : metrics) {
    print_metric_head(out, each.name, each.type, each.help);
    for (const program_status &status : all)
      if (status.answer.contains(each.key))
        out << each.name << "{program=\"" << status.program << "\"} " << status.text(each.key) << '\n';
  }
}

// A store that cannot be used is a state to be told, too.
std::vector<program_status> ask_all(context &ctx) {
  std::vector<program_status> all;
  try {
    requester from(ctx);
    for (const char *program : {daemon_program, forwarding_program})
      all.push_back(ask_status(from, program, ctx.patience()));
  } catch (const store_error &error) {
    all.clear();
    for (const char *program : {daemon_program, forwarding_program})
      all.push_back({program, error.what(), json::object()});
  }
  return all;
}

int show_status(context &ctx, const status_options &options) {
  const std::vector<program_status> all = ask_all(ctx);
  if (options.prometheus) {
    print_prometheus(ctx.out, all);
  } else {
    std::string text;
    json list = json::array();
    for (const program_status &status : all) {
      text += (text.empty() ? "" : "\n") + to_text(status);
      list.push_back(to_json(status));
    }
    ctx.line(text, list);
  }
  return all.front().serves() ? exit_done : exit_refused;
}

std::vector<argument> arguments(status_options &options) {
  return {{"--prometheus", &options.prometheus, "", "As text for Prometheus", ""}};
}

}  // namespace

void add_status(command &root, context &ctx) {
  add_command(root, ctx, "status", "Show how the daemon and the forwarding side are; status 0 when the daemon serves",
              "  lspanctl status\n"
              "  lspanctl status --prometheus > /var/lib/prometheus/node-exporter/ko_lspan.prom",
              show_status, arguments);
}

}  // namespace lspanctl
