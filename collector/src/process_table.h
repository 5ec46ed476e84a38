// What the collector knows of each process it reports on: path, command
// line, user and executable hashes, read from /proc once and kept until the
// process exits, so that the records of a short-lived process still name it.
#ifndef WLC_PROCESS_TABLE_H
#define WLC_PROCESS_TABLE_H

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <string>
#include <unordered_map>

#include "action_record.h"
#include "file_hash.h"

namespace wlc {

class ProcessTable {
public:
    // procRoot: "/proc" on a host; a directory of the same shape in tests.
    ProcessTable(FileHasher& hasher, std::string procRoot = "/proc", std::size_t capacity = 16384);

    // What is known of pid, read from /proc the first time. A process that
    // is gone and was never seen gives its id and nothing else.
    const ProcessInfo& lookup(int32_t pid);

    // A fork: the child runs its parent's program until it execs.
    void onFork(int32_t child, int32_t parent);
    // An exec: the program changed; what the back-end saw wins over /proc,
    // which may already be gone.
    const ProcessInfo& onExec(int32_t pid, const std::string& path, const std::string& cmdline, uint32_t uid);
    void onExit(int32_t pid);

    int32_t parentOf(int32_t pid);
    // The working directory of pid, or of the directory its descriptor names.
    std::string directoryOf(int32_t pid, int32_t dirFd);

    std::string userName(uint32_t uid);
    std::size_t size() const { return m_processes.size(); }

private:
    ProcessInfo readFromProc(int32_t pid);
    void hashExecutable(int32_t pid, ProcessInfo& info, const std::string& pathHint);
    ProcessInfo& store(int32_t pid, ProcessInfo info);
    std::string procPath(int32_t pid, const char* leaf) const;

    FileHasher& m_hasher;
    std::string m_procRoot;
    std::size_t m_capacity;
    std::unordered_map<int32_t, ProcessInfo> m_processes;
    std::deque<int32_t> m_order;  // insertion order, to bound the table
    std::unordered_map<uint32_t, std::string> m_users;
    ProcessInfo m_unknown;
};

// "/proc/<pid>/cmdline" bytes as one line: NULs become blanks, the trailing
// one goes.
std::string joinCommandLine(const std::string& raw);

}  // namespace wlc

#endif
