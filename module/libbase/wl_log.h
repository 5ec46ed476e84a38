// The module's two forms of logging, both services of the agent.
#ifndef WL_LOG_H
#define WL_LOG_H

#include <unistd.h>

#include "orv_log.h"

// error_output, under the name of the source file (without its extension).
#define WL_LOG_AS(source, level, ...)                               \
    do {                                                            \
        if (error_output_check(level)) {                            \
            error_output((level), (source), __LINE__, __VA_ARGS__); \
        }                                                           \
    } while (0)

#define WL_LOG(level, ...) WL_LOG_AS(WL_LOG_SOURCE, level, __VA_ARGS__)

// orv_log_output with the agent's prefix and the "[TUL]" tag.
#define WL_ORV_LOG_AT(orv_level, word, fmt, ...)                                                         \
    orv_log_output((orv_level), "[PID:%-5ld]\t[" word "]\t%-10s [%s(%d)] " fmt, (long)getpid(), "[TUL]", \
                   WL_LOG_SOURCE, __LINE__, ##__VA_ARGS__)

#define WL_ORV_ERROR(fmt, ...) WL_ORV_LOG_AT(ORV_LOG_ERROR, "ERROR", fmt, ##__VA_ARGS__)
#define WL_ORV_WARN(fmt, ...) WL_ORV_LOG_AT(ORV_LOG_WARN, "WARN", fmt, ##__VA_ARGS__)
#define WL_ORV_INFO(fmt, ...) WL_ORV_LOG_AT(ORV_LOG_INFO, "INFO", fmt, ##__VA_ARGS__)
#define WL_ORV_DEBUG(fmt, ...) WL_ORV_LOG_AT(ORV_LOG_DEBUG, "DEBUG", fmt, ##__VA_ARGS__)

#endif
