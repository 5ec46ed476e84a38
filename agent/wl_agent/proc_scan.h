// What /proc says about processes and listening sockets.
#ifndef WL_AGENT_PROC_SCAN_H
#define WL_AGENT_PROC_SCAN_H

#include <map>
#include <string>
#include <vector>

namespace wlagent {

struct ProcessInfo {
    int pid = 0;
    int ppid = 0;
    unsigned uid = 0;
    std::string name;  // from status
    std::string exe;   // target of /proc/<pid>/exe, empty for kernel threads
};

struct ListeningSocket {
    std::string protocol;  // "tcp", "tcp6", "udp", "udp6"
    std::string address;
    unsigned port = 0;
    unsigned long inode = 0;
};

std::vector<ProcessInfo> scanProcesses(const std::string& procRoot = "/proc");

// Listening TCP sockets and bound UDP sockets of one /proc/net table. The
// text is the table's content; exposed for tests.
std::vector<ListeningSocket> parseSocketTable(const std::string& text, const std::string& protocol);
std::vector<ListeningSocket> scanListeningSockets(const std::string& procRoot = "/proc");

// Socket inode to the first process holding it.
std::map<unsigned long, int> mapSocketOwners(const std::string& procRoot = "/proc");

}  // namespace wlagent

#endif
