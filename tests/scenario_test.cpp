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

// The rest of an event's line as name=value pairs, each of which must be asked for.
class fields {
 public:
  fields(const words &line, size_t first) {
    for (size_t i = first; i < line.size(); ++i) {
      const size_t split = line[i].find('=');
      if (split == std::string::npos) throw std::invalid_argument("no name=value: " + line[i]);
      values_[line[i].substr(0, split)] = line[i].substr(split + 1);
    }
  }
  std::string text(const char *name, const std::string &otherwise) {
    const auto node = values_.extract(name);
    return node.empty() ? otherwise : node.mapped();
  }
  uint32_t get(const char *name, uint32_t otherwise = 0) {
    const std::string value = text(name, "");
    return value.empty() ? otherwise : number(value);
  }
  void done() const {
    if (!values_.empty()) throw std::invalid_argument("unknown field: " + values_.begin()->first);
  }

 private:
  std::map<std::string, std::string> values_;
};

driver::member parse_member(const words &line) {
  fields in(line, 2);
  driver::member what{in.get("session"),
                      in.get("s"),
                      in.get("d"),
                      in.get("dir"),
                      in.get("acl"),
                      in.get("module"),
                      in.get("role", 1),
                      in.get("apply"),
                      in.get("switch"),
                      in.get("rate"),
                      numbers(in.text("vlan", ""))};
  if (const uint32_t group = in.get("group"); group != 0) {
    what.module = U_MONITOR__MIRROR_MODULE__GROUP;
    what.d = driver::group_target(group);
  }
  in.done();
  return what;
}

int32_t send_result(const words &line) {
  fields in(line, 1);
  const std::string user = in.text("user", "du_span");
  const driver::result what{user.c_str(),  in.get("session"), in.get("s"),      in.get("d"),
                            in.get("dir"), in.get("acl"),     in.get("result"), in.get("msg_type")};
  in.done();
  return driver::report(what);
}

int32_t send_group(const words &line) {
  fields in(line, 2);
  const uint32_t ifx = in.get("ifx");
  const uint32_t group = in.get("group");
  in.done();
  return line[0] == "set" ? driver::join(ifx, group) : driver::leave(ifx, group);
}

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
  const std::string what = line[0] + (line.size() > 1 ? ' ' + line[1] : "");
  int32_t status = 0;
  if (what == "set member") {
    status = driver::set_member(parse_member(line));
  } else if (what == "del member") {
    status = driver::del_member(parse_member(line));
  } else if (what == "set group" || what == "del group") {
    status = send_group(line);
  } else if (line[0] == "result") {
    status = send_result(line);
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

bool for_the_reader(const std::string &line) { return line.empty() || line.starts_with('#'); }

// Both texts with marks where they differ: "-" expected and missing, "+" came out unexpectedly.
std::string difference(const words &expected, const words &actual) {
  std::vector<std::vector<size_t>> common(expected.size() + 1, std::vector<size_t>(actual.size() + 1));
  for (size_t i = expected.size(); i-- > 0;)
    for (size_t j = actual.size(); j-- > 0;)
      common[i][j] = expected[i] == actual[j] ? common[i + 1][j + 1] + 1 : std::max(common[i + 1][j], common[i][j + 1]);
  std::string text;
  size_t i = 0, j = 0;
  while (i < expected.size() || j < actual.size()) {
    if (i < expected.size() && j < actual.size() && expected[i] == actual[j]) {
      text += "  " + expected[i++] + '\n';
      ++j;
    } else if (j == actual.size() || (i < expected.size() && common[i + 1][j] >= common[i][j + 1])) {
      text += "- " + expected[i++] + '\n';
    } else {
      text += "+ " + actual[j++] + '\n';
    }
  }
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
      for (const std::string &line : actual) std::cout << line << '\n';
    else
      EXPECT_TRUE(expected == actual) << difference(expected, actual);
  }

 private:
  void step(const std::string &line) {
    std::istringstream in(line.substr(1));
    words command{std::istream_iterator<std::string>(in), {}};
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
  for (const auto &file : files)
    testing::RegisterTest("Scenario", file.stem().c_str(), nullptr, nullptr, file.c_str(), 1,
                          [file]() -> testing::Test * { return new Scenario(file); });
  if (std::getenv("SCENARIO_PRINT") != nullptr) {
    auto &listeners = testing::UnitTest::GetInstance()->listeners();
    delete listeners.Release(listeners.default_result_printer());
  }
  const int status = RUN_ALL_TESTS();
  driver::reset();
  return status;
}
