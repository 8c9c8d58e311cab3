// Start-up steps: process name, arguments, single instance, high-availability monitor, global context.
//
// Nothing is released: caches and the lock of the pid file are kept until the process ends.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "001_init_a/dl_init.h"
#include "001_init_a/dl_zlog.h"
#include "ham_lib.h"
#include "ko_status.h"

namespace {

constexpr uint32_t ham_exit_action = 2;  // what the monitor does when this process ends

// Puts the base name of the executable file into the zeroed `name`. Returns 0, or why there is none.
int32_t read_proc_name(char *name) {
  char path[dl_name_size] = {};
  if (readlink("/proc/self/exe", path, sizeof(path)) <= 0) return ko_status_unreadable;
  path[sizeof(path) - 1] = '\0';
  const char *slash = std::strrchr(path, '/');
  if (slash == nullptr) return ko_status_not_found;
  std::snprintf(name, dl_name_size, "%s", slash + 1);
  return 0;
}

// A process that has executed itself again still has the pid file open and locked. Closing any descriptor of the file
// would release the lock, so that one is used again. Returns it, or -1 when `path` is not open for reading and writing.
int find_open_file(const char *path) {
  struct stat wanted;
  if (stat(path, &wanted) != 0) return -1;
  DIR *folder = opendir("/proc/self/fd");
  if (folder == nullptr) return -1;
  int found = -1;
  for (const dirent *entry = readdir(folder); entry != nullptr && found < 0; entry = readdir(folder)) {
    const int fd = std::atoi(entry->d_name);
    struct stat status;
    if (fd <= STDERR_FILENO || fstat(fd, &status) != 0 || (fcntl(fd, F_GETFL) & O_ACCMODE) != O_RDWR) continue;
    if (status.st_dev == wanted.st_dev && status.st_ino == wanted.st_ino) found = fd;
  }
  closedir(folder);
  return found;
}

// Takes the write lock on the whole file without waiting. The process owns the lock: a second run in the same process
// gets it again.
bool lock_file(int fd) {
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  return fcntl(fd, F_SETLK, &lock) == 0;
}

// Replaces the file's contents with the process id and a NUL. Only the lock matters: a full disk is no error.
void write_pid(int fd) {
  char text[dl_name_size] = {};
  std::snprintf(text, sizeof(text), "%ld", static_cast<long>(getpid()));
  [[maybe_unused]] const int truncated = ftruncate(fd, 0);
  lseek(fd, 0, SEEK_SET);
  [[maybe_unused]] const ssize_t written = write(fd, text, std::strlen(text) + 1);
}

}  // namespace

int32_t dl_init_proc_name(dl_init_arg_t *arg) {
  static char cached_name[dl_name_size];
  static uint8_t found = 0;
  if (found == 0) {
    std::memset(cached_name, 0, sizeof(cached_name));
    const int32_t rv = read_proc_name(cached_name);
    if (rv != 0) return rv;
    found = 1;
    DL_INFO("\033[32m<init> proc name is %s.\033[0m", cached_name);
  }
  std::memcpy(arg->proc_name, cached_name, sizeof(arg->proc_name));
  return 0;
}

int32_t dl_init_user_param(dl_init_arg_t *arg) {
  if (arg->in == nullptr) {
    DL_ERROR("\033[31m<init> in is (NULL).\033[0m");
    return ko_status_invalid;
  }
  if (arg->out == nullptr) {
    DL_ERROR("\033[31m<init> out is (NULL).\033[0m");
    return ko_status_invalid;
  }
  *arg->out = {};
  return 0;
}

int32_t dl_init_running_check(dl_init_arg_t *arg) {
  char path[dl_name_size];
  std::snprintf(path, sizeof(path), "/var/run/%.64s.pid", arg->proc_name);
  int fd = find_open_file(path);
  if (fd < 0) fd = open(path, O_RDWR | O_CREAT, 0644);
  if (fd < 0) {
    DL_ERROR("\033[31m<init> open lockfile failed, fd = %d\033[0m", fd);
    return ko_status_locked;
  }
  if (!lock_file(fd)) {
    DL_ERROR("\033[31m<init> lock lockfile failed\033[0m");
    close(fd);
    std::exit(ko_status_locked);
  }
  write_pid(fd);
  return 0;
}

int32_t dl_init_ham(dl_init_arg_t *arg) {
  std::signal(SIGPIPE, SIG_IGN);
  char path[dl_name_size];
  std::snprintf(path, sizeof(path), "/var/tmp/%.64s.ham", arg->proc_name);
  // Anyone may create files there: without O_NONBLOCK a FIFO of that name would block start-up forever.
  const int fd = open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY);
  if (fd >= 0) {
    close(fd);
    DL_WARN("\033[33m<init> don't need reg ham.\033[0m");
    return 0;
  }
  const int32_t rv = reg_process_exit_action(getpid(), ham_exit_action);
  if (rv != 0) DL_ERROR("\033[31m<init> reg ham failed, rv = %d\033[0m", rv);
  return rv;
}

int32_t dl_init_global(dl_init_arg_t *arg) {
  static vx_global *cached_global = nullptr;
  static uint8_t created = 0;
  if (created == 0) {
    cached_global = vx_global_init(arg->proc_name);
    if (cached_global == nullptr) {
      DL_ERROR("\033[31m<init> init global failed.\033[0m");
      return ko_status_unavailable;
    }
    DL_INFO("\033[32m<init> init global successfully.\033[0m");
    created = 1;
  }
  arg->out->global = cached_global;
  return 0;
}
