// lspanctl status: whether the daemon and the forwarding side are there, and how they are.
#include <algorithm>
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
  bool stands_by() const { return trouble.empty() && text("state") == "standby"; }
  bool is_shared() const { return answer.contains("host"); }  // with a process that may take over
  std::string text(const char *key) const {
    const auto found = answer.find(key);
    if (found == answer.end()) return "";
    return found->is_string() ? found->get<std::string>() : dump(*found);
  }
};

// Each process that answers as `program`, the active one first.
std::vector<program_status> ask_status(requester &from, const char *program, std::chrono::milliseconds patience) {
  requester::answers got = from.ask_all(program, "status", patience);
  if (!got.listening)
    return {{program, "not there: nobody answers on this store; start it, or see in its log why", json::object()}};
  if (got.values.empty())
    return {{program, "no answer within " + std::to_string(patience.count() / 1000) + " s; look at its log",
             json::object()}};
  std::vector<program_status> all;
  for (json &value : got.values) all.push_back({program, "", std::move(value)});
  std::stable_partition(all.begin(), all.end(), [](const program_status &each) { return !each.stands_by(); });
  return all;
}

std::string active_text(const program_status &status) {
  const std::string host = status.text("active_host"), since = status.text("active_since");
  if (since.empty()) return "nobody is known to be active";
  return (status.stands_by() ? host + ", pid " + status.text("active_pid") + ", is active" : "active") + " since " +
         since;
}

std::string to_text(const program_status &status) {
  if (!status.trouble.empty()) return std::string(status.program) + ": " + status.trouble;
  const auto count = [&status](const char *key, const char *one, const char *more) {
    const std::string number = status.text(key);
    return number + " " + (number == "1" ? one : more);
  };
  std::string text = std::string(status.program) + ": " + status.text("state") +
                     (status.is_shared() ? ", host " + status.text("host") : "") + ", pid " + status.text("pid") +
                     ", version " + status.text("version") + ", since " + status.text("since") + "\n  " +
                     (status.is_shared() ? active_text(status) + "\n  " : "") +
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

std::string labels(const program_status &status) {
  const std::string host = status.text("host");
  return std::string("{program=\"") + status.program + "\"" + (host.empty() ? "" : ",host=\"" + host + "\"") + "} ";
}

// Seconds since 1970 of a time as answers have it; 0 when it is none.
long long epoch(const std::string &when) {
  std::tm time{};
  if (strptime(when.c_str(), "%FT%T%z", &time) == nullptr) return 0;
  const long offset = time.tm_gmtoff;
  return timegm(&time) - offset;
}

void print_metric_head(std::ostream &out, const char *name, const char *type, const char *help) {
  out << "# HELP " << name << ' ' << help << "\n# TYPE " << name << ' ' << type << '\n';
}

void print_prometheus(std::ostream &out, const std::vector<program_status> &all) {
  print_metric_head(out, "ko_lspan_up", "gauge", "Whether the program answers, and serves or stands by.");
  for (const program_status &status : all)
    out << "ko_lspan_up" << labels(status) << (status.serves() || status.stands_by() ? 1 : 0) << '\n';
  print_metric_head(out, "ko_lspan_active", "gauge", "Whether the program is the active one.");
  for (const program_status &status : all)
    if (status.answer.contains("active"))
      out << "ko_lspan_active" << labels(status) << (status.text("active") == "true" ? 1 : 0) << '\n';
  print_metric_head(out, "ko_lspan_active_since_seconds", "gauge", "When it became so, in seconds since 1970.");
  for (const program_status &status : all)
    if (status.is_shared() && !status.stands_by())
      out << "ko_lspan_active_since_seconds" << labels(status) << epoch(status.text("active_since")) << '\n';
  for (const metric &each : metrics) {
    print_metric_head(out, each.name, each.type, each.help);
    for (const program_status &status : all)
      if (status.answer.contains(each.key)) out << each.name << labels(status) << status.text(each.key) << '\n';
  }
}

// That the store cannot be used is a state to be shown, too.
std::vector<program_status> ask_all(context &ctx) {
  std::vector<program_status> all;
  try {
    requester from(ctx);
    for (const char *program : {daemon_program, forwarding_program})
      for (program_status &each : ask_status(from, program, ctx.patience())) all.push_back(std::move(each));
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
  if (all.front().stands_by()) return exit_standby;
  return all.front().serves() ? exit_done : exit_refused;
}

std::vector<argument> arguments(status_options &options) {
  return {{"--prometheus", &options.prometheus, "", "As text for Prometheus", ""}};
}

}  // namespace

void add_status(command &root, context &ctx) {
  add_command(root, ctx, "status",
              "Show how the daemon and the forwarding side are; status 0 when the daemon serves, 6 when it stands by",
              "  lspanctl status\n"
              "  lspanctl status --prometheus > /var/lib/prometheus/node-exporter/ko_lspan.prom",
              show_status, arguments);
}

}  // namespace lspanctl
