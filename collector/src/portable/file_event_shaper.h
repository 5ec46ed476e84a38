// Turns decoded fanotify events of watched processes into file events:
// names the files, collapses bursts of writes, and pairs the two halves of a
// rename on kernels without FAN_RENAME.
#ifndef WLC_PORTABLE_FILE_EVENT_SHAPER_H
#define WLC_PORTABLE_FILE_EVENT_SHAPER_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "host_event.h"
#include "portable/fanotify_decode.h"

namespace wlc::portable {

// The absolute path of a directory named by a file handle.
using DirectoryResolver = std::function<std::optional<std::string>(uint64_t fsid, const std::vector<uint8_t>& handle)>;
// Whether a path names something now.
using PathProbe = std::function<bool(const std::string& path)>;

class FileEventShaper {
public:
    static constexpr uint64_t kModifyWindowNs = 1000000000ull;
    static constexpr uint64_t kMovePairWindowNs = 1000000000ull;
    static constexpr std::size_t kModifyMemory = 4096;
    static constexpr std::size_t kPendingMoves = 1024;

    FileEventShaper(DirectoryResolver resolve, PathProbe exists);

    // nowNs: a monotonic clock, for the windows above.
    void shape(const FanotifyEvent& event, uint64_t nowNs, std::vector<HostEvent>& out);
    // Forgets rename halves whose other half never came; they count as lost.
    void expire(uint64_t nowNs);
    // Events lost since the last call: unnamed files, unpaired renames.
    uint64_t takeLost();

private:
    struct PendingMove {
        std::string path;
        uint64_t atNs = 0;
    };

    std::optional<std::string> pathOf(const FanotifyEvent& event, uint8_t recordType);
    bool admitModify(int32_t pid, const std::string& path, uint64_t nowNs);
    void rememberWrite(int32_t pid, const std::string& path, uint64_t nowNs);
    void movedFrom(int32_t pid, std::string path, uint64_t nowNs);
    void movedTo(int32_t pid, std::string path, uint64_t nowNs, std::vector<HostEvent>& out);

    DirectoryResolver resolve_;
    PathProbe exists_;
    std::unordered_map<std::string, uint64_t> lastWrite_;  // pid + path -> when reported
    std::unordered_map<int32_t, PendingMove> pendingMoves_;
    uint64_t lost_ = 0;
};

// dir + "/" + name, with no doubled slash; "." names the directory itself.
std::string joinPath(const std::string& dir, const std::string& name);

}  // namespace wlc::portable

#endif
