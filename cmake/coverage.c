/* Linked to every program that counts coverage: what ends with SIGTERM or _exit keeps its counts, too. */
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

void __gcov_dump(void);

static void end(int number) {
  __gcov_dump();
  signal(number, SIG_DFL);
  raise(number);
}

__attribute__((constructor)) static void begin(void) { signal(SIGTERM, end); }

void _exit(int status) {
  __gcov_dump();
  syscall(SYS_exit_group, status);
  __builtin_unreachable();
}
