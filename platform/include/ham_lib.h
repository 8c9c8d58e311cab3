/* High-availability monitor: watches processes and acts when one ends. */
#ifndef HAM_LIB_H
#define HAM_LIB_H

#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Requests `action` (a code of the monitor) for the end of process `pid`. Returns 0 or a non-zero status. */
int32_t reg_process_exit_action(pid_t pid, uint32_t action);

#ifdef __cplusplus
}
#endif

#endif
