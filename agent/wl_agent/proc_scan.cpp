#include "proc_scan.h"

#include <dirent.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>

namespace wlagent {
namespace {

struct DirCloser {
    void operator()(DIR* dir) const { ::closedir(dir); }
};
using DirPtr = std::unique_ptr<DIR, DirCloser>;

std::vector<int> listPids(const std::string& procRoot) {
    std::vector<int> pids;
    DirPtr dir(::opendir(procRoot.c_str()));
    if (!dir) return pids;
    while (dirent* entry = ::readdir(dir.get())) {
        char* end = nullptr;
        long pid = std::strtol(entry->d_name, &end, 10);
        if (pid > 0 && end && *end == '\0') pids.push_back(static_cast<int>(pid));
    }
    return pids;
}

std::string readLink(const std::string& path) {
    char target[PATH_MAX];
    ssize_t n = ::readlink(path.c_str(), target, sizeof target - 1);
    return n > 0 ? std::string(target, static_cast<size_t>(n)) : std::string();
}

// "0100007F:0050" (IPv4) or 32 hex digits (IPv6), as the kernel prints them.
std::string formatAddress(const std::string& hex) {
    if (hex.size() == 8) {
        unsigned long v = std::strtoul(hex.c_str(), nullptr, 16);
        return std::to_string(v & 0xff) + "." + std::to_string((v >> 8) & 0xff) + "." +
               std::to_string((v >> 16) & 0xff) + "." + std::to_string((v >> 24) & 0xff);
    }
    return hex.find_first_not_of('0') == std::string::npos ? "::" : hex;
}

}  // namespace

std::vector<ProcessInfo> scanProcesses(const std::string& procRoot) {
    std::vector<ProcessInfo> out;
    for (int pid : listPids(procRoot)) {
        std::string base = procRoot + "/" + std::to_string(pid);
        std::ifstream status(base + "/status");
        if (!status) continue;  // gone meanwhile
        ProcessInfo info;
        info.pid = pid;
        std::string line;
        while (std::getline(status, line)) {
            if (line.rfind("Name:", 0) == 0) {
                info.name = line.substr(line.find_first_not_of(" \t", 5));
            } else if (line.rfind("PPid:", 0) == 0) {
                info.ppid = std::atoi(line.c_str() + 5);
            } else if (line.rfind("Uid:", 0) == 0) {
                info.uid = static_cast<unsigned>(std::strtoul(line.c_str() + 4, nullptr, 10));
            }
        }
        info.exe = readLink(base + "/exe");
        out.push_back(info);
    }
    return out;
}

std::vector<ListeningSocket> parseSocketTable(const std::string& text, const std::string& protocol) {
    std::vector<ListeningSocket> out;
    std::istringstream in(text);
    std::string line;
    std::getline(in, line);  // header
    const bool tcp = protocol.rfind("tcp", 0) == 0;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        std::string slot, local, remote, state, queues, timer, retr, uid, timeout, inode;
        if (!(fields >> slot >> local >> remote >> state >> queues >> timer >> retr >> uid >> timeout >> inode))
            continue;
        // TCP: LISTEN (0A). UDP: unconnected (07) sockets are the bound ones.
        if ((tcp && state != "0A") || (!tcp && state != "07")) continue;
        auto colon = local.rfind(':');
        if (colon == std::string::npos) continue;
        ListeningSocket s;
        s.protocol = protocol;
        s.address = formatAddress(local.substr(0, colon));
        s.port = static_cast<unsigned>(std::strtoul(local.c_str() + colon + 1, nullptr, 16));
        s.inode = std::strtoul(inode.c_str(), nullptr, 10);
        if (s.port != 0) out.push_back(s);
    }
    return out;
}

std::vector<ListeningSocket> scanListeningSockets(const std::string& procRoot) {
    std::vector<ListeningSocket> out;
    for (const char* protocol : {"tcp", "tcp6", "udp", "udp6"}) {
        std::ifstream table(procRoot + "/net/" + protocol);
        if (!table) continue;
        std::stringstream text;
        text << table.rdbuf();
        auto part = parseSocketTable(text.str(), protocol);
        out.insert(out.end(), part.begin(), part.end());
    }
    return out;
}

std::map<unsigned long, int> mapSocketOwners(const std::string& procRoot) {
    std::map<unsigned long, int> owners;
    for (int pid : listPids(procRoot)) {
        std::string fdDir = procRoot + "/" + std::to_string(pid) + "/fd";
        DirPtr dir(::opendir(fdDir.c_str()));
        if (!dir) continue;
        while (dirent* entry = ::readdir(dir.get())) {
            if (entry->d_name[0] == '.') continue;
            std::string target = readLink(fdDir + "/" + entry->d_name);
            if (target.rfind("socket:[", 0) != 0) continue;
            unsigned long inode = std::strtoul(target.c_str() + 8, nullptr, 10);
            owners.emplace(inode, pid);
        }
    }
    return owners;
}

}  // namespace wlagent
