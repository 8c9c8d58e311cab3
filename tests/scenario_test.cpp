// Each file in scenarios/ is a test: the whole trace of its events must come out, line by line. Every log record must
// carry a line of the function that it names.
#include <gtest/gtest.h>

#include "driver.h"
#include "recording.h"
#include "scenario.h"

namespace {

using scenario::words;

// Runs the line; "quietly" keeps the event's status only. `translations` is what the line says of them.
words step(const std::string &line, bool &translations) {
  words command = scenario::split(line);
  const bool quietly = command.at(0) == "quietly";
  if (quietly) command.erase(command.begin());
  if (command.at(0) == "translations")
    translations = command.at(1) == "on";
  else
    scenario::run(command);
  words lines = scenario::shown(recording::take_trace(), translations);
  if (quietly && !lines.empty()) lines.erase(lines.begin(), lines.end() - 1);
  EXPECT_EQ("", driver::broken()) << line;
  return lines;
}

void run_file(const std::filesystem::path &file) {
  driver::reset();
  bool translations = false;
  scenario::check(file, [&](const std::string &line) { return step(line, translations); });
  EXPECT_EQ(0U, recording::pending_failures()) << "a failure was scripted for a call that was not made";
}

}  // namespace

int main(int argc, char **argv) {
  testing::InitGoogleTest(&argc, argv);
  return scenario::run_tests("Scenario", "", run_file);
}
