// What the portable back-end reads from /proc about a process, and the
// parsers behind it (kept apart so they can be checked on plain text).
#ifndef WLC_PORTABLE_PROC_INFO_H
#define WLC_PORTABLE_PROC_INFO_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace wlc::portable {

uint64_t realtimeNs();

// Field 4 of /proc/<pid>/stat; the command name may hold blanks and ')'.
std::optional<int32_t> parseStatParent(std::string_view stat);
// The real uid from the "Uid:" line of /proc/<pid>/status.
std::optional<uint32_t> parseStatusUid(std::string_view status);
// /proc/<pid>/cmdline with the NULs between arguments turned into blanks.
std::string cmdlineText(std::string_view raw);
// The inode of an fd link "socket:[N]"; nothing for other links.
std::optional<uint64_t> parseSocketInode(std::string_view link);
// Blank-separated pids, as /proc/<pid>/task/<tid>/children lists them.
std::vector<int32_t> parsePidList(std::string_view text);

// At most max bytes of a file; empty when it cannot be read.
std::string readFileCapped(const std::string& path, std::size_t max);
// The target of a symbolic link; empty when it cannot be read.
std::string readLinkText(const std::string& path);

struct ProcessFacts {
    int32_t ppid = 0;
    uint32_t uid = UINT32_MAX;
    std::string exe;
    std::string cmdline;
};
// What can still be read; a process that has gone leaves the defaults.
ProcessFacts readProcessFacts(int32_t pid);
uint32_t readProcessUid(int32_t pid);
// Children of every thread of pid.
std::vector<int32_t> readChildren(int32_t pid);

}  // namespace wlc::portable

#endif
