// One record as the collector sends it, in named fields: what the native
// record carries (and a little more that it has no room for), before it is
// laid out in bytes or written as a JSON line.
#ifndef WLC_ACTION_RECORD_H
#define WLC_ACTION_RECORD_H

#include <cstdint>
#include <string>

#include "host_event.h"

namespace wlc {

struct ProcessInfo {
    int32_t pid = 0;
    std::string guid;
    std::string path;
    std::string cmdline;
    std::string user;
    std::string md5;
    std::string sha256;
};

struct FileFacts {
    std::string path;     // absolute; for a renaming, the new name
    std::string oldPath;  // renaming only
    std::string owner;
    std::string group;
    std::string permissions;  // octal, "0644"; empty when the file is gone
};

struct NetFacts {
    std::string protocol;  // "tcp", "udp"
    std::string srcIp;
    uint16_t srcPort = 0;
    std::string dstIp;     // listening: the address listened on
    uint16_t dstPort = 0;  // listening: the port listened on
};

struct DnsFacts {
    std::string name;
    uint32_t status = 0;
    std::string result;
};

struct ActionRecord {
    EventKind kind = EventKind::ProcessCreation;
    uint64_t time = 0;    // Unix seconds
    ProcessInfo process;  // the actor; for a process creation, the new process
    ProcessInfo parent;   // process creation only
    FileFacts file;
    NetFacts net;
    DnsFacts dns;
};

}  // namespace wlc

#endif
