// Captures what the code under test logs, so tests can assert exact messages.
#ifndef WL_TEST_LOG_CAPTURE_H
#define WL_TEST_LOG_CAPTURE_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

struct LoggedLine {
    int level;  // 1 error .. 4 detail
    std::string source;
    std::string text;
};

// Installs itself as the log sink for its lifetime, with the threshold at 4.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LoggedLine> lines() const;
    void clear();
    // Number of lines whose text contains the fragment (at the level, if > 0).
    int count(const std::string& fragment, int level = 0) const;
    bool contains(const std::string& fragment, int level = 0) const { return count(fragment, level) > 0; }
    // Waits until a line containing the fragment is logged.
    bool waitFor(const std::string& fragment, std::chrono::milliseconds timeout = std::chrono::seconds(5),
                 int level = 0) const;
    // All captured texts, one per line, for failure messages.
    std::string dump() const;

private:
    static void sink(int level, const char* source, const char* text, void* user);
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::vector<LoggedLine> m_lines;
    int m_savedLevel;
};

// Polls the predicate until it holds or the timeout passes.
bool waitUntil(const std::function<bool()>& predicate, std::chrono::milliseconds timeout = std::chrono::seconds(5));

#endif
