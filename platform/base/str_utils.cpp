#include "str_utils.h"

#include <stdarg.h>
#include <stdio.h>

extern "C" int str_snprintf(char* buf, size_t size, const char* fmt, ...) {
    if (!buf || size == 0) return 0;
    if (!fmt) {
        buf[0] = '\0';
        return 0;
    }
    va_list args;
    va_start(args, fmt);
    int n = vsnprintf(buf, size, fmt, args);
    va_end(args);
    if (n < 0) {
        buf[0] = '\0';
        return 0;
    }
    // vsnprintf reports what it would have written; callers want what fits.
    return static_cast<size_t>(n) < size ? n : static_cast<int>(size - 1);
}
