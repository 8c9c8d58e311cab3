// Each scenario again and again: every platform call and every allocation of every event fails in turn. Up to the
// failure, the event's trace is what it is without; what follows is what one of the rules below allows. When the event
// comes again, the scenario ends with the records and the memory that it has without failures.
//
// To add a rule, add a row to `rules`: the log text by which the failure is recognised, and the function that checks
// what follows. Where none of the functions fits, write another.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iostream>

#include "driver.h"
#include "proc/lspan/ko_lspan.h"
#include "recording.h"
#include "scenario.h"

namespace {

using scenario::words;

bool has(const std::string &line, const std::string &text) { return line.find(text) != std::string::npos; }

bool is_log(const std::string &line) { return line.starts_with("error ") || line.starts_with("debug "); }

bool changes_list(const std::string &line) { return has(line, "mirror_list_add_") || has(line, "mirror_list_del"); }

// ---- an event in which something failed ----

struct broken_event {
  int32_t code;     // of the failure
  words clean;      // the whole trace without it
  words seen;       // the whole trace with it
  bool was_call;    // a platform call failed, not an allocation of the daemon's
  words due, done;  // from the failure on: the trace without it, and with it
};

// The lines that are done to the store, and the status.
words deeds(words lines) {
  std::erase_if(lines, [](const auto &line) { return !line.starts_with("vx_") && !line.starts_with("= "); });
  return lines;
}

broken_event compare(const words &clean, const words &seen, int32_t code) {
  const auto at = std::mismatch(clean.begin(), clean.end(), seen.begin(), seen.end()).second - seen.begin();
  const std::string call = clean.at(at).substr(0, clean[at].find(" -> "));
  const bool was_call = seen.at(at) == call + " = " + std::to_string(code) || seen[at] == call + " -> none";
  const auto from = at + was_call;
  return {code, clean, seen, was_call, {clean.begin() + from, clean.end()}, {seen.begin() + from, seen.end()}};
}

// What the daemon says of the failure at once.
words said(const broken_event &it) {
  return {it.done.begin(), std::max(std::find_if_not(it.done.begin(), it.done.end(), is_log), it.done.begin() + 1)};
}

// ---- the rules: what follows ----

// The callers' words, each with the code, which is the status.
bool passes_the_code_on(const broken_event &it) {
  const std::string answer = std::to_string(it.code);
  const auto end = std::find_if_not(it.done.begin(), it.done.end(), is_log);
  return end + 1 == it.done.end() && it.done.back() == "= " + answer &&
         std::all_of(it.done.begin() + !it.was_call, end, [&](auto &line) { return has(line, '=' + answer); });
}

bool stops(const broken_event &it) {
  return passes_the_code_on(it) && std::none_of(it.seen.begin(), it.seen.end(), changes_list);
}

// Everything, as it does without the failure.
bool goes_on(const broken_event &it) {
  return std::equal(it.done.begin() + 1, it.done.end(), it.due.begin() + 1, it.due.end());
}

// Everything but the deletions of source and result.
bool skips_source(const broken_event &it) {
  const words done = deeds(it.done), due = deeds(it.due);
  return due.size() - done.size() <= 2 && std::equal(done.rbegin(), done.rend(), due.rbegin()) &&
         std::none_of(done.begin(), done.end(),
                      [](auto &line) { return has(line, "_src_info ") || has(line, "du_span"); });
}

// Everything but the entries that are spoken of; a delete that left one ends there.
bool leaves_entries(const broken_event &it) {
  return deeds(it.done) == deeds(it.due) || (has(it.clean[1], "del start") && deeds(it.done) == words{"= 0"});
}

// The result is deleted, as that of an unknown member.
bool deletes_the_result(const broken_event &it) {
  const words done = deeds(it.done);
  return done.size() == 2 && done[1] == "= 0" &&
         has(done[0], "vx_mom_del(UDP_DB, u_monitor.mirror_result_info {t_user=\"du_span\"");
}

// By what the daemon says; the first that fits.
const struct rule {
  const char *said;
  bool (*follows)(const broken_event &it);
  const char *stays = nullptr;  // such a record: the event that comes again does not find the member any more
} rules[] = {
    {"debug ko_lspan_mtp_info_switch: pt_learn set to FWD_DB(fwd_learn)", goes_on, "u_bridge.udp_pt_learn"},
    {"debug ko_lspan_mtp_info_switch: ", goes_on},
    {"error ko_lspan_add: mom add ", stops},
    {"error ko_lspan_del: mom del mtp info failed.", passes_the_code_on, "u_monitor.span_mtp_info"},
    {"error ko_lspan_del: mom del ", stops},
    {"error ko_lspan_search_src_info: get sphyid failed.", skips_source, "_src_info"},
    {"error ko_span_search_src_info: libddm get sphyid failed.", deletes_the_result},
    {"_info: trans ifx to phyid failed.", leaves_entries},
    {"error ko_span_db_set_mtp_info: libddm get dphyid failed.", leaves_entries},
    {"error ko_span_db_save_info: add mirror info fail!", leaves_entries},
    {"error ko_span_db_set_src_info: add src info failed.", leaves_entries},
    {"error ko_span_db_set_dst_info: add dst info failed.", leaves_entries},
    {"error ko_span_db_set_mtp_info: add mtp info failed.", leaves_entries},
    {"error ko_lspan_outgrb_add: no memery for alloc hash_table", stops},
    {"debug ko_lspan_outgrb_add: can't alloc memory for add outflow-group'mbr,", stops},
    {"debug ko_span_del_result: result info del to UDP_DB, ret=", stops},  // the result of an unknown member
    {"= ", stops},                                                         // the result of a known one
};

// The rule that the event follows, or null.
const rule *followed(const broken_event &it) {
  const words what = said(it);
  for (const rule &one : rules)
    if (std::any_of(what.begin(), what.end(), [&](auto &line) { return has(line, one.said); }))
      return one.follows(it) && (!it.was_call || has(it.seen[it.seen.size() - it.done.size() - 1], " -> none") ||
                                 has(what[0], std::to_string(it.code)))
                 ? &one
                 : nullptr;
  return nullptr;
}

// Whether nothing but a deletion of the event, which failed and was not made up for, is what took the record away.
bool may_stay(const std::string &record, const rule &rule, const broken_event &it, const words &again) {
  std::string deletion = "vx_mom_del(" + record.substr(0, record.find('}') + 1) + ')';
  deletion.insert(deletion.find(' '), ",");
  const auto times = [&](const words &trace) { return std::count(trace.begin(), trace.end(), deletion); };
  return rule.stays != nullptr && has(record, rule.stays) && times(it.clean) > 0 && times(it.seen) + times(again) == 0;
}

// ---- the runs ----

enum kind { call, call_positive, allocation, allocation_and_later, n_kinds };

class faults {
 public:
  // The scenario's own failures are left out.
  explicit faults(const std::filesystem::path &file) {
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) {
      words command = line.starts_with('>') ? scenario::split(line) : words{""};
      if (command[0] == "quietly") command.erase(command.begin());
      for (const char *kept : {"set", "del", "result", "null", "noindex", "phyid"})
        if (command[0] == kept) commands_.push_back(command);
    }
  }

  void run() {
    for (size_t event = 0; event < commands_.size() && !testing::Test::HasFailure(); ++event)
      if (commands_[event][0] != "phyid") break_event(event);
    std::cout << points_[call] << " calls, " << points_[call_positive] << " again with positive codes, "
              << points_[allocation] << " allocations, " << points_[allocation_and_later] << " with all that follow; "
              << stayed_ << " records stayed\n";
  }

 private:
  void send(size_t first, size_t end) {
    recording::trace_on(false);
    lspan_zlog_level = 0;
    for (; first < end; ++first) scenario::run(commands_[first]);
  }

  // The event's trace, with everything in it.
  words watch(size_t event) {
    recording::trace_on(true);
    recording::record_lists(true);
    lspan_zlog_level = 5;
    scenario::run(commands_[event]);
    recording::fail_none();
    return recording::take_trace();
  }

  // What the daemon has done and knows at the end of the scenario, sorted.
  words finish(size_t event) {
    send(event + 1, commands_.size());
    words end = recording::store_text();
    for (const std::string &line : driver::memory_text()) end.push_back(line);
    std::sort(end.begin(), end.end());
    return end;
  }

  void restart(size_t event) {
    driver::reset();
    send(0, event);
  }

  void break_event(size_t event) {
    restart(event);
    const words clean = watch(event), once = finish(event);
    restart(event);
    watch(event), watch(event);
    const words twice = finish(event);
    for (int kind = 0; kind < n_kinds; ++kind)
      for (int32_t k = 1;; ++k, ++points_[kind]) {
        restart(event);
        const int32_t code = kind >= allocation ? -2 : kind == call ? -1000 - k : 1000 + k;
        if (kind >= allocation)
          recording::alloc_fail_at(k, kind == allocation_and_later);
        else
          recording::fail("", k, code);
        const words seen = watch(event);
        if (recording::failure_count() == 0) break;
        const bool carried_out = seen.back() == clean.back();  // and once more when it comes again
        judge(event, compare(clean, seen, code), carried_out ? twice : once);
        if (testing::Test::HasFailure()) return;
      }
  }

  // Sends the event again, and looks at how the scenario ends.
  void judge(size_t event, const broken_event &it, const words &wanted) {
    const rule *rule = followed(it);
    const std::string broken = driver::broken();
    const words again = watch(event), end = finish(event);
    words more;
    std::set_symmetric_difference(end.begin(), end.end(), wanted.begin(), wanted.end(), std::back_inserter(more));
    stayed_ += more.size();
    const bool right = rule != nullptr && broken.empty() && std::all_of(more.begin(), more.end(), [&](auto &line) {
                         return may_stay(line, *rule, it, again);
                       });
    EXPECT_TRUE(right) << "event " << event << ", failing with " << it.code << '\n'
                       << broken << "without it:\n"
                       << scenario::text_of(it.clean) << "with it:\n"
                       << scenario::text_of(it.seen) << "only one of the two ends with:\n"
                       << scenario::text_of(more);
  }

  std::vector<words> commands_;
  size_t points_[n_kinds] = {}, stayed_ = 0;
};

}  // namespace

int main(int argc, char **argv) {
  testing::InitGoogleTest(&argc, argv);
  return scenario::run_tests("Faults", "", [](const std::filesystem::path &file) { faults(file).run(); });
}
