#include "process_table.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <vector>

namespace wlc {
namespace {

std::string readLink(const std::string& path) {
    std::vector<char> buffer(4096);
    ssize_t n = ::readlink(path.c_str(), buffer.data(), buffer.size() - 1);
    if (n <= 0) return {};
    return std::string(buffer.data(), static_cast<size_t>(n));
}

std::string readWhole(const std::string& path, std::size_t limit) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return {};
    std::string data(limit, '\0');
    in.read(&data[0], static_cast<std::streamsize>(limit));
    data.resize(static_cast<size_t>(in.gcount()));
    return data;
}

// The first number after "<key>:" in /proc/<pid>/status.
bool statusField(const std::string& status, const char* key, long long* value) {
    std::istringstream lines(status);
    std::string line;
    std::string prefix = std::string(key) + ":";
    while (std::getline(lines, line)) {
        if (line.compare(0, prefix.size(), prefix) == 0) {
            *value = std::strtoll(line.c_str() + prefix.size(), nullptr, 10);
            return true;
        }
    }
    return false;
}

constexpr std::size_t kCmdlineLimit = 4096;

}  // namespace

std::string joinCommandLine(const std::string& raw) {
    std::string line = raw;
    while (!line.empty() && line.back() == '\0') line.pop_back();
    for (char& c : line) {
        if (c == '\0') c = ' ';
    }
    return line;
}

ProcessTable::ProcessTable(FileHasher& hasher, std::string procRoot, std::size_t capacity)
    : m_hasher(hasher), m_procRoot(std::move(procRoot)), m_capacity(capacity == 0 ? 1 : capacity) {}

std::string ProcessTable::procPath(int32_t pid, const char* leaf) const {
    return m_procRoot + "/" + std::to_string(pid) + "/" + leaf;
}

std::string ProcessTable::userName(uint32_t uid) {
    if (uid == UINT32_MAX) return {};
    auto found = m_users.find(uid);
    if (found != m_users.end()) return found->second;
    std::string name;
    struct passwd entry;
    struct passwd* result = nullptr;
    std::vector<char> buffer(16384);
    if (::getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &result) == 0 && result != nullptr)
        name = result->pw_name;
    else
        name = std::to_string(uid);  // no entry: the number still tells who
    if (m_users.size() < 4096) m_users.emplace(uid, name);
    return name;
}

void ProcessTable::hashExecutable(int32_t pid, ProcessInfo& info, const std::string& pathHint) {
    FileHashes hashes = m_hasher.hashPath(procPath(pid, "exe"));
    if (hashes.md5.empty() && !pathHint.empty()) hashes = m_hasher.hashPath(pathHint);
    info.md5 = hashes.md5;
    info.sha256 = hashes.sha256;
}

ProcessInfo ProcessTable::readFromProc(int32_t pid) {
    ProcessInfo info;
    info.pid = pid;
    info.path = readLink(procPath(pid, "exe"));
    info.cmdline = joinCommandLine(readWhole(procPath(pid, "cmdline"), kCmdlineLimit));
    long long uid = -1;
    std::string status = readWhole(procPath(pid, "status"), 8192);
    if (statusField(status, "Uid", &uid) && uid >= 0) info.user = userName(static_cast<uint32_t>(uid));
    hashExecutable(pid, info, info.path);
    return info;
}

ProcessInfo& ProcessTable::store(int32_t pid, ProcessInfo info) {
    auto found = m_processes.find(pid);
    if (found != m_processes.end()) {
        found->second = std::move(info);
        return found->second;
    }
    while (m_processes.size() >= m_capacity && !m_order.empty()) {
        m_processes.erase(m_order.front());
        m_order.pop_front();
    }
    m_order.push_back(pid);
    return m_processes.emplace(pid, std::move(info)).first->second;
}

const ProcessInfo& ProcessTable::lookup(int32_t pid) {
    auto found = m_processes.find(pid);
    if (found != m_processes.end()) return found->second;
    ProcessInfo info = readFromProc(pid);
    if (info.path.empty() && info.cmdline.empty() && info.user.empty()) {
        // Gone before we looked: name it by its id, but keep nothing.
        m_unknown = ProcessInfo();
        m_unknown.pid = pid;
        return m_unknown;
    }
    return store(pid, std::move(info));
}

void ProcessTable::onFork(int32_t child, int32_t parent) {
    ProcessInfo info = lookup(parent);
    info.pid = child;
    store(child, std::move(info));
}

const ProcessInfo& ProcessTable::onExec(int32_t pid, const std::string& path, const std::string& cmdline,
                                        uint32_t uid) {
    ProcessInfo info = readFromProc(pid);
    if (!path.empty() && info.path.empty()) info.path = path;
    if (!cmdline.empty()) info.cmdline = cmdline;
    if (uid != UINT32_MAX) info.user = userName(uid);
    if (info.md5.empty() && !info.path.empty()) hashExecutable(pid, info, info.path);
    return store(pid, std::move(info));
}

void ProcessTable::onExit(int32_t pid) {
    m_processes.erase(pid);
    // m_order keeps the id until it reaches the front; erase() of a missing
    // id there is harmless.
}

int32_t ProcessTable::parentOf(int32_t pid) {
    long long ppid = 0;
    std::string status = readWhole(procPath(pid, "status"), 8192);
    if (!statusField(status, "PPid", &ppid)) return 0;
    return static_cast<int32_t>(ppid);
}

std::string ProcessTable::directoryOf(int32_t pid, int32_t dirFd) {
    if (dirFd == AT_FDCWD) return readLink(procPath(pid, "cwd"));
    return readLink(m_procRoot + "/" + std::to_string(pid) + "/fd/" + std::to_string(dirFd));
}

}  // namespace wlc
