// The library logs through the agent's error_output when it is linked with
// the base library; a stand-alone build checks the formats and drops them.
#ifndef BASEENG_ENGINE_LOG_H
#define BASEENG_ENGINE_LOG_H

#if defined(WL_ENGINE_HAS_LOG)
#include "orv_log.h"
#define ENGINE_LOG(level, ...)                                                                \
    do {                                                                                      \
        if (error_output_check(level)) error_output(level, "baseeng", __LINE__, __VA_ARGS__); \
    } while (0)
#else
inline void engine_log_discard(int, const char*, ...) __attribute__((format(printf, 2, 3)));
inline void engine_log_discard(int, const char*, ...) {}
#define ENGINE_LOG(level, ...) engine_log_discard(level, __VA_ARGS__)
#endif

enum { ENGINE_LOG_ERROR = 1, ENGINE_LOG_WARN = 2, ENGINE_LOG_INFO = 3, ENGINE_LOG_DETAIL = 4 };

#endif
