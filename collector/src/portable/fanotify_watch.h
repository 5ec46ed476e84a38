// File events through fanotify: every real filesystem marked whole, events
// of watched processes named by directory handle and entry name.
#ifndef WLC_PORTABLE_FANOTIFY_WATCH_H
#define WLC_PORTABLE_FANOTIFY_WATCH_H

#include <cstdint>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "host_event.h"
#include "portable/file_event_shaper.h"
#include "wl_unique_fd.h"
#include "portable/watch_set.h"

namespace wlc::portable {

class FanotifyWatch {
public:
    enum class Read { Data, Empty, Failed };

    FanotifyWatch();
    FanotifyWatch(const FanotifyWatch&) = delete;
    FanotifyWatch& operator=(const FanotifyWatch&) = delete;

    // False with the reason when this kernel or privilege cannot do it.
    bool open(std::string& reason);
    int fd() const { return fanotify_.get(); }
    // Marks what was mounted since (and again what stayed: harmless, and a
    // filesystem mounted anew needs its mark again).
    void refreshMounts();
    // One read without blocking; events of watched processes go to out.
    Read readOnce(const WatchSet& watched, std::vector<HostEvent>& out);
    void expire();

    uint64_t takeLostInKernel();
    uint64_t takeLostInBackend();
    // Filesystems left unwatched, and why.
    std::string notes() const;

private:
    std::optional<std::string> resolveDirectory(uint64_t fsid, const std::vector<uint8_t>& handle) const;
    bool mark(int dirFd, const std::string& mountPoint, const std::string& fsType);
    void note(std::string text);

    wl::UniqueFd fanotify_;
    uint64_t mask_ = 0;
    // fsid -> a mount point showing all of that filesystem. Paths, not open
    // descriptors: an open descriptor would keep the filesystem from being
    // unmounted.
    std::unordered_map<uint64_t, std::string> mountPoints_;
    mutable std::mutex notesMutex_;  // notes are read from other threads
    std::set<std::string> unmarked_;
    std::vector<uint8_t> buffer_;
    FileEventShaper shaper_;
    uint64_t overflows_ = 0;
    uint64_t malformed_ = 0;
};

}  // namespace wlc::portable

#endif
