// The logging wrappers on spdlog: one line a record whatever the text holds, and no failure that reaches the caller.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>

#include "log/line.h"
#include "platform_config.h"
#include "platform_log.h"
#include "vx_zlog.h"

namespace {
std::string log_file;  // of the process
}

ko_platform::log_settings ko_platform::process_log_settings() noexcept { return {log_file, ""}; }

namespace {

void write_record(vx_zlog_category *category, int level, const char *text) {
  vxdf_zlog(category, "a.cpp", 5, "handler and more", 7, 42, level, "%s", text);
}

std::string read_file(const std::string &path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

// Lines of the log without their times and the program's name and number, which must be there.
std::string without_times(const std::string &log) {
  std::string out;
  std::istringstream stream(log);
  for (std::string line; std::getline(stream, line);) {
    const size_t name = line.find(" log_test[");
    const bool is_right = line.size() > 24 && line[10] == ' ' && line[19] == '.' && name == 23;
    out += (is_right ? line.substr(line.find("] ") + 2) : "no time: " + line) + '\n';
  }
  return out;
}

// Runs `body` in a process that logs to `file`; what it wrote to standard error comes back.
std::string standard_error(const std::string &file, const std::function<void()> &body,
                           const std::function<void()> &prepare = {}) {
  const std::string path = testing::TempDir() + "log_test." + std::to_string(getpid());
  const pid_t child = fork();
  if (child == 0) {
    log_file = file;
    dup2(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
    if (prepare) prepare();
    body();
    _exit(0);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  std::string text = read_file(path);
  std::filesystem::remove(path);
  return text;
}

TEST(log, text_of_a_line) {
  const struct {
    std::string text, coloured, plain;
  } cases[] = {
      {"done, rv=0\r\n", "done, rv=0", "done, rv=0"},
      {"\033[32minit start.\033[0m", "\033[32minit start.\033[0m", "init start."},
      {"\033[1;31mred\033[m\n\r\n", "\033[1;31mred\033[m", "red"},
      {"a\r\n2026-01-01 forged\n", "a\\r\\n2026-01-01 forged", "a\\r\\n2026-01-01 forged"},
      {"\033[2J\033]0;title\007\033[3", "\\x1b[2J\\x1b]0;title\\x07\\x1b[3", "\\x1b[2J\\x1b]0;title\\x07\\x1b[3"},
      {std::string("tab\t\0\x7f \xc3\xa9", 9), "tab\t\\x00\\x7f \xc3\xa9", "tab\t\\x00\\x7f \xc3\xa9"},
      {"\r\n", "", ""},
  };
  for (const auto &one : cases)
    for (const bool colours : {true, false}) {
      std::pmr::string line;
      ko_platform::append_line_text(line, one.text, colours);
      EXPECT_EQ(std::string(line), colours ? one.coloured : one.plain);
    }
}

TEST(log, where_lines_go) {
  const auto body = [] {
    vx_zlog_category *first = vx_zlog_init("ko_lspan"), *second = vx_zlog_init("dl");
    if (first != vx_zlog_init("ko_lspan") || first == second || vx_zlog_init(nullptr) != nullptr) _exit(1);
    write_record(first, VX_ZLOG_ERROR, "plain\r\n");
    write_record(second, VX_ZLOG_WARN, "\033[33mtwo\nlines\033[0m");
    write_record(first, VX_ZLOG_INFO, "");
    for (const size_t length : {2046U, 2047U, 2048U})
      write_record(first, VX_ZLOG_DEBUG, std::string(length, 'x').c_str());
    for (const size_t length : {1022U, 1023U, 1024U})
      ko_platform::platform_channel.write(VX_ZLOG_ERROR, "a.cpp", "func", 1, "%s", std::string(length, 'y').c_str());
    write_record(nullptr, VX_ZLOG_ERROR, "dropped");
  };
  std::string lines = "error ko_lspan handler:42 plain\nwarning dl handler:42 two\\nlines\ninfo ko_lspan handler:42 \n";
  for (const size_t length : {2046, 2047, 2047})
    lines += "debug ko_lspan handler:42 " + std::string(length, 'x') + '\n';
  for (const size_t length : {1022, 1023, 1023}) lines += "error ko_platform func:1 " + std::string(length, 'y') + '\n';
  const std::string file = testing::TempDir() + "log_test.log";
  EXPECT_EQ(without_times(standard_error("", body)), lines);
  EXPECT_EQ(standard_error(file, body), "");
  EXPECT_EQ(standard_error(file, body), "");
  EXPECT_EQ(without_times(read_file(file)), lines + lines);
  std::filesystem::remove(file);

  const std::string fifo = testing::TempDir() + "log_test.fifo." + std::to_string(getpid());
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  int reader = -1;  // of the FIFO, which is full then
  const std::pair<std::string, std::string> refusals[] = {
      {"/dev/full", "written: No space left on device"},
      {testing::TempDir(), "opened: Is a directory"},
      {testing::TempDir() + "none/x", "opened: No such file or directory"},
      {fifo, "opened: nobody reads it"},
      {fifo, "written: Resource temporarily unavailable"}};
  for (const auto &[path, why] : refusals) {
    if (why.starts_with("written: R")) reader = open(fifo.c_str(), O_RDWR | O_NONBLOCK);
    while (reader >= 0 && write(reader, lines.data(), 4096) > 0) continue;
    const std::string said = standard_error(path, body), head = "log: " + path + " cannot be " + why;
    EXPECT_EQ(said.substr(0, said.find(';')), head);
    EXPECT_EQ(without_times(said.substr(said.find('\n') + 1)), lines);
  }
  close(reader);
  std::filesystem::remove(fifo);
}

// The journal gets the priority of each line.
TEST(log, lines_for_the_journal) {
  const std::string said = standard_error(
      "",
      [] {
        for (const int level : {VX_ZLOG_ERROR, VX_ZLOG_WARN, VX_ZLOG_INFO, VX_ZLOG_DEBUG})
          write_record(vx_zlog_init("dl"), level, "line");
      },
      [] {
        struct stat at;
        fstat(STDERR_FILENO, &at);
        setenv("JOURNAL_STREAM", (std::to_string(at.st_dev) + ":" + std::to_string(at.st_ino)).c_str(), 1);
      });
  std::istringstream lines(said);
  std::string priorities;
  for (std::string line; std::getline(lines, line);) priorities += line.substr(0, 3);
  EXPECT_EQ(priorities, "<3><4><6><7>");
}

// A process without standard files: what is written to standard error does not get into the next one that is opened.
TEST(log, no_other_file_is_written_to) {
  standard_error("", [] {
    for (const int file : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) close(file);
    vx_zlog_category *category = vx_zlog_init("dl");
    FILE *next = std::tmpfile();
    write_record(category, VX_ZLOG_ERROR, "lost");
    if (next == nullptr || lseek(fileno(next), 0, SEEK_END) != 0) _exit(1);
  });
}

TEST(log, levels_admit) {  // no file of that name gives another level
  for (uint32_t level = 0; level <= 6; ++level) {
    std::string admitted;
    ko_platform::log_channel channel("log_test.none", level == 6 ? UINT32_MAX : level);
    for (const int kind : {VX_ZLOG_ERROR, VX_ZLOG_WARN, VX_ZLOG_INFO, VX_ZLOG_DEBUG})
      admitted += channel.enabled(kind) ? '+' : '-';
    const char *const expected[] = {"----", "+---", "++--", "++--", "+++-", "++++", "++++"};
    EXPECT_EQ(admitted, expected[level]) << level;
  }
}

TEST(log, formatting_is_cut_and_terminated) {
  char text[4] = {'#', '#', '#', '#'};
  EXPECT_EQ(at_snprintf(text, 0, "%d", 1), 1);
  EXPECT_EQ(text[0], '#');
  for (const char *whole : {"ab", "abc", "abcd"}) {
    EXPECT_EQ(at_snprintf(text, sizeof(text), "%s", whole), static_cast<int>(std::strlen(whole)));
    EXPECT_EQ(std::string(text), std::string(whole).substr(0, 3));
  }
}

}  // namespace
