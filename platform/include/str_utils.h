#ifndef STR_UTILS_H
#define STR_UTILS_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* snprintf that always terminates and returns the length written. */
int str_snprintf(char* buf, size_t size, const char* fmt, ...) __attribute__((format(printf, 3, 4)));

#ifdef __cplusplus
}
#endif

#endif
