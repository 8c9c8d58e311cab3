// Scenario files: events and commands, and what has to follow from them. Their grammar stands in scenarios/README.md.
#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace scenario {

using words = std::vector<std::string>;

// The files, sorted.
std::vector<std::filesystem::path> files();

// The words of a line that starts with ">".
words split(const std::string &line);

// Sends the event of a line, or does what its command asks for; throws an exception for one that is none.
void run(const words &line);

// The recorded lines as scenarios show them: groups as "group:7"; translations that succeeded only when asked for.
words shown(words trace, bool translations);

std::string text_of(const words &trace);

// Runs `body` as a test for each file, and what other tests the program has. Returns the exit status of the program.
int run_tests(const char *suite, const std::function<void(const std::filesystem::path &file)> &body);

}  // namespace scenario
