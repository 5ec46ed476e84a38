#include "peer_policy.h"

#include <grp.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "ini_file.h"

namespace orv_rasp {

namespace {
constexpr char kDefaultGroup[] = "wl-telemetry";
constexpr long kMaxModels = 100000;

struct IniCloser {
    void operator()(void* ini) const { ini_file_free(ini); }
};

// The kernel marks the executable of a process whose file was replaced
// (an upgrade while it runs); it is still the same program path.
std::string without_deleted_mark(std::string path) {
    static const std::string mark = " (deleted)";
    if (path.size() > mark.size() && path.compare(path.size() - mark.size(), mark.size(), mark) == 0) {
        path.erase(path.size() - mark.size());
    }
    return path;
}

bool lookup_group(const char* name, gid_t* gid) {
    long size = ::sysconf(_SC_GETGR_R_SIZE_MAX);
    std::vector<char> buffer(size > 0 ? static_cast<size_t>(size) : 16384);
    struct group entry;
    struct group* found = nullptr;
    while (::getgrnam_r(name, &entry, buffer.data(), buffer.size(), &found) == ERANGE && buffer.size() < (1u << 20)) {
        buffer.resize(buffer.size() * 2);
    }
    if (found == nullptr) return false;
    *gid = found->gr_gid;
    return true;
}
}  // namespace

std::set<std::string> known_executables(const std::string& catalogue) {
    std::set<std::string> paths;
    std::unique_ptr<void, IniCloser> ini(ini_file_load(catalogue.c_str()));
    if (!ini) return paths;
    const char* count_text = ini_file_get(ini.get(), "raspengine", "count");
    const long count = count_text ? std::strtol(count_text, nullptr, 0) : 0;
    for (long i = 0; i < count && i < kMaxModels; ++i) {
        char section[32];
        std::snprintf(section, sizeof(section), "model_%ld", i);
        const char* path = ini_file_get(ini.get(), section, "process_path");
        if (path == nullptr || *path == '\0') continue;
        paths.insert(path);
        char real[PATH_MAX];
        if (::realpath(path, real) != nullptr) paths.insert(real);  // a model may name a link
    }
    return paths;
}

std::string executable_of(pid_t pid, uid_t uid) {
    const std::string proc = "/proc/" + std::to_string(pid);
    struct stat st;
    if (pid <= 0 || ::stat(proc.c_str(), &st) != 0 || st.st_uid != uid) return std::string();
    char target[PATH_MAX];
    const ssize_t n = ::readlink((proc + "/exe").c_str(), target, sizeof(target) - 1);
    if (n <= 0) return std::string();
    return without_deleted_mark(std::string(target, static_cast<size_t>(n)));
}

bool runs_known_executable(pid_t pid, uid_t uid, const std::string& catalogue) {
    const std::string exe = executable_of(pid, uid);
    if (exe.empty()) return false;
    return known_executables(catalogue).count(exe) != 0;
}

bool speaks_for_itself(pid_t peer, std::uint64_t claimed) {
    if (peer <= 0 || claimed == 0 || claimed > static_cast<std::uint64_t>(INT_MAX)) return false;
    if (claimed == static_cast<std::uint64_t>(peer)) return true;
    const std::string task = "/proc/" + std::to_string(peer) + "/task/" + std::to_string(claimed);
    struct stat st;
    return ::stat(task.c_str(), &st) == 0;
}

gid_t telemetry_group(std::string* name) {
    const char* wanted = std::getenv("WL_RASP_GROUP");
    const char* candidate = (wanted != nullptr && *wanted != '\0') ? wanted : kDefaultGroup;
    gid_t gid = 0;
    if (lookup_group(candidate, &gid)) {
        *name = candidate;
        return gid;
    }
    *name = "root";
    return 0;
}

}  // namespace orv_rasp
