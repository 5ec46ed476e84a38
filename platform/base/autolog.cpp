// Per-thread log files: each thread that calls autolog_init writes to its own
// directory's file; the rest write to the first file ever opened.
#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "dirutils.h"
#include "log_file.h"
#include "log_internal.h"
#include "no_destructor.h"
#include "orv_log.h"

namespace kembase {

namespace {

constexpr long kDefaultMaxSize = 10L * 1024 * 1024;

std::atomic<long> g_maxSize{kDefaultMaxSize};

struct LogFileRegistry {
    std::mutex lock;
    // Weak, so that a file closes when the last thread bound to it lets go.
    std::map<std::string, std::weak_ptr<LogFile>> open;
    std::shared_ptr<LogFile> processDefault;
};

LogFileRegistry& registry() {
    static wl::NoDestructor<LogFileRegistry> instance;
    return instance.get();
}

thread_local std::shared_ptr<LogFile> t_binding;

std::string stripTrailingSlashes(std::string dir) {
    while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
    return dir;
}

std::string logPathFor(const std::string& dir) {
    size_t slash = dir.find_last_of('/');
    std::string name = slash == std::string::npos ? dir : dir.substr(slash + 1);
    if (name.empty()) name = "log";  // the root directory
    std::string prefix = dir == "/" ? "" : dir;
    return prefix + "/" + name + ".log";
}

std::shared_ptr<LogFile> acquire(const std::string& path) {
    LogFileRegistry& reg = registry();
    std::lock_guard<std::mutex> guard(reg.lock);
    auto found = reg.open.find(path);
    if (found != reg.open.end()) {
        if (auto file = found->second.lock()) return file;
    }
    std::shared_ptr<LogFile> file = LogFile::open(path);
    if (!file) return nullptr;
    reg.open[path] = file;
    if (!reg.processDefault) reg.processDefault = file;
    return file;
}

}  // namespace

void autolog_write(const char* data, size_t len) {
    std::shared_ptr<LogFile> file = t_binding;
    if (!file) {
        LogFileRegistry& reg = registry();
        std::lock_guard<std::mutex> guard(reg.lock);
        file = reg.processDefault;
    }
    if (file) file->write(data, len, g_maxSize.load(std::memory_order_relaxed));
}

}  // namespace kembase

// A thread keeps the first file it bound: the engines open their logs from the
// module's work thread during start-up, and that thread's own lines must stay
// in its own file.
extern "C" int autolog_init(const char* dir, int flags) {
    if (!dir || !*dir) return -1;
    if (kembase::t_binding) return 0;
    std::string cleaned = kembase::stripTrailingSlashes(dir);
    if (dirutils_mkdir(cleaned.c_str(), 0750) != 0) return -1;
    std::shared_ptr<kembase::LogFile> file = kembase::acquire(kembase::logPathFor(cleaned));
    if (!file) return -1;
    kembase::t_binding = std::move(file);
    return 0;
}

extern "C" void autolog_deinit(void) { kembase::t_binding.reset(); }

extern "C" void autolog_set_max_size(long bytes) {
    if (bytes > 0) kembase::g_maxSize.store(bytes);
}
