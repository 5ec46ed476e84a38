#include "log_capture.h"

#include <thread>

#include "orv_log.h"

LogCapture::LogCapture() : m_savedLevel(error_output_get_level()) {
    error_output_set_level(4);
    log_set_sink(&LogCapture::sink, this);
}

LogCapture::~LogCapture() {
    log_set_sink(nullptr, nullptr);
    error_output_set_level(m_savedLevel);
}

void LogCapture::sink(int level, const char* source, const char* text, void* user) {
    auto* self = static_cast<LogCapture*>(user);
    {
        std::lock_guard<std::mutex> lock(self->m_mutex);
        self->m_lines.push_back({level, source ? source : "", text ? text : ""});
    }
    self->m_changed.notify_all();
}

std::vector<LoggedLine> LogCapture::lines() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lines;
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.clear();
}

int LogCapture::count(const std::string& fragment, int level) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    int n = 0;
    for (const auto& line : m_lines) {
        if ((level == 0 || line.level == level) && line.text.find(fragment) != std::string::npos) ++n;
    }
    return n;
}

bool LogCapture::waitFor(const std::string& fragment, std::chrono::milliseconds timeout, int level) const {
    std::unique_lock<std::mutex> lock(m_mutex);
    auto found = [&] {
        for (const auto& line : m_lines) {
            if ((level == 0 || line.level == level) && line.text.find(fragment) != std::string::npos) return true;
        }
        return false;
    };
    return m_changed.wait_for(lock, timeout, found);
}

std::string LogCapture::dump() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::string out;
    for (const auto& line : m_lines) {
        out += std::to_string(line.level) + " " + line.source + ": " + line.text;
        if (out.empty() || out.back() != '\n') out += '\n';
    }
    return out;
}

bool waitUntil(const std::function<bool()>& predicate, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}
