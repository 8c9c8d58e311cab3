// The logging wrappers on spdlog: every category writes to one sink, one line a record. Nothing that goes wrong here
// may reach the daemon.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <memory_resource>
#include <string>
#include <string_view>

#include <spdlog/logger.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/stdout_sinks.h>

#include "log/last_error.h"
#include "log/line.h"
#include "platform_config.h"
#include "standard_files.h"
#include "vx_zlog.h"

struct vx_zlog_category {
  spdlog::logger logger;
};

namespace {

// Whether standard error is the stream that the service manager gave this process for its journal.
bool has_journal() {
  const char *given = std::getenv("JOURNAL_STREAM");
  struct stat at;
  return given != nullptr && fstat(STDERR_FILENO, &at) == 0 &&
         given == std::to_string(at.st_dev) + ":" + std::to_string(at.st_ino);
}

// What the journal takes for the priority of a line that begins with it.
const char *priority_of(spdlog::level::level_enum level) {
  if (level >= spdlog::level::err) return "<3>";
  if (level >= spdlog::level::warn) return "<4>";
  return level >= spdlog::level::info ? "<6>" : "<7>";
}

// The log file; what it does not take, and everything without one, goes to standard error. Each record is written at
// once, so that none is lost with the process. Nothing is waited for: a FIFO needs a reader when it is opened, and what
// a slow one does not take is not kept for it. Who started the program at a terminal sees there what goes wrong.
class fallback_sink : public spdlog::sinks::sink {
 public:
  explicit fallback_sink(const std::string &path) : path_(path) {
    if (path.empty()) return;
    file_ = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0644);
    if (file_ < 0) tell("opened", errno == ENXIO ? "nobody reads it" : std::strerror(errno));
  }

  bool is_terminal() const { return file_ < 0 && has_terminal_; }

  void log(const spdlog::details::log_msg &record) override {
    if (file_ >= 0) {
      spdlog::memory_buf_t line;
      formatter_->format(record, line);
      const ssize_t n = write(file_, line.data(), line.size());
      const bool refused = n != static_cast<ssize_t>(line.size());
      if (refused && !told_) tell("written", n < 0 ? std::strerror(errno) : "a line was cut");
      told_ = refused;
      if (!refused && !(has_terminal_ && record.level >= spdlog::level::warn)) return;
    }
    if (has_journal_) std::fputs(priority_of(record.level), stderr);
    stderr_.log(record);
  }

  void flush() override {}  // GCOVR_EXCL_LINE: the interface asks for it, and nothing is buffered

  void set_pattern(const std::string &pattern) override {
    set_formatter(std::make_unique<spdlog::pattern_formatter>(pattern));
  }

  void set_formatter(std::unique_ptr<spdlog::formatter> formatter) override {
    formatter_ = formatter->clone();
    stderr_.set_formatter(std::move(formatter));
  }

 private:
  void tell(const char *what, const char *why) const {
    std::fprintf(stderr, "log: %s cannot be %s: %s; lines go to standard error\n", path_.c_str(), what, why);
  }

  std::string path_;
  const bool has_terminal_ = isatty(STDERR_FILENO) != 0;
  const bool has_journal_ = ::has_journal();
  bool told_ = false;  // that it takes nothing
  int file_ = -1;      // open until the process ends
  std::unique_ptr<spdlog::formatter> formatter_;
  spdlog::sinks::stderr_sink_st stderr_;
};

struct log_state {
  std::shared_ptr<fallback_sink> sink;
  bool colours;
  std::map<std::string, vx_zlog_category, std::less<>> categories;

  // Programs may share a file, and each has a channel of the platform.
  log_state() : sink(std::make_shared<fallback_sink>(ko_platform::process_log_settings().file)) {
    std::string program;
    for (const char c : std::string_view(program_invocation_short_name)) program.append(c == '%' ? 2 : 1, c);
    sink->set_pattern("%Y-%m-%d %H:%M:%S.%e " + program + "[%P] %l %n %v");
    colours = sink->is_terminal();
  }
};

// Lives until the process ends: a category is valid while static objects are destroyed, too.
log_state &state() {
  static log_state &the_state = (ko_platform::hold_standard_files(), *new log_state);
  return the_state;
}

spdlog::level::level_enum spdlog_level(int level) {
  if (level >= VX_ZLOG_ERROR) return spdlog::level::err;
  if (level >= VX_ZLOG_WARN) return spdlog::level::warn;
  return level >= VX_ZLOG_INFO ? spdlog::level::info : spdlog::level::debug;
}

}  // namespace

vx_zlog_category *vx_zlog_init(const char *category_name) {
  if (category_name == nullptr) return nullptr;
  try {
    auto &categories = state().categories;
    const auto known = categories.find(std::string_view(category_name));
    if (known != categories.end()) return &known->second;
    vx_zlog_category category{spdlog::logger(category_name, state().sink)};
    category.logger.set_level(spdlog::level::trace);  // the caller's own levels decide
    return &categories.emplace(category_name, std::move(category)).first->second;
  } catch (...) {
    return nullptr;  // GCOVR_EXCL_LINE: memory is exhausted in spdlog
  }
}

void vxdf_zlog(vx_zlog_category *category, const char *, size_t, const char *func, size_t func_len, long line,
               int level, const char *format, ...) {
  char text[2048];
  va_list args;
  va_start(args, format);
  const int length = std::vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  if (category == nullptr || length < 0) return;
  if (level >= VX_ZLOG_ERROR) ko_platform::note_error(text);
  try {
    std::byte room[4096];  // longer lines go to the heap
    std::pmr::monotonic_buffer_resource memory(room, sizeof(room));
    std::pmr::string record(&memory);
    record.reserve(2304);
    record.append(func, func_len).append(":").append(std::to_string(line)).append(" ");
    ko_platform::append_line_text(record, text, state().colours);
    category->logger.log(spdlog_level(level), spdlog::string_view_t(record.data(), record.size()));
  } catch (...) {
  }
}
