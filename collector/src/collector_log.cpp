#include "collector_log.h"

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <mutex>

namespace wlc {

void logLine(const char* format, ...) {
    static std::mutex lock;
    char stamp[32];
    std::time_t now = std::time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    std::lock_guard<std::mutex> guard(lock);
    std::fprintf(stderr, "%s wl-collector: ", stamp);
    va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
    std::fputc('\n', stderr);
    std::fflush(stderr);
}

}  // namespace wlc
