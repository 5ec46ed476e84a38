// A channel's limit, overridable by an environment variable (a positive
// decimal number) so that an installation, or a test, can tighten it.
#ifndef WL_CHANNEL_LIMIT_H
#define WL_CHANNEL_LIMIT_H

#include <cerrno>
#include <cstdlib>

namespace wlsock {

inline long channel_limit(const char* variable, long fallback) {
    const char* text = std::getenv(variable);
    if (text == nullptr || *text == '\0') return fallback;
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text, &end, 10);
    if (errno != 0 || *end != '\0' || value <= 0) return fallback;
    return value;
}

}  // namespace wlsock

#endif
