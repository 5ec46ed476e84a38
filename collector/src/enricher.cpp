#include "enricher.h"

#include <arpa/inet.h>
#include <grp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <vector>

#include "dns_query.h"

namespace wlc {
namespace {

std::string groupName(gid_t gid) {
    struct group entry;
    struct group* result = nullptr;
    std::vector<char> buffer(16384);
    if (::getgrgid_r(gid, &entry, buffer.data(), buffer.size(), &result) == 0 && result != nullptr)
        return result->gr_name;
    return std::to_string(gid);
}

std::string octalMode(mode_t mode) {
    char text[8];
    std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & 07777));
    return text;
}

const char* protocolName(uint8_t protocol) {
    switch (protocol) {
        case IPPROTO_TCP: return "tcp";
        case IPPROTO_UDP: return "udp";
        default: return "";
    }
}

}  // namespace

std::string addressText(uint8_t family, const std::array<uint8_t, 16>& address) {
    char text[INET6_ADDRSTRLEN] = {0};
    if (family == AF_INET) return inet_ntop(AF_INET, address.data(), text, sizeof text) ? text : "";
    if (family != AF_INET6) return {};
    static const uint8_t kMapped[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
    if (std::equal(kMapped, kMapped + 12, address.begin()))
        return inet_ntop(AF_INET, address.data() + 12, text, sizeof text) ? text : "";
    return inet_ntop(AF_INET6, address.data(), text, sizeof text) ? text : "";
}

std::string normalisePath(const std::string& path) {
    std::vector<std::string> parts;
    std::size_t at = 0;
    while (at <= path.size()) {
        std::size_t slash = path.find('/', at);
        if (slash == std::string::npos) slash = path.size();
        std::string part = path.substr(at, slash - at);
        if (part == "..") {
            if (!parts.empty()) parts.pop_back();
        } else if (!part.empty() && part != ".") {
            parts.push_back(part);
        }
        at = slash + 1;
    }
    std::string out;
    for (const std::string& part : parts) out += "/" + part;
    return out.empty() ? "/" : out;
}

std::string Enricher::absolutePath(const HostEvent& event, const std::string& path) {
    if (path.empty()) return path;
    if (path[0] == '/') return normalisePath(path);
    std::string base = m_processes.directoryOf(event.pid, event.dirFd);
    if (base.empty()) return path;  // the process is gone: keep what it said
    return normalisePath(base + "/" + path);
}

void Enricher::fillFile(const HostEvent& event, ActionRecord& record) {
    if (event.kind == EventKind::FileRenaming) {
        record.file.oldPath = absolutePath(event, event.path);
        record.file.path = absolutePath(event, event.path2);
    } else {
        record.file.path = absolutePath(event, event.path);
    }
    struct stat st;
    if (event.kind != EventKind::FileDeletion && ::lstat(record.file.path.c_str(), &st) == 0) {
        record.file.owner = m_processes.userName(st.st_uid);
        record.file.group = groupName(st.st_gid);
        record.file.permissions = octalMode(st.st_mode);
    }
}

void Enricher::fillNet(const HostEvent& event, ActionRecord& record) {
    record.net.protocol = protocolName(event.protocol);
    if (event.kind == EventKind::Listening) {
        // The record names the address and port listened on as the destination.
        record.net.dstIp = addressText(event.family, event.srcAddr);
        record.net.dstPort = event.srcPort;
        return;
    }
    record.net.srcIp = addressText(event.family, event.srcAddr);
    record.net.srcPort = event.srcPort;
    record.net.dstIp = addressText(event.family, event.dstAddr);
    record.net.dstPort = event.dstPort;
}

std::optional<ActionRecord> Enricher::enrich(const HostEvent& event) {
    switch (event.kind) {
        case EventKind::Fork: m_processes.onFork(event.pid, event.ppid); return std::nullopt;
        case EventKind::Exit: m_processes.onExit(event.pid); return std::nullopt;
        default: break;
    }

    ActionRecord record;
    record.kind = event.kind;
    record.time = event.timeNs / 1000000000ull;

    if (event.kind == EventKind::ProcessCreation) {
        record.process = m_processes.onExec(event.pid, event.path, event.cmdline, event.uid);
        int32_t parent = event.ppid != 0 ? event.ppid : m_processes.parentOf(event.pid);
        record.parent = m_processes.lookup(parent);
        record.parent.pid = parent;
        return record;
    }

    record.process = m_processes.lookup(event.pid);
    record.process.pid = event.pid;
    if (event.kind == EventKind::DnsQuery) {
        std::optional<std::string> name = parseDnsQueryName(event.payload.data(), event.payload.size());
        if (!name) {
            ++m_unparsableDns;
            return std::nullopt;
        }
        record.dns.name = *name;
        return record;
    }
    if (event.kind == EventKind::Connection || event.kind == EventKind::Listening) {
        fillNet(event, record);
        return record;
    }
    fillFile(event, record);
    return record;
}

}  // namespace wlc
