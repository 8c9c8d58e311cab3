#include "sandbox.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <hiredis/hiredis.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace harness {
namespace {

using namespace std::chrono_literals;

constexpr auto patience = 60s;  // far more than anything takes

void must(bool ok, const char *what) {
  if (ok) return;
  std::perror(what);
  _exit(127);
}

// A file system of the child's own over what a daemon reads and writes outside its store.
void enter_namespace(const std::string &folder) {
  const uid_t user = getuid();
  const gid_t group = getgid();
  must(unshare(user == 0 ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER) == 0, "unshare");
  if (user != 0) {
    write_file("/proc/self/setgroups", "deny");
    write_file("/proc/self/uid_map", "0 " + std::to_string(user) + " 1");
    write_file("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
  }
  must(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");
  must(mount((folder + "/run").c_str(), "/run", nullptr, MS_BIND, nullptr) == 0, "/run");
  must(mount((folder + "/tmp").c_str(), "/var/tmp", nullptr, MS_BIND, nullptr) == 0, "/var/tmp");
  must(mount((folder + "/etc").c_str(), "/etc", nullptr, MS_BIND, nullptr) == 0, "/etc");
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

std::string hex(const redisReply &reply) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string out;
  for (size_t i = 0; i < reply.len; ++i) {
    const auto byte = static_cast<unsigned char>(reply.str[i]);
    out.append({digits[byte >> 4], digits[byte & 15]});
  }
  return out;
}

}  // namespace

bool eventually(const std::function<bool()> &condition, const std::string &what) {
  const auto end = std::chrono::steady_clock::now() + patience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) {
      ADD_FAILURE() << "this never came: " << what;
      return false;
    }
    std::this_thread::sleep_for(2ms);
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
  signal(SIGKILL);
  wait();
}

bool process::running() const {
  siginfo_t info{};
  return pid_ > 0 && waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
         info.si_pid == 0;
}

// ---- client ----

client::client(const std::string &socket) : context_(redisConnectUnix(socket.c_str())) {}

client::~client() { redisFree(context_); }

bool client::connected() const { return context_ != nullptr && context_->err == 0; }

std::string client::run(const std::vector<std::string> &words) { return text_of(ask(context_, words).get()); }

// ---- sandbox ----

sandbox::sandbox(std::string daemon) : daemon_program_(std::move(daemon)) {
  std::string name = (std::filesystem::temp_directory_path() / "ko_lspan.XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("no folder for the sandbox");
  folder_ = name;
  for (const char *sub : {"/run", "/tmp", "/etc", "/etc/ko_platform"}) std::filesystem::create_directory(folder_ + sub);
  for (const char *channel : {"dl", "ko_lspan", "ko_platform"}) write_file(folder_ + "/tmp/" + channel + ".zlog", "5");
  platform_file(R"({"store":{"socket":")" + socket() + R"("},"log":{"file":")" + folder_ + R"(/log"}})");
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

void sandbox::start_server(const std::vector<std::string> &options) {
  std::vector<std::string> arguments{"redis-server", "--port", "0",     "--unixsocket", socket(),
                                     "--save",       "",       "--dir", folder_};
  arguments.insert(arguments.end(), options.begin(), options.end());
  server_.start(arguments, folder_ + "/redis.log");
  eventually(
      [this] {
        client probe(socket());
        if (!probe.connected()) return false;
        const std::string answer = probe.run({"PING"});
        return answer == "PONG" || answer.find("NOAUTH") != std::string::npos;
      },
      "redis-server on " + socket());
}

void sandbox::start_daemon() {
  daemon_.start({daemon_program_}, folder_ + "/stderr", [this] { enter_namespace(folder_); });
}

void sandbox::wait_until_settled() {
  // A mark goes through the whole road: a membership that joins no group changes nothing, but its turn comes last.
  eventually([this] { return log().find("lspan ds over.") != std::string::npos; }, "the first read");
}

std::vector<std::string> sandbox::dump() {
  std::vector<std::string> lines;
  const std::unique_ptr<redisContext, decltype(&redisFree)> context(redisConnectUnix(socket().c_str()), &redisFree);
  for (const char *db : {"4", "6", "8"}) {
    ask(context.get(), {"SELECT", db});
    const auto hashes = ask(context.get(), {"KEYS", "*"});
    for (size_t i = 0; i < hashes->elements; ++i) {
      const std::string name(hashes->element[i]->str, hashes->element[i]->len);
      const auto fields = ask(context.get(), {"HGETALL", name});
      for (size_t k = 0; k + 1 < fields->elements; k += 2)
        lines.push_back(std::string(db) + " " + name + " " + hex(*fields->element[k]) + " " +
                        hex(*fields->element[k + 1]));
    }
  }
  std::sort(lines.begin(), lines.end());
  return lines;
}

}  // namespace harness
