// The two logging front ends, the threshold, the sink and standard error.
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <string>

#include "log_internal.h"
#include "no_destructor.h"
#include "orv_log.h"

namespace {

constexpr int kDefaultLevel = 3;

int levelFromEnvironment() {
    const char* text = getenv("WL_LOG_LEVEL");
    if (!text || !*text) return kDefaultLevel;
    char* end = nullptr;
    long value = strtol(text, &end, 10);
    if (*end != '\0' || value < 0 || value > 4) return kDefaultLevel;
    return static_cast<int>(value);
}

std::atomic<int>& threshold() {
    static std::atomic<int> level{levelFromEnvironment()};
    return level;
}

std::atomic<int> g_toStderr{0};

// Sink calls run under the lock, so a swap waits for the calls in flight and
// the owner of the old sink may free it as soon as log_set_sink returns.
// Recursive, so that a sink may itself log. The flag spares the lock when no
// sink is set, which is always the case in the agent.
struct SinkSlot {
    std::recursive_mutex lock;
    std::atomic<bool> present{false};
    log_sink_fn fn = nullptr;
    void* user = nullptr;
};

SinkSlot& sinkSlot() {
    static wl::NoDestructor<SinkSlot> slot;
    return slot.get();
}

int clampLevel(int level) {
    return level < LOG_LVL_ERROR ? LOG_LVL_ERROR : level > LOG_LVL_DETAIL ? LOG_LVL_DETAIL : level;
}

std::string formatText(const char* fmt, va_list args) {
    char stackBuf[1024];
    va_list copy;
    va_copy(copy, args);
    int n = vsnprintf(stackBuf, sizeof stackBuf, fmt, copy);
    va_end(copy);
    if (n < 0) return std::string();
    if (static_cast<size_t>(n) < sizeof stackBuf) return std::string(stackBuf, static_cast<size_t>(n));
    std::string text(static_cast<size_t>(n), '\0');
    vsnprintf(&text[0], text.size() + 1, fmt, args);
    return text;
}

std::string timestamp() {
    struct timespec now {};
    clock_gettime(CLOCK_REALTIME, &now);
    struct tm parts {};
    localtime_r(&now.tv_sec, &parts);
    char buf[40];
    size_t n = strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &parts);
    snprintf(buf + n, sizeof buf - n, ".%03ld", static_cast<long>(now.tv_nsec / 1000000));
    return buf;
}

void deliver(int level, const char* source, const std::string& text, std::string line) {
    if (line.empty() || line.back() != '\n') line += '\n';
    kembase::autolog_write(line.data(), line.size());
    if (g_toStderr.load(std::memory_order_relaxed)) fwrite(line.data(), 1, line.size(), stderr);

    SinkSlot& slot = sinkSlot();
    if (!slot.present.load(std::memory_order_acquire)) return;
    std::lock_guard<std::recursive_mutex> guard(slot.lock);
    if (slot.fn) slot.fn(level, source, text.c_str(), slot.user);
}

}  // namespace

extern "C" int error_output_check(int level) { return level <= threshold().load(std::memory_order_relaxed) ? 1 : 0; }

extern "C" void error_output(int level, const char* source, int line, const char* fmt, ...) {
    level = clampLevel(level);
    if (!error_output_check(level) || !fmt) return;
    if (!source) source = "";
    va_list args;
    va_start(args, fmt);
    std::string text = formatText(fmt, args);
    va_end(args);

    static const char kLetters[] = {'E', 'W', 'I', 'D'};
    std::string fileLine = timestamp();
    fileLine += ' ';
    fileLine += kLetters[level - 1];
    fileLine += ' ';
    fileLine += source;
    fileLine += '(' + std::to_string(line) + "): ";
    fileLine += text;
    deliver(level, source, text, std::move(fileLine));
}

extern "C" void orv_log_output(int level, const char* fmt, ...) {
    int mapped = clampLevel(level + 1);
    if (!error_output_check(mapped) || !fmt) return;
    va_list args;
    va_start(args, fmt);
    std::string text = formatText(fmt, args);
    va_end(args);
    deliver(mapped, "", text, text);
}

extern "C" void error_output_set_level(int level) { threshold().store(level < 0 ? 0 : level > 4 ? 4 : level); }

extern "C" int error_output_get_level(void) { return threshold().load(); }

extern "C" void log_set_sink(log_sink_fn sink, void* user) {
    SinkSlot& slot = sinkSlot();
    std::lock_guard<std::recursive_mutex> guard(slot.lock);
    slot.fn = sink;
    slot.user = user;
    slot.present.store(sink != nullptr, std::memory_order_release);
}

extern "C" void log_set_stderr(int on) { g_toStderr.store(on ? 1 : 0); }
