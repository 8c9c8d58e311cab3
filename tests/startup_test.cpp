// Start-up, each case in a child process with a /var/run and /var/tmp of its own: real files, real locks, and caches
// that are filled once per process. What happened comes back as the recording platform's trace; the cases and their
// traces are in scenarios/start.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

#include "001_init_a/dl_init.h"
#include "namespaces.h"
#include "proc/lspan/ko_lspan.h"
#include "recording.h"
#include "scenario.h"

int ko_lspan_main();  // the daemon's main under a name that does not clash

namespace {

using scenario::words;
using std::string;

// The emulator has a /proc/self/exe of its own, and the kernel cannot start programs of the emulated kind.
const bool emulated = std::getenv("KO_EMULATED") != nullptr;

constexpr int no_namespace = 77;  // exit status of a child that may not make its own folders
const char *const pid_file = "/var/run/startup_test.pid";

// Makes a file with these contents, or one of a special kind.
void make_file(const string &path, const string &contents) {
  if (contents == "<folder>") {
    std::filesystem::create_directory(path);
  } else if (contents == "<fifo>") {
    if (mkfifo(path.c_str(), 0644) != 0) abort();
  } else if (contents == "<loop>") {
    std::filesystem::create_symlink(path, path);
  } else if (contents.starts_with("<4094_blanks>")) {
    make_file(path, string(4094, ' ') + contents.substr(13));
  } else if (contents == "<stderr>") {
    const int file = open(path.c_str(), O_RDWR | O_CREAT, 0644);
    if (dup2(file, STDERR_FILENO) < 0 || close(file) != 0) abort();
  } else if (contents.starts_with("->")) {
    std::filesystem::create_symlink(contents.substr(2), path);
  } else if (contents == "<covered>" || contents == "<read-only>" || contents == "<full>") {
    const bool full = contents == "<full>";
    const unsigned long flags = contents == "<read-only>" ? MS_RDONLY : 0;
    if (mount("tmpfs", path.c_str(), "tmpfs", flags, full ? "size=4k" : "") != 0) _exit(no_namespace);
    if (full) make_file(path + "/filler", string(8192, 'x'));
  } else {
    std::ofstream(path, std::ios::binary) << contents;
  }
}

void own_folders() {
  if (!harness::enter_namespaces()) _exit(no_namespace);
  make_file("/var/run", "<covered>");
  make_file("/var/tmp", "<covered>");
}

int trace_pipe = -1;

// Pointers appear under names.
void send_trace() {
  recording::alloc_fail_at(0, false);  // what ends the process may need memory
  string text;
  for (const string &line : recording::take_trace()) text += line + '\n';
  const std::pair<const void *, const char *> names[] = {
      {recording::global(), "CONTEXT"}, {recording::category("ko_lspan"), "CATEGORY"}, {nullptr, "NULL"}};
  for (const auto &[pointer, name] : names) {
    char printed[32];
    const auto length = static_cast<size_t>(std::snprintf(printed, sizeof(printed), "0x%p.", pointer));
    for (size_t at; (at = text.find(printed)) != string::npos;) text.replace(at, length - 1, name);
  }
  if (write(trace_pipe, text.data(), text.size()) < 0) abort();
}

struct outcome {
  int status;    // exit status, or minus the signal that ended the child
  string trace;  // lines
};

// Runs `body` in a child; its result is the exit status. A child that hangs is ended by the alarm.
outcome in_child(const std::function<int()> &body) {
  int ends[2];
  if (pipe(ends) != 0) abort();
  const pid_t child = fork();
  if (child == 0) {
    alarm(20);
    own_folders();
    recording::reset();
    std::signal(SIGPIPE, SIG_DFL);
    trace_pipe = ends[1];
    std::atexit(send_trace);
    const int status = body();
    send_trace();
    _exit(status);
  }
  close(ends[1]);
  string text;
  char part[4096];
  for (ssize_t n; (n = read(ends[0], part, sizeof(part))) > 0;) text.append(part, static_cast<size_t>(n));
  close(ends[0]);
  int status = 0;
  waitpid(child, &status, 0);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status), text};
}

// Leaves the file open: closing it would end the lock that this process may hold on it.
string read_pid_file() {
  char text[64];
  const ssize_t length = read(open(pid_file, O_RDONLY), text, sizeof(text));
  return {text, static_cast<size_t>(std::max<ssize_t>(length, 0))};
}

string state_of_pid_file() {
  const string pid = read_pid_file();
  return pid.empty() ? "" : pid == std::to_string(getpid()) + '\0' ? " pid" : " other pid";
}

int open_files() {
  int count = 0;
  for (int fd = 0; fd < 100; ++fd) count += fcntl(fd, F_GETFD) >= 0;
  return count;
}

// Runs the driver, and notes the status, what was handed out, and what it left in the process and its folders.
void run_driver(uint32_t flags, const dl_init_in_t *in, bool with_out) {
  dl_init_out_t out = {99, recording::category("stale"), recording::global()};
  const int before = open_files();
  std::ostringstream note;
  note << "rv=" << dl_init(flags, in, with_out ? &out : nullptr);
  note << " level=" << out.zlog_level << (out.zlog_category != nullptr ? " category" : "");
  note << (out.global != nullptr ? " global" : "") << " files+" << open_files() - before << state_of_pid_file();
  struct sigaction sigpipe = {};
  sigaction(SIGPIPE, nullptr, &sigpipe);
  recording::note(note.str() + (sigpipe.sa_handler == SIG_IGN ? " sigpipe" : ""));
}

// Runs the driver with these flags, one after the other. Behind the word "fork" a second process goes on.
void run_driver(const words &flags, const string &conf, const string &missing) {
  const dl_init_in_t in = {missing == "conf" ? nullptr : conf.c_str()};
  for (const string &one : flags) {
    if (one != "fork") {
      run_driver(static_cast<uint32_t>(std::stoul(one)), missing == "in" ? nullptr : &in, missing != "out");
    } else if (fork() != 0) {
      wait(nullptr);
      return recording::note("first process:" + state_of_pid_file());
    } else {
      recording::take_trace();
    }
  }
}

// The daemon's main, and the wake-up inside its loop.
int run_main() {
#define NAME(function) recording::name_pointer(reinterpret_cast<const void *>(function), #function)
  NAME(ko_lspan_mom_rdnd_awake_cb);
  NAME(ko_lspan_info_handle);
  NAME(ko_lspan_outgrb_handle);
  NAME(ko_lspan_mom_result_info_set);
  NAME(ko_lspan_all_ds_over_handler);
#undef NAME
  recording::on_run([] {
    recording::note("rv=" + std::to_string(recording::awake()(nullptr)));
    if (recording::all_ds_handler() != nullptr && recording::all_ds_handler()(nullptr) != 0) recording::note("not 0");
  });
  const int status = ko_lspan_main();
  recording::alloc_fail_at(0, false);
  recording::note("formatted " + std::to_string(recording::format_count()));
  return status;
}

// What the line asks for: the trace, the status and the number of texts that were formatted.
int run_case(const words &line) {
  string conf = "ko_lspan", missing;
  words flags;
  uint64_t failing = 0, exhausted = 0;
  bool forever = false;
  for (const string &word : words(line.begin() + 1, line.end())) {
    const size_t split = word.find('=');
    const string name = word.substr(0, split), value = split == string::npos ? "" : word.substr(split + 1);
    if (name[0] == '/')
      make_file(name, value);
    else if (split == string::npos)
      flags.push_back(word);
    else if (name == "conf")
      conf = value;
    else if (name == "null")
      missing = value;
    else if (name == "call")
      failing = std::stoull(value);
    else if (name == "calls_of")
      recording::fail(value, 1, -1);
    else if (name == "allocation")
      exhausted = std::stoull(value), forever = value.ends_with('+');
    else
      throw std::invalid_argument("unknown word: " + word);
  }
  if (failing != 0) recording::fail("", failing, -1000);
  if (exhausted != 0) recording::alloc_fail_at(exhausted, forever);
  if (line.at(0) == "main") return run_main();
  return run_driver(flags, conf, missing), 0;
}

// The lines of the trace; of main the first that are as in `whole`, its trace without failures, are one.
words step(const words &line, words &whole) {
  const outcome out = in_child([&] { return run_case(line); });
  std::istringstream in(out.trace);
  words lines;
  for (string one; std::getline(in, one);) lines.push_back(one);
  if (line.at(0) == "main") {
    const auto differs = std::mismatch(whole.begin(), whole.end(), lines.begin(), lines.end()).second;
    if (whole.empty())
      whole = lines;
    else if (differs != lines.begin())
      *lines.erase(lines.begin(), differs - 1) = "...";
    lines.push_back("= " + std::to_string(out.status));
  }
  return lines;
}

void run_file(const std::filesystem::path &file) {
  if (in_child([] { return 0; }).status == no_namespace) GTEST_SKIP() << "mount namespaces are not permitted";
  if (emulated && file.stem() == "no_proc") GTEST_SKIP() << "the emulator has a /proc/self/exe of its own";
  words whole;
  scenario::check(file, [&](const string &line) { return step(scenario::split(line), whole); });
}

const char *const report_variable = "KO_REPORT_NAME";

// What a process whose executable has another name makes of it: the name, its pid files, its platform calls.
int report_name() {
  dl_init_arg_t arg = {};
  dl_init_proc_name(&arg);
  dl_init_running_check(&arg);
  dl_init_ham(&arg);
  std::printf("%s\n", arg.proc_name);
  for (const auto &file : std::filesystem::directory_iterator("/var/run"))
    if (file.path().extension() == ".pid") std::printf("%s\n", file.path().stem().c_str());
  for (const string &line : recording::trace()) std::printf("%s\n", line.c_str());
  return 0;
}

// Neither the words of the command line nor what the name is made of matters.
TEST(Startup, process_names) {
  if (in_child([] { return 0; }).status == no_namespace) GTEST_SKIP() << "mount namespaces are not permitted";
  if (emulated) GTEST_SKIP() << "needs programs that the kernel starts";
  const string folder = std::filesystem::canonical("/var/run").string() + '/';
  std::vector<string> names{"%s%n%999999d", "two\nlines", "\xff \033[2J"};
  for (const size_t length : {1, 63, 64, 65, 121, 122, 123, 127, 128, 200}) names.emplace_back(length, 'p');
  for (const string &name : names) {
    const string path = folder + name, seen = name.substr(0, 127 - folder.size());
    const outcome out = in_child([&] {
      make_file("/var/tmp/" + name.substr(0, 64) + ".ham", "");
      std::filesystem::copy_file("/proc/self/exe", path);
      if (dup2(trace_pipe, 1) < 0 || setenv(report_variable, "1", 1) != 0) return 1;
      string other(200, 'a');
      char *const arguments[] = {name.size() % 2 == 0 ? other.data() : nullptr, nullptr};
      execv(path.c_str(), arguments);
      return 2;
    });
    EXPECT_EQ(out.trace, seen + '\n' + seen.substr(0, 64) + '\n');
  }
}

}  // namespace

int main(int argc, char **argv) {
  if (std::getenv(report_variable) != nullptr) return report_name();
  testing::InitGoogleTest(&argc, argv);
  return scenario::run_tests("Startup", "/start", run_file);
}
