// Start-up, each case in a child process with a /var/run and /var/tmp of its own: real files, real locks, and caches
// that are filled once per process. What happened comes back as the recording platform's trace.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>

#include "001_init_a/dl_init.h"
#include "proc/lspan/ko_lspan.h"
#include "recording.h"

int ko_lspan_main();  // the daemon's main under a name that does not clash

namespace {

using std::string;

// The emulator has a /proc/self/exe of its own, and the kernel cannot start programs of the emulated kind.
const bool emulated = std::getenv("KO_EMULATED") != nullptr;

constexpr int no_namespace = 77;  // exit status of a child that may not make its own folders
const char *const pid_file = "/var/run/startup_test.pid";
const char *const ham_file = "/var/tmp/startup_test.ham";
const char *const dl_file = "/var/tmp/dl.zlog";
const char *const app_file = "/var/tmp/ko_lspan.zlog";

// What a case finds: a file with these contents (or one of the words that make_file knows), a call that fails once.
struct setting {
  const char *path = nullptr, *contents = nullptr, *fails = nullptr;
};

void make_file(const string &path, const string &contents) {
  if (contents == "<folder>") {
    std::filesystem::create_directory(path);
  } else if (contents == "<fifo>") {
    if (mkfifo(path.c_str(), 0644) != 0) abort();
  } else if (contents == "<loop>") {
    std::filesystem::create_symlink(path, path);
  } else if (contents.starts_with("<4094 blanks>")) {
    make_file(path, string(4094, ' ') + contents.substr(13));
  } else if (contents.starts_with("-> ")) {
    std::filesystem::create_symlink(contents.substr(3), path);
  } else if (contents == "<covered>" || contents == "<read-only>" || contents == "<full>") {
    const bool full = contents == "<full>";
    const unsigned long flags = contents == "<read-only>" ? MS_RDONLY : 0;
    if (mount("tmpfs", path.c_str(), "tmpfs", flags, full ? "size=4k" : "") != 0) _exit(no_namespace);
    if (full) make_file(path + "/filler", string(8192, 'x'));
  } else {
    std::ofstream(path, std::ios::binary) << contents;
  }
}

void apply(const setting &found) {
  if (found.path != nullptr) make_file(found.path, found.contents);
  if (found.fails != nullptr) recording::fail(found.fails, 1, -1);
}

void own_folders() {
  const string uid = std::to_string(getuid()), gid = std::to_string(getgid());
  if (unshare(CLONE_NEWNS | (uid == "0" ? 0 : CLONE_NEWUSER)) != 0) _exit(no_namespace);
  if (uid != "0") {
    make_file("/proc/self/setgroups", "deny");
    make_file("/proc/self/uid_map", "0 " + uid + " 1");
    make_file("/proc/self/gid_map", "0 " + gid + " 1");
  }
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) _exit(no_namespace);
  make_file("/var/run", "<covered>");
  make_file("/var/tmp", "<covered>");
}

// A line of the start-up module's channel loses channel and colour, if the colour is that of its kind.
string plain(const string &line) {
  static const std::map<string, string> colours = {{"error", "31"}, {"warn", "33"}, {"info", "32"}, {"debug", "35"}};
  const string start = "[dl] ", reset = "\\033[0m";
  const size_t colon = line.find(": ");
  if (!line.starts_with(start) || !line.ends_with(reset) || colon == string::npos) return line;
  const string head = line.substr(start.size(), colon - start.size());  // kind and function
  const string colour = head.ends_with(" dl_print_result") ? "34" : colours.at(head.substr(0, head.find(' ')));
  string text = line.substr(colon + 2, line.size() - reset.size() - colon - 2);
  const string expected = "\\033[" + colour + 'm';
  return text.starts_with(expected) ? head + ": " + text.substr(expected.size()) : line;
}

// `text` with every line that starts with `start` left out.
string without(const string &text, const string &start) {
  string out;
  std::istringstream stream(text);
  for (string line; std::getline(stream, line);)
    if (!line.starts_with(start)) out += line + '\n';
  return out;
}

int trace_pipe = -1;

void send_trace() {
  recording::alloc_fail_at(0, false);  // what ends the process may need memory
  string text;
  for (const string &line : recording::take_trace()) text += plain(line) + '\n';
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

class startup : public testing::Test {
  void SetUp() override {
    if (in_child([] { return 0; }).status == no_namespace) GTEST_SKIP() << "mount namespaces are not permitted";
  }
};

// Leaves the file open: closing it would end the lock that this process may hold on it.
string read_pid_file() {
  char text[64];
  const ssize_t length = read(open(pid_file, O_RDONLY), text, sizeof(text));
  return {text, static_cast<size_t>(std::max<ssize_t>(length, 0))};
}

// Notes a run's status, what it handed out, and what it left in the process and its folders. The argument that
// `missing` names is null; `conf` names the log channel.
void run(uint32_t flags, std::string_view missing = "", const char *conf = "ko_lspan") {
  const dl_init_in_t in = {missing == "zlog_conf" ? nullptr : conf};
  dl_init_out_t out = {99, recording::category("stale"), recording::global()};
  std::ostringstream note;
  note << "rv=" << dl_init(flags, missing == "in" ? nullptr : &in, missing == "out" ? nullptr : &out);
  note << " level=" << out.zlog_level << (out.zlog_category != nullptr ? " category" : "");
  note << (out.global != nullptr ? " global" : "");
  const string pid = read_pid_file();
  if (!pid.empty()) note << (pid == std::to_string(getpid()) + '\0' ? " pid" : " other pid");
  struct sigaction sigpipe = {};
  sigaction(SIGPIPE, nullptr, &sigpipe);
  recording::note(note.str() + (sigpipe.sa_handler == SIG_IGN ? " sigpipe" : ""));
}

// Trace lines.
const string dl = "vx_zlog_init(\"dl\")\n", app = "vx_zlog_init(\"ko_lspan\")\n",
             ham = "reg_process_exit_action(self, 2)\n", global = "vx_global_init(\"startup_test\")\n";

string failed(const string &call, const string &answer) { return call.substr(0, call.size() - 1) + answer + '\n'; }
string error(const string &func, const string &text) { return "error dl_" + func + ": <init> " + text + '\n'; }
string step_failed(const string &step, int rv) {
  return error("init", "init " + step + " failed, rv = " + std::to_string(rv) + '.');
}

TEST_F(startup, steps) {
  const string no_pid_file = error("init_running_check", "open lockfile failed, fd = -1");
  const string untouched = " level=99 category global";
  const struct {
    uint32_t flags;
    const char *missing;
    setting found;
    string calls;
    int32_t rv;
    const char *step;  // that the driver says has failed
    string state;
  } cases[] = {
      {0, "", {}, dl, 0, "", " level=0"},
      {1, "", {}, dl, 0, "", " level=0 pid"},
      {2, "", {}, dl + ham, 0, "", " level=0 sigpipe"},
      {7, "", {}, dl + ham + app, 0, "", " level=1 category pid sigpipe"},
      {15, "", {}, dl + ham + app + global, 0, "", " level=1 category global pid sigpipe"},
      {7, "", {nullptr, nullptr, "vx_zlog_init"}, failed(dl, " = null"), -17, "", untouched},
      {7, "", {"/proc", "<covered>"}, dl, -8, "proc name", untouched},
      {7, "in", {}, dl + error("init_user_param", "in is (NULL)."), -4, "check param", untouched},
      {7, "out", {}, dl + error("init_user_param", "out is (NULL)."), -4, "check param", untouched},
      {7, "", {pid_file, "<folder>"}, dl + no_pid_file, -11, "check running", " level=0"},
      {7, "", {"/var/run", "<read-only>"}, dl + no_pid_file, -11, "check running", " level=0"},
      {1, "", {"/var/run", "<full>"}, dl, 0, "", " level=0"},
      {1, "", {pid_file, "99999999 of a dead process"}, dl, 0, "", " level=0 pid"},
      {1, "", {pid_file, "-> /var/tmp/elsewhere"}, dl, 0, "", " level=0 pid"},
      {1, "", {pid_file, "-> /dev/full"}, dl, 0, "", " level=0 other pid"},
      {1, "", {pid_file, "<fifo>"}, dl, 0, "", " level=0 pid"},
      {2, "", {ham_file, ""}, dl, 0, "", " level=0 sigpipe"},
      {2, "", {ham_file, "<fifo>"}, dl, 0, "", " level=0 sigpipe"},
      {4, "zlog_conf", {}, dl + error("init_zlog", "zlog_conf is (NULL)."), -4, "zlog", " level=0"},
  };
  for (const auto &one : cases) {
    if (emulated && one.rv == -8) continue;
    const outcome out = in_child([&] { return apply(one.found), run(one.flags, one.missing), 0; });
    const string driver = one.step[0] == '\0' ? "" : step_failed(one.step, one.rv);
    EXPECT_EQ(out.trace, one.calls + driver + "rv=" + std::to_string(one.rv) + one.state + '\n');
  }
}

int open_files() {
  int count = 0;
  for (int fd = 0; fd < 100; ++fd) count += fcntl(fd, F_GETFD) >= 0;
  return count;
}

// Until a level file was read, errors are let through and nothing else. They are formatted without a category, too.
TEST_F(startup, levels_before_the_files) {
  EXPECT_EQ(4, in_child([] {
                 recording::fail("vx_zlog_init", 1, -1);
                 ko_lspan_main();
                 return static_cast<int>(recording::format_count());
               }).status);
}

// Everything that runs in one process write, and what each level lets through. No file stays open. A failed context is
// asked for again, one that was made is not.
TEST_F(startup, levels) {
  const auto result = [](const void *context, const void *category, const char *level, const char *state) {
    char text[512];
    std::snprintf(text, sizeof(text),
                  "info dl_print_result: <init> + result for dl_init_arg_t.\n"
                  "info dl_print_result: <init>   - proc name is startup_test.\n"
                  "info dl_print_result: <init> + result for dl_init_out_t.\n"
                  "info dl_print_result: <init>   - global is 0x%p.\n"
                  "info dl_print_result: <init>   - zlog category is 0x%p.\n"
                  "info dl_print_result: <init>   - zlog level is %s.\n"
                  "info dl_init: init end.\n"
                  "rv=0 level=%s%s sigpipe\n",
                  context, category, level, level, state);
    return string(text);
  };
  const string with_context = result(recording::global(), nullptr, "0", " global");
  const auto done = [](const string &step) { return "debug dl_init: <init> init " + step + " successfully.\n"; };
  const string marker = "warn dl_init_ham: <init> don't need reg ham.\n" + done("ham");
  const string again =
      "info dl_init: init start.\n" + done("inner zlog") + done("proc name") + done("check param") + marker;
  const string all =
      dl + "info dl_init_inner_zlog: <init> inner zlog level is LEVEL.\n" + done("inner zlog") +
      "info dl_init_proc_name: <init> proc name is startup_test.\n" + done("proc name") + done("check param") + marker +
      failed(global, " = null") + error("init_global", "init global failed.") + step_failed("global", -17) +
      "rv=-17 level=0 sigpipe\n" + again + global + "info dl_init_global: <init> init global successfully.\n" +
      done("global") + with_context + again + done("global") + with_context + "info dl_init: init start.\n" +
      done("inner zlog") + done("proc name") + done("check param") + app +
      "warn dl_get_zlog_level: <init> open /var/tmp/ko_lspan.zlog failed.\n" +
      "info dl_init_zlog: <init> init zlog ko_lspan successfully, level = 1.\n" + done("zlog") +
      result(nullptr, recording::category("ko_lspan"), "1", " category");
  const std::map<string, uint32_t> needed = {{"error ", 1}, {"warn ", 2}, {"info ", 4}, {"debug ", 5}};
  for (const int level : {0, 1, 2, 3, 4, 5, 6, -1}) {
    string expected = all;
    expected.replace(expected.find("LEVEL"), 5, std::to_string(level));
    for (const auto &[kind, least] : needed)
      if (static_cast<uint32_t>(level) < least) expected = without(expected, kind);
    const outcome out = in_child([&] {
      make_file(dl_file, std::to_string(level));
      apply({ham_file, "", "vx_global_init"});
      const int before = open_files();
      for (const uint32_t flags : {10, 10, 10, 4}) run(flags);
      return open_files() - before;
    });
    EXPECT_EQ(out.status, 0);
    EXPECT_EQ(out.trace, expected);
  }
}

TEST_F(startup, level_files) {
  const std::map<uint32_t, std::vector<string>> cases = {
      {0, {"0"}},
      {1, {"<loop>", "", "x5", "<folder>", "<fifo>", "-> /dev/zero", "-> /dev/full", "<4094 blanks> 5"}},
      {5, {"5", "<4094 blanks>5"}},
      {7, {" \n\t +7x"}},
      {INT32_MAX, {"2147483647"}},
      {1U << 31, {"-2147483648"}},
      {UINT32_MAX, {"-1\n"}}};
  size_t length = 62;  // of the name
  for (const auto &[level, files] : cases)
    for (const string &contents : files) {
      const string name(++length, 'n');
      const outcome out = in_child([&] {
        make_file("/var/tmp/" + name.substr(0, 64) + ".zlog", contents);
        return run(4, "", name.c_str()), 0;
      });
      EXPECT_EQ(out.trace, dl + "vx_zlog_init(\"" + name + "\")\nrv=0 level=" + std::to_string(level) + " category\n");
    }
}

TEST_F(startup, second_instance_ends) {
  const outcome out = in_child([] {
    run(1);
    const string before = read_pid_file();
    if (fork() == 0) recording::take_trace(), run(1);
    wait(nullptr);
    return read_pid_file() == before ? 0 : 1;
  });
  EXPECT_EQ(out.status, 0) << "the pid file changed";
  EXPECT_EQ(out.trace, error("init_running_check", "lock lockfile failed") + dl + "rv=0 level=0 pid\n");
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
TEST_F(startup, process_names) {
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
      char *const words[] = {name.size() % 2 == 0 ? other.data() : nullptr, nullptr};
      execv(path.c_str(), words);
      return 2;
    });
    EXPECT_EQ(out.trace, seen + '\n' + seen.substr(0, 64) + '\n');
  }
}

const string open_store = "vx_mom_ab_init(null, \"ko_lspan\", 0, 0)\n",
             redundancy =
                 "rdnd_lib_mom_reg(\"ko_lspan\", instance, context, ko_lspan_mom_rdnd_awake_cb, "
                 "ko_lspan_mom_rdnd_awake_cb, 0, 0, 0, [4 8 6])\n";

int named_main() {
#define NAME(function) recording::name_pointer(reinterpret_cast<const void *>(function), #function)
  NAME(ko_lspan_mom_rdnd_awake_cb);
  NAME(ko_lspan_info_handle);
  NAME(ko_lspan_outgrb_handle);
  NAME(ko_lspan_mom_result_info_set);
  NAME(ko_lspan_all_ds_over_handler);
#undef NAME
  return ko_lspan_main();
}

// What main and the wake-up inside its loop do. `found` is what they find.
outcome live(const std::function<void()> &found) {
  return in_child([&] {
    found();
    recording::on_run([] {
      recording::note("rv=" + std::to_string(recording::awake()(nullptr)));
      if (recording::all_ds_handler() != nullptr && recording::all_ds_handler()(nullptr) != 0) recording::note("not 0");
    });
    return named_main();
  });
}

const string woken = R"(vx_global_run(context)
libddm_init(context, "ko_lspan")
vx_mom_reg_ds(sources, 3, 7)
  input 0 CONF_DB u_monitor.mirror_lspan_info {t_user="ko_lspan"} enabled=1 output=0
  input 1 CONF_DB p_policy.data_intf_conf {} enabled=1 output=0
  input 2 UDP_DB u_monitor.mirror_result_info {t_user="ko_lspan"} enabled=1 output=0
  output 0 UDP_DB u_monitor.span_port_src_info {t_user="ko_lspan"} enabled=1 output=1
  output 1 UDP_DB u_monitor.span_acl_src_info {t_user="ko_lspan"} enabled=1 output=1
  output 2 UDP_DB u_monitor.span_vlan_src_info {t_user="ko_lspan"} enabled=1 output=1
  output 3 UDP_DB u_monitor.span_dst_info {t_user="ko_lspan"} enabled=1 output=1
  output 4 UDP_DB u_monitor.span_mtp_info {t_user="ko_lspan"} enabled=1 output=1
  output 5 CONF_DB u_monitor.mirror_result_info {t_user="ko_lspan"} enabled=1 output=1
  output 6 FWD_DB u_bridge.udp_pt_learn {t_app_name="ko_lspan"} enabled=1 output=1
vx_mom_set_ds_opt(sources, 77, 2, 1)
info ko_lspan_mom_rdnd_awake_cb: vx_mom_set_ds_opt init sucess\r\n
vx_mom_reg_key_event(sources, CONF_DB u_monitor.mirror_lspan_info, 0, ko_lspan_info_handle, null)
vx_mom_reg_key_event(sources, CONF_DB p_policy.data_intf_conf, 0, ko_lspan_outgrb_handle, null)
vx_mom_reg_key_event(sources, UDP_DB u_monitor.mirror_result_info, 0, ko_lspan_mom_result_info_set, null)
vx_mom_reg_key_event(sources, CONF_DB u_monitor.mirror_lspan_info, 1, ko_lspan_info_handle, null)
vx_mom_reg_key_event(sources, CONF_DB p_policy.data_intf_conf, 1, ko_lspan_outgrb_handle, null)
vx_mom_reg_all_ds_event(sources, 0, ko_lspan_all_ds_over_handler, null)
rv=0
info ko_lspan_all_ds_over_handler: lspan ds over.\r\n
vx_global_finish(context)
)";

TEST_F(startup, daemon_lives) {
  const outcome out = live([] { make_file(app_file, "4"); });
  EXPECT_EQ(out.status, 0);
  EXPECT_EQ(out.trace, dl + ham + app + open_store + redundancy + woken);
}

// Every call from the start of main to the end of the wake-up, and every allocation, fails in turn.
TEST_F(startup, each_failure) {
  const string whole = dl + ham + app + open_store + redundancy + without(woken, "info ");
  const string end = "vx_global_finish(context)\n";
  const auto woken_to = [&](const string &text) {
    return " = -1000\nerror ko_lspan_mom_rdnd_awake_cb: " + text + "\\r\\n\nrv=-1000\n" + end;
  };
  const struct {
    const char *call;
    string follows;
    int status = 0;
  } rows[] = {
      {"vx_zlog_init(\"dl\"", " = null\n", 239},
      {"reg_process_exit_action",
       " = -1000\n" + error("init_ham", "reg ham failed, rv = -1000") + step_failed("ham", -1000), 24},
      {"vx_zlog_init(\"ko",
       " = null\n" + error("get_zlog_category", "init zlog ko_lspan failed.") +
           error("init_zlog", "init zlog ko_lspan failed, rv = -17.") + step_failed("zlog", -17),
       239},
      {"vx_mom_ab_init", " = null\nerror ko_lspan_mom_init: mom_ab init fail\n"},
      {"rdnd_lib_mom_reg", " = -1000\nerror ko_lspan_mom_init: RDND_ELEMENT_REG_UNAWARE failed -1000.\n"},
      {"libddm_init", woken_to("libddm_init failed -1000.")},
      {"vx_mom_reg_ds", ""},  // its answer is only handed on
      {"vx_mom_set_ds_opt", woken_to("vx_mom_set_ds_opt fail, rv=-1000")},
      {"vx_mom_reg_key_event", woken_to("mom set add_event fail, rv=-1000, i=0")},
      {"vx_mom_reg_key_event", woken_to("mom set add_event fail, rv=-1000, i=1")},
      {"vx_mom_reg_key_event", woken_to("mom set add_event fail, rv=-1000, i=2")},
      {"vx_mom_reg_key_event", woken_to("mom set del_event fail, rv=-1000, i=0")},
      {"vx_mom_reg_key_event", woken_to("mom set del_event fail, rv=-1000, i=1")},
      {"vx_mom_reg_all_ds_event", " = -1000\nrv=0\n" + end},
  };
  uint64_t k = 0;
  size_t at = 0;  // in the trace without failures
  for (const auto &row : rows) {
    at = whole.find('\n', whole.find(row.call, at));
    string expected = whole.substr(0, at) + row.follows;
    if (row.follows.empty()) {
      expected += " = -1000" + whole.substr(at);
      expected.replace(expected.find("77"), 2, std::to_string(UINT32_MAX - 999));
    }
    const outcome out = live([k = ++k] { recording::fail("", k, -1000); });
    EXPECT_EQ(out.status, row.status) << row.call;
    EXPECT_EQ(out.trace, expected);
  }
  EXPECT_EQ(live([&] { recording::fail("", k + 1, -1000); }).trace, whole) << "a call that is not in the table";
  const string no_table = dl + ham + app + open_store + "error ko_lspan_mom_init: outgrb hash init fail\n";
  for (k = 1; k <= 6; ++k) {
    const uint64_t n = (k + 1) / 2;
    const outcome out = live([&] { recording::alloc_fail_at(n, k % 2 == 0); });
    EXPECT_EQ(out.status, n <= 2 ? 254 : 0) << n;
    EXPECT_EQ(out.trace, n <= 2 ? no_table : whole);
  }
}

}  // namespace

int main(int argc, char **argv) {
  if (std::getenv(report_variable) != nullptr) return report_name();
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
