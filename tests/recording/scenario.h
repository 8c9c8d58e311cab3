// Scenario files: events and commands, and what has to follow from them. scenarios/README.md describes their grammar.
#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace scenario {

using words = std::vector<std::string>;

// The words of a line that starts with ">".
words split(const std::string &line);

// Sends the event of a line, or does what its command asks for; throws an exception for one that is none.
void run(const words &line);

// The recorded lines as scenarios show them: groups as "group:7"; translations that succeeded only when asked for.
words shown(words trace, bool translations);

std::string text_of(const words &trace);

// The whole contents of the file must be what `step` answers to each of its lines that start with ">". With
// SCENARIO_PRINT=1 in the environment the file is printed as it would have to be, and not compared.
void check(const std::filesystem::path &file, const std::function<words(const std::string &line)> &step);

// Runs `body` as a test for each file of a folder ("": scenarios, "/start": of start-up), and what other tests the
// program has. Returns the exit status of the program.
int run_tests(const char *suite, const char *folder, const std::function<void(const std::filesystem::path &)> &body);

}  // namespace scenario
