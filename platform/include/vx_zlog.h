/* Logging.
 *
 * A category is one log channel; the platform's configuration decides where its lines go and how they look. */
#ifndef VX_ZLOG_H
#define VX_ZLOG_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { VX_ZLOG_DEBUG = 20, VX_ZLOG_INFO = 40, VX_ZLOG_WARN = 80, VX_ZLOG_ERROR = 100 };

typedef struct vx_zlog_category vx_zlog_category;

/* Returns the category of that name, owned by the platform and valid until the process ends, or null when it
 * cannot be obtained. The same name always gives the same category. */
vx_zlog_category *vx_zlog_init(const char *category_name);

/* Writes one record. `file` and `func` need no terminating NUL, their lengths are in bytes. `level` is one of
 * the numbers above. A record that cannot be written is lost without a report. */
void vxdf_zlog(vx_zlog_category *category, const char *file, size_t file_len, const char *func, size_t func_len,
               long line, int level, const char *format, ...) __attribute__((format(printf, 8, 9)));

/* Formats like snprintf: never writes more than `size` bytes and always terminates when `size` is not 0.
 * Returns the number of bytes the whole text would have taken, without the NUL, or a negative number. */
int at_snprintf(char *buffer, size_t size, const char *format, ...) __attribute__((format(printf, 3, 4)));

#ifdef __cplusplus
}
#endif

#endif
