// Each file in scenarios/ is a test: the whole trace of its events must come out, line by line. Every log record must
// carry a line of the function that it names.
//
// With SCENARIO_PRINT=1 each file comes out as it would have to be, and is not compared.
#include "scenario.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iostream>

#include "driver.h"
#include "recording.h"

namespace {

using scenario::words;

const bool print = std::getenv("SCENARIO_PRINT") != nullptr;

bool for_the_reader(const std::string &line) { return line.empty() || line.starts_with('#'); }

// Runs the line; "quietly" keeps the event's status only. `translations` is what the line says of them.
void step(const std::string &line, bool &translations) {
  words command = scenario::split(line);
  const bool quietly = command.at(0) == "quietly";
  if (quietly) command.erase(command.begin());
  if (command.at(0) == "translations")
    translations = command.at(1) == "on";
  else
    scenario::run(command);
  words lines = scenario::shown(recording::take_trace(), translations);
  if (quietly && !lines.empty()) lines.erase(lines.begin(), lines.end() - 1);
  recording::trace() = std::move(lines);
}

void run_file(const std::filesystem::path &file) {
  driver::reset();
  std::ifstream in(file);
  words expected, actual;
  bool translations = false;
  for (std::string line; std::getline(in, line);) {
    if (for_the_reader(line) ? print : line.starts_with('>')) actual.push_back(line);
    if (!for_the_reader(line)) expected.push_back(line);
    if (!line.starts_with('>')) continue;
    ASSERT_NO_THROW(step(line, translations)) << file.filename() << ": " << line;
    for (std::string &seen : recording::take_trace()) actual.push_back(std::move(seen));
    EXPECT_EQ("", driver::broken()) << line;
  }
  EXPECT_EQ(0U, recording::pending_failures()) << "a failure was scripted for a call that was not made";
  if (print)
    std::cout << scenario::text_of(actual);
  else
    EXPECT_EQ(scenario::text_of(expected), scenario::text_of(actual));
}

}  // namespace

int main(int argc, char **argv) {
  testing::InitGoogleTest(&argc, argv);
  if (print) {
    auto &listeners = testing::UnitTest::GetInstance()->listeners();
    delete listeners.Release(listeners.default_result_printer());
  }
  return scenario::run_tests("Scenario", run_file);
}
