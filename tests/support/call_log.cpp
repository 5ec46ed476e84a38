#include "call_log.h"

#include <map>

namespace call_log {
namespace {

struct Log {
    std::mutex mutex;
    std::vector<std::string> calls;
    std::map<std::string, int> results;
};

// Never destroyed: threads a test leaves running may still record at exit.
Log& log() {
    static Log& instance = *new Log;
    return instance;
}

}  // namespace

void record(const std::string& call) {
    std::lock_guard<std::mutex> lock(log().mutex);
    log().calls.push_back(call);
}

int scripted(const std::string& call, const std::string& name) {
    record(call);
    return result(name);
}

void script(const std::string& name, int value) {
    std::lock_guard<std::mutex> lock(log().mutex);
    log().results[name] = value;
}

int result(const std::string& name) {
    std::lock_guard<std::mutex> lock(log().mutex);
    auto found = log().results.find(name);
    return found == log().results.end() ? 0 : found->second;
}

std::vector<std::string> calls() {
    std::lock_guard<std::mutex> lock(log().mutex);
    return log().calls;
}

int count(const std::string& call) {
    auto all = calls();
    return static_cast<int>(std::count(all.begin(), all.end(), call));
}

std::vector<std::string> calls_from(const std::string& call) {
    auto all = calls();
    return std::vector<std::string>(std::find(all.begin(), all.end(), call), all.end());
}

void clear() {
    std::lock_guard<std::mutex> lock(log().mutex);
    log().calls.clear();
}

void reset() {
    std::lock_guard<std::mutex> lock(log().mutex);
    log().calls.clear();
    log().results.clear();
}

}  // namespace call_log
