#include "sandbox.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <hiredis/hiredis.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "global_context.h"
#include "namespaces.h"
#include "p_policy.pb-c.h"
#include "store/layout.h"
#include "store/record_text.h"
#include "u_bridge.pb-c.h"
#include "u_monitor.pb-c.h"

#ifndef KO_STOP_SIGNAL
#define KO_STOP_SIGNAL SIGKILL
#endif

namespace harness {
namespace {

using namespace std::chrono_literals;

constexpr auto patience = 20s;  // far more than anything takes

void must(bool ok, const char *what) {
  if (ok) return;
  std::perror(what);
  _exit(127);
}

// Folders of the sandbox in place of those in which a daemon reads and writes outside its store.
void cover_folders(const std::string &folder) {
  must(enter_namespaces(), "namespaces");
  for (const auto &[own, covered] : {std::pair("/run", "/run"), {"/tmp", "/var/tmp"}, {"/etc", "/etc"}})
    must(mount((folder + own).c_str(), covered, nullptr, MS_BIND, nullptr) == 0, covered);
}

std::string text_of(const redisReply *reply) {
  if (reply == nullptr) return "(no answer)";
  switch (reply->type) {
    case REDIS_REPLY_INTEGER:
      return std::to_string(reply->integer);
    case REDIS_REPLY_NIL:
      return "(nil)";
    case REDIS_REPLY_ERROR:
      return "(error) " + std::string(reply->str, reply->len);
    case REDIS_REPLY_ARRAY: {
      std::string all;
      for (size_t i = 0; i < reply->elements; ++i) all += text_of(reply->element[i]) + "\n";
      return all;
    }
    default:
      return {reply->str, reply->len};
  }
}

using reply_ptr = std::unique_ptr<redisReply, decltype(&freeReplyObject)>;

reply_ptr ask(redisContext *context, const std::vector<std::string> &words) {
  std::vector<const char *> texts;
  std::vector<size_t> lengths;
  for (const std::string &word : words) {
    texts.push_back(word.data());
    lengths.push_back(word.size());
  }
  return {static_cast<redisReply *>(
              redisCommandArgv(context, static_cast<int>(words.size()), texts.data(), lengths.data())),
          &freeReplyObject};
}

std::string_view bytes_of(const redisReply *reply) { return {reply->str, reply->len}; }

std::string unhex(std::string_view digits) {
  std::string out;
  for (size_t i = 0; i + 1 < digits.size(); i += 2)
    out.push_back(static_cast<char>(std::stoi(std::string(digits.substr(i, 2)), nullptr, 16)));
  return out;
}

struct dumped {
  uint32_t db;
  std::string hash, key, bytes;
};

dumped parse(const std::string &line) {
  dumped out;
  std::string key, bytes;
  std::istringstream(line) >> out.db >> out.hash >> key >> bytes;
  out.key = unhex(key);
  out.bytes = unhex(bytes);
  return out;
}

const ProtobufCMessageDescriptor *const stored_types[] = {
    &u_monitor__mirror_lspan_info__descriptor,  &p_policy__data_intf_conf__descriptor,
    &u_monitor__mirror_result_info__descriptor, &u_monitor__span_port_src_info__descriptor,
    &u_monitor__span_acl_src_info__descriptor,  &u_monitor__span_vlan_src_info__descriptor,
    &u_monitor__span_dst_info__descriptor,      &u_monitor__span_mtp_info__descriptor,
    &u_bridge__udp_pt_learn__descriptor};

std::string text_of(const std::string &line) {
  const dumped entry = parse(line);
  for (const ProtobufCMessageDescriptor *type : stored_types) {
    const ko_store::message_ptr message = entry.hash == type->name ? ko_store::unpack(*type, entry.bytes) : nullptr;
    if (message != nullptr) return std::to_string(entry.db) + " " + entry.hash + " " + ko_store::to_text(*message);
  }
  return line;
}

}  // namespace

std::string difference(std::vector<std::string> got, std::vector<std::string> expected) {
  std::string out;
  std::vector<std::string> only;
  for (const char *what : {"\n  not expected: ", "\n  missing: "}) {
    std::sort(got.begin(), got.end());
    std::sort(expected.begin(), expected.end());
    only.clear();
    std::set_difference(got.begin(), got.end(), expected.begin(), expected.end(), std::back_inserter(only));
    for (const std::string &line : only) out += what + text_of(line);
    got.swap(expected);
  }
  return out;
}

size_t count_of(const std::string &text, const std::string &part) {
  size_t count = 0;
  for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size()) ++count;
  return count;
}

std::vector<std::string> split(const std::string &text) {
  std::istringstream stream(text);
  return {std::istream_iterator<std::string>(stream), {}};
}

bool eventually(const std::function<bool()> &condition, const std::string &what) {
  const auto end = std::chrono::steady_clock::now() + patience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) {
      ADD_FAILURE() << "this never came: " << what;
      return false;
    }
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

std::string read_file(const std::string &path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

void write_file(const std::string &path, const std::string &text) { std::ofstream(path, std::ios::binary) << text; }

// ---- process ----

void process::start(const std::vector<std::string> &arguments, const std::string &output,
                    const std::function<void()> &prepare) {
  stop();
  const pid_t parent = getpid();
  pid_ = fork();
  if (pid_ != 0) return;
  prctl(PR_SET_PDEATHSIG, SIGKILL);  // nothing outlives the test
  if (getppid() != parent) _exit(127);
  if (!output.empty()) {
    const int file = open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    must(file >= 0 && dup2(file, 1) == 1 && dup2(file, 2) == 2, output.c_str());
  }
  if (prepare) prepare();
  std::vector<char *> words;
  words.reserve(arguments.size() + 1);
  for (const std::string &argument : arguments) words.push_back(const_cast<char *>(argument.c_str()));
  words.push_back(nullptr);
  execvp(words[0], words.data());
  must(false, words[0]);
}

void process::signal(int number) const {
  if (pid_ > 0) kill(pid_, number);
}

int process::wait() {
  if (pid_ <= 0) return -1;
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 256 + WTERMSIG(status);
}

void process::stop() {
  signal(stop_signal);
  signal(SIGCONT);
  wait();
}

bool process::running() const {
  siginfo_t info{};
  return pid_ > 0 && waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
         info.si_pid == 0;
}

size_t process::system_calls(std::chrono::milliseconds span) const {
  size_t stops = 0;
  int status = 0;
  if (ptrace(PTRACE_SEIZE, pid_, nullptr, PTRACE_O_TRACESYSGOOD) != 0) return std::this_thread::sleep_for(span), 0;
  ptrace(PTRACE_INTERRUPT, pid_, nullptr, nullptr);
  for (const auto end = std::chrono::steady_clock::now() + span; std::chrono::steady_clock::now() < end;) {
    if (waitpid(pid_, &status, WNOHANG) != pid_) {
      std::this_thread::sleep_for(20us);
      continue;
    }
    if (!WIFSTOPPED(status)) throw std::runtime_error("the process has ended");
    const bool halted = status >> 16 == PTRACE_EVENT_STOP && WSTOPSIG(status) != SIGTRAP;  // by SIGSTOP
    const bool is_call = WSTOPSIG(status) == (SIGTRAP | 0x80);
    const int to_deliver = status >> 16 != 0 || is_call ? 0 : WSTOPSIG(status);
    stops += is_call ? 1 : 0;
    ptrace(halted ? PTRACE_LISTEN : PTRACE_SYSCALL, pid_, nullptr, to_deliver);
  }
  ptrace(PTRACE_INTERRUPT, pid_, nullptr, nullptr);
  waitpid(pid_, &status, 0);
  ptrace(PTRACE_DETACH, pid_, nullptr, nullptr);
  return stops / 2;
}

size_t process::descriptors() const {
  std::error_code gone;
  const std::filesystem::directory_iterator folder("/proc/" + std::to_string(pid_) + "/fd", gone);
  return static_cast<size_t>(std::distance(begin(folder), end(folder)));
}

// ---- client ----

client::client(const std::string &socket) : context_(redisConnectUnix(socket.c_str())) {}

client::~client() { redisFree(context_); }

std::string client::next(std::chrono::milliseconds within) {
  const timeval most = ko_platform::to_timeval(within);
  redisSetTimeout(context_, most);
  void *reply = nullptr;
  if (redisGetReply(context_, &reply) != REDIS_OK) return {};
  const reply_ptr message(static_cast<redisReply *>(reply), &freeReplyObject);
  return message->elements == 3 ? text_of(message->element[2]) : text_of(message.get());
}

std::string client::run(const std::vector<std::string> &words) { return text_of(ask(context_, words).get()); }

// ---- sandbox ----

sandbox::sandbox() {
  std::string name = (std::filesystem::temp_directory_path() / "ko_lspan.XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("no folder for the sandbox");
  folder_ = name;
  for (const char *sub : {"/run", "/tmp", "/etc", "/etc/ko_platform"}) std::filesystem::create_directory(folder_ + sub);
  for (const char *channel : {"dl", "ko_lspan", "ko_platform"}) write_file(folder_ + "/tmp/" + channel + ".zlog", "5");
  use_socket(socket());
}

sandbox::~sandbox() {
  daemon_.stop();
  server_.stop();
  std::error_code ignored;
  std::filesystem::remove_all(folder_, ignored);
}

void sandbox::platform_file(const std::string &json) const {
  write_file(folder_ + "/etc/ko_platform/platform.json", json);
}

void sandbox::use_socket(const std::string &path, const std::string &more) const {
  platform_file(R"({"store":{"socket":")" + path + "\"" + more + R"(},"log":{"file":")" + folder_ + R"(/log"}})");
}

void sandbox::start_server(const std::vector<std::string> &options) {
  std::vector<std::string> arguments{"redis-server", "--port", "0",     "--unixsocket", socket(),
                                     "--save",       "",       "--dir", folder_};
  arguments.insert(arguments.end(), options.begin(), options.end());
  server_.start(arguments, folder_ + "/redis.log");
  eventually([this] { return client(socket()).run({"PING"}) == "PONG"; }, "redis-server on " + socket());
}

void sandbox::start_daemon(process &as) const { start(as, {KO_LSPAN_PROGRAM}); }

void sandbox::start(process &as, const std::vector<std::string> &arguments) const {
  as.stop_signal = KO_STOP_SIGNAL;
  as.start(arguments, folder_ + "/stderr", [this] { cover_folders(folder_); });
}

// Twice: when the first is gone, what was announced during the daemon's read may still wait; the second comes behind
// it.
bool sandbox::settle() {
  producer marks(socket());
  client reader(socket());
  reader.run({"SELECT", "8"});
  for (int round = 0; round < 2; ++round) {
    const record mark = result({next_mark_++, 1, 2});
    marks.set(mark);
    marks.flush();
    const auto gone = [&] { return reader.run({"HEXISTS", mark.type->name, mark.key}) == "0"; };
    eventually([&] { return !daemon_.running() || gone(); }, "the end of a mark");
    if (daemon_.running()) continue;
    marks.del(mark);
    marks.flush();
    return false;
  }
  return true;
}

std::vector<std::string> sandbox::dump() const {
  std::vector<std::string> lines;
  const std::unique_ptr<redisContext, decltype(&redisFree)> context(redisConnectUnix(socket().c_str()), &redisFree);
  for (const char *db : {"4", "6", "8"}) {
    ask(context.get(), {"SELECT", db});
    const auto hashes = ask(context.get(), {"KEYS", "*"});
    for (size_t i = 0; i < hashes->elements; ++i) {
      const std::string name(bytes_of(hashes->element[i]));
      const auto fields = ask(context.get(), {"HGETALL", name});
      for (size_t k = 0; k + 1 < fields->elements; k += 2)
        lines.push_back(std::string(db) + " " + name + " " + ko_store::hex_digits(bytes_of(fields->element[k])) + " " +
                        ko_store::hex_digits(bytes_of(fields->element[k + 1])));
    }
  }
  std::sort(lines.begin(), lines.end());
  return lines;
}

std::vector<std::string> sandbox::inputs() const {
  std::vector<std::string> lines = dump();
  std::erase_if(lines, [](const std::string &line) {
    return !line.starts_with("4 u_monitor.mirror_lspan_info ") && !line.starts_with("4 p_policy.data_intf_conf ") &&
           !line.starts_with("8 u_monitor.mirror_result_info ");
  });
  return lines;
}

void sandbox::restore(const std::vector<std::string> &lines) const {
  client(socket()).run({"FLUSHALL"});
  producer writer(socket());
  for (const std::string &line : lines) {
    const dumped entry = parse(line);
    writer.raw(entry.db, entry.hash, entry.key, entry.bytes);
  }
  writer.flush();
}

std::vector<std::string> of_fresh_daemon(const std::vector<std::string> &inputs) {
  sandbox twin;
  twin.start_server();
  twin.restore(inputs);
  twin.start_daemon();
  EXPECT_TRUE(twin.settle());
  return twin.dump();
}

}  // namespace harness
