#include "portable/fanotify_watch.h"

#include <fcntl.h>
#include <sys/fanotify.h>
#include <sys/statfs.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <unordered_map>
#include <utility>

#include "portable/fanotify_decode.h"
#include "portable/mount_table.h"
#include "portable/proc_info.h"

namespace wlc::portable {
namespace {

constexpr std::size_t kReadBuffer = 64 * 1024;
constexpr std::size_t kMountInfoMax = 1024 * 1024;
constexpr std::size_t kUnmarkedNotes = 32;
constexpr uint64_t kCommonMask = FAN_CREATE | FAN_DELETE | FAN_MODIFY | FAN_ATTRIB;
constexpr uint64_t kRenameMask = kCommonMask | FAN_RENAME;
constexpr uint64_t kMoveMask = kCommonMask | FAN_MOVED_FROM | FAN_MOVED_TO;

uint64_t monotonicNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000ull + static_cast<uint64_t>(now.tv_nsec);
}

std::optional<uint64_t> fsidOf(int fd) {
    struct statfs info {};
    if (::fstatfs(fd, &info) != 0) return std::nullopt;
    int32_t words[2];
    static_assert(sizeof(words) == sizeof(info.f_fsid), "fsid is two words");
    std::memcpy(words, &info.f_fsid, sizeof(words));
    uint64_t key = fsidKey(words[0], words[1]);
    if (key == 0) return std::nullopt;  // no fsid: fanotify cannot name its files either
    return key;
}

std::string initFailure(int error) {
    switch (error) {
        case EPERM: return "fanotify needs CAP_SYS_ADMIN";
        case EINVAL: return "this kernel's fanotify cannot report file names (Linux 5.9 or later needed)";
        case ENOSYS: return "this kernel has no fanotify";
        default: return std::string("fanotify_init: ") + std::strerror(error);
    }
}

}  // namespace

FanotifyWatch::FanotifyWatch()
    : buffer_(kReadBuffer),
      shaper_(
          [this](uint64_t fsid, const std::vector<uint8_t>& handle) { return resolveDirectory(fsid, handle); },
          [](const std::string& path) { return ::faccessat(AT_FDCWD, path.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0; }) {
}

bool FanotifyWatch::open(std::string& reason) {
    fanotify_.reset(::fanotify_init(FAN_CLASS_NOTIF | FAN_CLOEXEC | FAN_NONBLOCK | FAN_REPORT_DFID_NAME,
                                    O_RDONLY | O_LARGEFILE | O_CLOEXEC));
    if (!fanotify_.valid()) {
        reason = initFailure(errno);
        return false;
    }
    mask_ = kRenameMask;
    refreshMounts();
    if (mountPoints_.empty()) {
        reason = "fanotify could not mark any filesystem";
        std::string why = notes();
        if (!why.empty()) reason += ": " + why;
        fanotify_.reset();
        return false;
    }
    return true;
}

void FanotifyWatch::refreshMounts() {
    if (!fanotify_.valid()) return;
    std::unordered_map<uint64_t, std::string> found;
    for (const MountEntry& entry :
         markableMounts(parseMountInfo(readFileCapped("/proc/self/mountinfo", kMountInfoMax)))) {
        wl::UniqueFd dir(::open(entry.mountPoint.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (!dir.valid()) continue;  // gone, or hidden beneath another mount
        auto fsid = fsidOf(dir.get());
        if (!fsid) {
            note(entry.mountPoint + " (" + entry.fsType + ": no fsid)");
            continue;
        }
        if (found.count(*fsid)) continue;
        if (mark(dir.get(), entry.mountPoint, entry.fsType)) found.emplace(*fsid, entry.mountPoint);
    }
    mountPoints_ = std::move(found);
}

bool FanotifyWatch::mark(int dirFd, const std::string& mountPoint, const std::string& fsType) {
    const unsigned flags = FAN_MARK_ADD | FAN_MARK_FILESYSTEM;
    if (::fanotify_mark(fanotify_.get(), flags, mask_, dirFd, ".") == 0) return true;
    if (errno == EINVAL && mask_ == kRenameMask) {
        // Before Linux 5.17 a rename comes as two halves.
        mask_ = kMoveMask;
        if (::fanotify_mark(fanotify_.get(), flags, mask_, dirFd, ".") == 0) return true;
    }
    note(mountPoint + " (" + fsType + ": " + std::strerror(errno) + ")");
    return false;
}

void FanotifyWatch::note(std::string text) {
    std::lock_guard lock(notesMutex_);
    if (unmarked_.size() < kUnmarkedNotes) unmarked_.insert(std::move(text));
}

FanotifyWatch::Read FanotifyWatch::readOnce(const WatchSet& watched, std::vector<HostEvent>& out) {
    ssize_t got = ::read(fanotify_.get(), buffer_.data(), buffer_.size());
    if (got < 0) {
        if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return Read::Empty;
        return Read::Failed;
    }
    if (got == 0) return Read::Empty;

    FanotifyBatch batch;
    decodeFanotifyBuffer(
        buffer_.data(), static_cast<std::size_t>(got),
        [&watched](int32_t pid) { return pid > 0 && watched.isWatched(pid); }, batch);
    overflows_ += batch.overflows;
    malformed_ += batch.malformed;

    std::size_t first = out.size();
    const uint64_t now = monotonicNs();
    for (const FanotifyEvent& event : batch.events) shaper_.shape(event, now, out);

    std::unordered_map<int32_t, uint32_t> uids;
    for (std::size_t i = first; i < out.size(); ++i) {
        auto known = uids.find(out[i].pid);
        if (known == uids.end()) known = uids.emplace(out[i].pid, readProcessUid(out[i].pid)).first;
        out[i].uid = known->second;
    }
    return Read::Data;
}

void FanotifyWatch::expire() { shaper_.expire(monotonicNs()); }

uint64_t FanotifyWatch::takeLostInKernel() { return std::exchange(overflows_, 0); }

uint64_t FanotifyWatch::takeLostInBackend() { return std::exchange(malformed_, 0) + shaper_.takeLost(); }

std::string FanotifyWatch::notes() const {
    std::lock_guard lock(notesMutex_);
    std::string text;
    for (const std::string& note : unmarked_) {
        if (!text.empty()) text += ", ";
        text += note;
    }
    return text.empty() ? text : "file events not seen on " + text;
}

std::optional<std::string> FanotifyWatch::resolveDirectory(uint64_t fsid, const std::vector<uint8_t>& handle) const {
    auto mount = mountPoints_.find(fsid);
    if (mount == mountPoints_.end()) return std::nullopt;
    // open_by_handle_at refuses an O_PATH descriptor for the mount.
    wl::UniqueFd mountFd(::open(mount->second.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!mountFd.valid() || fsidOf(mountFd.get()) != fsid) return std::nullopt;

    // file_handle has an int after its length: copy into aligned storage.
    std::vector<uint64_t> storage((handle.size() + sizeof(uint64_t) - 1) / sizeof(uint64_t));
    std::memcpy(storage.data(), handle.data(), handle.size());
    wl::UniqueFd dir(
        ::open_by_handle_at(mountFd.get(), reinterpret_cast<file_handle*>(storage.data()), O_PATH | O_CLOEXEC));
    if (!dir.valid()) return std::nullopt;  // removed meanwhile
    std::string path = readLinkText("/proc/self/fd/" + std::to_string(dir.get()));
    constexpr std::string_view kDeleted = " (deleted)";
    if (path.size() > kDeleted.size() && path.compare(path.size() - kDeleted.size(), kDeleted.size(), kDeleted) == 0) {
        path.resize(path.size() - kDeleted.size());
    }
    if (path.empty() || path[0] != '/') return std::nullopt;
    return path;
}

}  // namespace wlc::portable
