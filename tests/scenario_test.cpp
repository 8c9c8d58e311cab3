// Scenarios: each file in scenarios/ is a test case. Lines that start with ">" are events and commands, the others the
// whole trace that must come out, line by line; blank lines and lines that start with "#" are for the reader.
//
//   > set member session=3 s=5 d=9 dir=1 acl=2 module=0 role=1 apply=0 switch=1 rate=100 vlan=1,2,3
//     (group=7 stands for module=5 and the tagged id of group 7)          > del member ...
//   > set group ifx=7 group=2            > del group ifx=7
//   > result user=du_span session=3 s=5 d=9 dir=1 acl=2 result=1 msg_type=1
//   > null member|group|result           > noindex member|group|result    events without a record, without its index
//   > level 5                            log level, unsigned
//   > fail vx_mom_set 1 -5               the next call of that function answers -5
//   > phyid 5 77                         interface 5 has physical id 77
//   > untranslatable 5 -3                interface 5 has none, the translation answers -3; 0: it has one again
//   > lists on                           mirror-list calls come into the trace
//   > out of memory 2 [on]               the second allocation from here on fails, with "on" all after it
//   > memory, > store                    show what the daemon keeps, and what the databases hold
//   > quietly set member ...             an event of whose trace only the status counts
//
// An event's last line is its status, "= 0". With SCENARIO_PRINT=1 each file comes out as it would have to be, and is
// not compared; a new one is written from that, each line checked against what the daemon is to do.
//
// Each file is a second test, too, in which every platform call and every allocation of every event fails in turn. Up
// to the failure the event's trace is what it is without, and what follows is what the rules below allow; when the
// event comes again, the scenario ends with the records and the memory that it has without failures.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

#include "driver.h"
#include "proc/lspan/ko_lspan.h"
#include "recording.h"

namespace {

using words = std::vector<std::string>;

uint32_t number(const std::string &text) {
  size_t used = 0;
  const auto value = static_cast<uint32_t>(std::stoll(text, &used, 0));
  if (used != text.size()) throw std::invalid_argument("no number: " + text);
  return value;
}

std::vector<uint32_t> numbers(const std::string &text) {
  std::vector<uint32_t> values;
  std::istringstream in(text);
  for (std::string one; std::getline(in, one, ',');) values.push_back(number(one));
  return values;
}

// What an event's line says in name=value pairs.
struct event {
  driver::member member;
  uint32_t ifx = 0, group = 0, result = 0, msg_type = 0;
  std::string user = "du_span";

  explicit event(const words &line) {
    for (const std::string &pair : line)
      if (const size_t split = pair.find('='); split != std::string::npos)
        read(pair.substr(0, split), pair.substr(split + 1));
    if (group == 0) return;
    member.module = U_MONITOR__MIRROR_MODULE__GROUP;
    member.d = driver::group_target(group);
  }

  void read(const std::string &name, const std::string &value) {
    const std::map<std::string, uint32_t *> fields = {{"session", &member.session},
                                                      {"s", &member.s},
                                                      {"d", &member.d},
                                                      {"dir", &member.dir},
                                                      {"acl", &member.acl},
                                                      {"module", &member.module},
                                                      {"role", &member.role},
                                                      {"apply", &member.apply},
                                                      {"switch", &member.mtp_switch},
                                                      {"rate", &member.rate},
                                                      {"ifx", &ifx},
                                                      {"group", &group},
                                                      {"result", &result},
                                                      {"msg_type", &msg_type}};
    if (name == "user")
      user = value;
    else if (name == "vlan")
      member.vlan = numbers(value);
    else
      *fields.at(name) = number(value);
  }
};

// An event whose record is missing, or lacks its index.
int32_t send_nothing(const std::string &kind, bool record) {
  UMonitor__MirrorLspanInfo member = U_MONITOR__MIRROR_LSPAN_INFO__INIT;
  PPolicy__DataIntfConf group = P_POLICY__DATA_INTF_CONF__INIT;
  UMonitor__MirrorResultInfo result = U_MONITOR__MIRROR_RESULT_INFO__INIT;
  if (kind == "member") return ko_lspan_info_handle(nullptr, 0, record ? &member : nullptr);
  if (kind == "group") return ko_lspan_outgrb_handle(nullptr, 0, record ? &group : nullptr);
  if (kind == "result") return ko_lspan_mom_result_info_set(nullptr, 0, record ? &result : nullptr);
  throw std::invalid_argument("no event: " + kind);
}

// Sends the event of the line and puts its status into the trace; false when the line is none.
bool send_event(const words &line) {
  const event what(line);
  const bool is_del = line[0] == "del";
  int32_t status = 0;
  if (line[0] == "set" || is_del) {
    status = line.at(1) == "member" ? driver::member_event(what.member, is_del)
                                    : driver::group_event(what.ifx, what.group, is_del);
  } else if (line[0] == "result") {
    status = driver::result_event(what.member, what.user, what.result, what.msg_type);
  } else if (line[0] == "null" || line[0] == "noindex") {
    status = send_nothing(line.at(1), line[0] == "noindex");
  } else {
    return false;
  }
  recording::note("= " + std::to_string(status));
  return true;
}

void run_command(const words &line) {
  if (send_event(line)) return;
  const std::string &what = line[0];
  if (what == "level") {
    lspan_zlog_level = number(line.at(1));
  } else if (what == "fail") {
    recording::fail(line.at(1), number(line.at(2)), static_cast<int32_t>(number(line.at(3))));
  } else if (what == "phyid") {
    recording::translate(number(line.at(1)), number(line.at(2)));
  } else if (what == "untranslatable") {
    recording::translation_fails(number(line.at(1)), static_cast<int32_t>(number(line.at(2))));
  } else if (what == "lists") {
    recording::record_lists(line.at(1) == "on");
  } else if (what == "out") {
    recording::alloc_fail_at(number(line.at(3)), line.size() > 4 && line[4] == "on");
  } else if (what == "memory" || what == "store") {
    for (const std::string &text : what == "memory" ? driver::memory_text() : recording::store_text())
      recording::note(text);
  } else {
    throw std::invalid_argument("unknown command: " + what);
  }
}

// The words of a command.
words split(const std::string &line) {
  std::istringstream in(line.substr(1));
  return {std::istream_iterator<std::string>(in), {}};
}

bool for_the_reader(const std::string &line) { return line.empty() || line.starts_with('#'); }

std::string text_of(const words &trace) {
  std::string text;
  for (const std::string &line : trace) text += line + '\n';
  return text;
}

class Scenario : public testing::Test {
 public:
  explicit Scenario(std::filesystem::path file) : file_(std::move(file)) {}

  void TestBody() override {
    driver::reset();
    std::ifstream in(file_);
    ASSERT_TRUE(in) << file_;
    words expected;
    const bool print = std::getenv("SCENARIO_PRINT") != nullptr;
    for (std::string line; std::getline(in, line);) {
      if (print && for_the_reader(line)) recording::note(line);
      if (!for_the_reader(line)) expected.push_back(line);
      if (line.starts_with('>')) step(line);
    }
    const words actual = recording::take_trace();
    EXPECT_EQ(0U, recording::pending_failures()) << "a failure was scripted for a call that was not made";
    if (print)
      std::cout << text_of(actual);
    else
      EXPECT_EQ(text_of(expected), text_of(actual));
  }

 private:
  void step(const std::string &line) {
    words command = split(line);
    recording::note(line);
    try {
      if (command.at(0) == "quietly")
        run_quietly({command.begin() + 1, command.end()});
      else
        run_command(command);
    } catch (const std::exception &error) {
      FAIL() << file_.filename() << ": " << line << ": " << error.what();
    }
    EXPECT_EQ("", driver::broken()) << line;
  }

  // Keeps the event's status only.
  static void run_quietly(const words &command) {
    words &lines = recording::trace();
    const auto before = static_cast<ptrdiff_t>(lines.size());
    run_command(command);
    if (lines.end() - lines.begin() > before) lines.erase(lines.begin() + before, lines.end() - 1);
  }

  std::filesystem::path file_;
};

// ---- failures ----

enum class then {
  stops,           // only words of the callers follow, each with the code, which is the status; no entry has changed
  goes_on,         // everything follows as it does without the failure
  skips_source,    // likewise, but for the deletions of source and result
  leaves_entries,  // likewise, but for the entries that are spoken of; a delete that left one ends there
  asks_away,       // the result is deleted, as that of an unknown member
};

// What follows a failure, by what the daemon says of it at once; the first that fits.
const struct rule {
  const char *said;
  then what;
  const char *stays = nullptr;  // such a record: the event that comes again does not find the member any more
} rules[] = {
    {"debug ko_lspan_mtp_info_switch: pt_learn set to FWD_DB(fwd_learn)", then::goes_on, "u_bridge.udp_pt_learn"},
    {"debug ko_lspan_mtp_info_switch: ", then::goes_on},
    {"error ko_lspan_add: mom add ", then::stops},
    {"error ko_lspan_del: mom del mtp info failed.", then::stops, "u_monitor.span_mtp_info"},
    {"error ko_lspan_del: mom del ", then::stops},
    {"error ko_lspan_search_src_info: get sphyid failed.", then::skips_source, "_src_info"},
    {"error ko_span_search_src_info: libddm get sphyid failed.", then::asks_away},
    {"_info: trans ifx to phyid failed.", then::leaves_entries},
    {"error ko_span_db_set_mtp_info: libddm get dphyid failed.", then::leaves_entries},
    {"error ko_span_db_save_info: add mirror info fail!", then::leaves_entries},
    {"error ko_span_db_set_src_info: add src info failed.", then::leaves_entries},
    {"error ko_span_db_set_dst_info: add dst info failed.", then::leaves_entries},
    {"error ko_span_db_set_mtp_info: add mtp info failed.", then::leaves_entries},
    {"error ko_lspan_outgrb_add: no memery for alloc hash_table", then::stops},
    {"debug ko_lspan_outgrb_add: can't alloc memory for add outflow-group'mbr,", then::stops},
    {"debug ko_span_del_result: result info del to UDP_DB, ret=", then::stops},  // asked away
    {"= ", then::stops},                                                         // relayed
};

bool has(const std::string &line, const std::string &text) { return line.find(text) != std::string::npos; }

bool is_log(const std::string &line) { return line.starts_with("error ") || line.starts_with("debug "); }

bool changes_list(const std::string &line) { return has(line, "mirror_list_add_") || has(line, "mirror_list_del"); }

// What of a trace is done to the store, and the status.
words deeds(words lines) {
  std::erase_if(lines, [](const auto &line) { return !line.starts_with("vx_") && !line.starts_with("= "); });
  return lines;
}

// The rule that `seen`, the trace of an event in which something failed with `code`, follows; null: it follows none.
const rule *followed(const words &base, const words &seen, int32_t code) {
  const std::string answer = std::to_string(code);
  const auto at = std::mismatch(base.begin(), base.end(), seen.begin(), seen.end()).second - seen.begin();
  const std::string call = base.at(at).substr(0, base[at].find(" -> ")), failed = call + " = " + answer;
  const bool called = seen.at(at) == failed || seen[at] == call + " -> none";  // else an allocation of the daemon's
  const words rest(base.begin() + at + called, base.end()), tail(seen.begin() + at + called, seen.end());
  const auto said_end = std::find_if_not(tail.begin(), tail.end(), is_log);
  const auto *found = std::find_if(std::begin(rules), std::end(rules), [&](const rule &one) {
    return std::any_of(tail.begin(), std::max(said_end, tail.begin() + 1), [&](auto &l) { return has(l, one.said); });
  });
  if (found == std::end(rules) || (seen[at] == failed && !has(tail[0], answer))) return nullptr;
  const words done = deeds(tail), due = deeds(rest);
  bool right = false;
  switch (found->what) {
    case then::stops:
      right = said_end + 1 == tail.end() && tail.back() == "= " + answer &&
              std::all_of(tail.begin() + !called, said_end, [&](auto &line) { return has(line, '=' + answer); }) &&
              (found->stays != nullptr || std::none_of(seen.begin(), seen.end(), changes_list));
      break;
    case then::goes_on:
      right = std::equal(tail.begin() + 1, tail.end(), rest.begin() + 1, rest.end());
      break;
    case then::skips_source:
      right = due.size() - done.size() <= 2 && std::equal(done.rbegin(), done.rend(), due.rbegin()) &&
              std::none_of(done.begin(), done.end(),
                           [](auto &line) { return has(line, "_src_info ") || has(line, "du_span"); });
      break;
    case then::leaves_entries:
      right = done == due || (has(base[1], "del start") && done == words{"= 0"});
      break;
    case then::asks_away:
      right = done.size() == 2 && has(done[0], "vx_mom_del(UDP_DB, u_monitor.mirror_result_info {t_user=\"du_span\"") &&
              done[1] == "= 0";
  }
  return right ? found : nullptr;
}

// The scenario's own failures are left out, and in the event that fails everything comes into the trace.
class Faults : public testing::Test {
 public:
  explicit Faults(std::filesystem::path file) : file_(std::move(file)) {}

  void TestBody() override {
    std::ifstream in(file_);
    for (std::string line; std::getline(in, line);) {
      words command = line.starts_with('>') ? split(line) : words{""};
      if (command[0] == "quietly") command.erase(command.begin());
      for (const char *kept : {"set", "del", "result", "null", "noindex", "phyid"})
        if (command[0] == kept) commands_.push_back(command);
    }
    for (size_t event = 0; event < commands_.size() && !HasFailure(); ++event)
      if (commands_[event][0] != "phyid") fail_each(event);
    std::cout << points_[0] << " calls, " << points_[1] << " again with positive codes, " << points_[2]
              << " allocations, " << points_[3] << " with all that follow; " << stayed_ << " records stayed\n";
  }

 private:
  void send(size_t first, size_t end) {
    recording::trace_on(false);
    lspan_zlog_level = 0;
    for (; first < end; ++first) run_command(commands_[first]);
  }

  words watch(size_t event) {
    recording::trace_on(true);
    recording::record_lists(true);
    lspan_zlog_level = 5;
    run_command(commands_[event]);
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

  void fail_each(size_t event) {
    restart(event);
    const words base = watch(event), once = finish(event);
    restart(event);
    watch(event), watch(event);
    const words twice = finish(event);
    for (size_t kind = 0; kind < 4; ++kind)
      for (int32_t k = 1;; ++k, ++points_[kind]) {
        restart(event);
        const int32_t code = kind > 1 ? -2 : kind == 0 ? -1000 - k : 1000 + k;
        kind > 1 ? recording::alloc_fail_at(k, kind == 3) : recording::fail("", k, code);
        const words seen = watch(event);
        if (recording::failure_count() == 0) break;
        const rule *rule = followed(base, seen, code);
        const std::string broken = driver::broken();
        const words again = watch(event), end = finish(event);
        const words &wanted = seen.back() == base.back() ? twice : once;  // what went on was carried out twice
        words more;
        std::set_symmetric_difference(end.begin(), end.end(), wanted.begin(), wanted.end(), std::back_inserter(more));
        stayed_ += more.size();
        const bool right = rule != nullptr && broken.empty() && std::all_of(more.begin(), more.end(), [&](auto &line) {
                             return may_stay(line, *rule, base, seen, again);
                           });
        ASSERT_TRUE(right) << "event " << event << ", failure " << k << " of kind " << kind << '\n'
                           << broken << "without it:\n"
                           << text_of(base) << "with it:\n"
                           << text_of(seen) << "only one of the two ends with:\n"
                           << text_of(more);
      }
  }

  // Whether nothing but a deletion of the event, which failed and was not made up for, is what took the record away.
  static bool may_stay(const std::string &record, const rule &rule, const words &base, const words &seen,
                       const words &again) {
    std::string deletion = "vx_mom_del(" + record.substr(0, record.find('}') + 1) + ')';
    deletion.insert(deletion.find(' '), ",");
    const auto times = [&](const words &trace) { return std::count(trace.begin(), trace.end(), deletion); };
    return rule.stays != nullptr && has(record, rule.stays) && times(base) > 0 && times(seen) + times(again) == 0;
  }

  std::filesystem::path file_;
  std::vector<words> commands_;
  size_t points_[4] = {}, stayed_ = 0;
};

}  // namespace

int main(int argc, char **argv) {
  testing::InitGoogleTest(&argc, argv);
  std::vector<std::filesystem::path> files;
  for (const auto &entry : std::filesystem::directory_iterator(SCENARIO_DIR))
    if (entry.path().extension() == ".scn") files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  if (files.empty()) {
    std::cerr << "no scenarios in " << SCENARIO_DIR << '\n';
    return 1;
  }
  for (const auto &file : files) {
    testing::RegisterTest("Scenario", file.stem().c_str(), nullptr, nullptr, file.c_str(), 1,
                          [file]() -> testing::Test * { return new Scenario(file); });
    testing::RegisterTest("Faults", file.stem().c_str(), nullptr, nullptr, file.c_str(), 1,
                          [file]() -> testing::Test * { return new Faults(file); });
  }
  if (std::getenv("SCENARIO_PRINT") != nullptr) {
    auto &listeners = testing::UnitTest::GetInstance()->listeners();
    delete listeners.Release(listeners.default_result_printer());
  }
  const int status = RUN_ALL_TESTS();
  driver::reset();
  return status;
}
