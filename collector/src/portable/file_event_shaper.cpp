#include "portable/file_event_shaper.h"

#include <sys/fanotify.h>

#include <utility>

#include "portable/proc_info.h"

namespace wlc::portable {
namespace {

std::string writeKey(int32_t pid, const std::string& path) { return std::to_string(pid) + ':' + path; }

HostEvent fileEvent(EventKind kind, int32_t pid, std::string path) {
    HostEvent event;
    event.kind = kind;
    event.timeNs = realtimeNs();
    event.pid = pid;
    event.path = std::move(path);
    return event;
}

}  // namespace

std::string joinPath(const std::string& dir, const std::string& name) {
    if (name.empty() || name == ".") return dir;
    if (!dir.empty() && dir.back() == '/') return dir + name;
    return dir + '/' + name;
}

FileEventShaper::FileEventShaper(DirectoryResolver resolve, PathProbe exists)
    : resolve_(std::move(resolve)), exists_(std::move(exists)) {}

void FileEventShaper::shape(const FanotifyEvent& event, uint64_t nowNs, std::vector<HostEvent>& out) {
    if (event.mask & FAN_ONDIR) return;  // directories are not asked for; a stray one is no file event

    if (event.mask & FAN_RENAME) {
        auto from = pathOf(event, FAN_EVENT_INFO_TYPE_OLD_DFID_NAME);
        auto to = pathOf(event, FAN_EVENT_INFO_TYPE_NEW_DFID_NAME);
        if (from && to) {
            HostEvent renamed = fileEvent(EventKind::FileRenaming, event.pid, std::move(*from));
            renamed.path2 = std::move(*to);
            out.push_back(std::move(renamed));
        } else {
            ++lost_;
        }
    }

    constexpr uint64_t kNamed = FAN_CREATE | FAN_MODIFY | FAN_ATTRIB | FAN_MOVED_FROM | FAN_MOVED_TO | FAN_DELETE;
    if ((event.mask & kNamed) == 0) return;
    auto path = pathOf(event, FAN_EVENT_INFO_TYPE_DFID_NAME);
    if (!path) {
        ++lost_;
        return;
    }
    // The kernel merges queued events on one name, so several bits may be set;
    // they are reported in the order they usually happen. A file that is
    // there after a merged creation and deletion was replaced, not removed.
    const bool replaced = (event.mask & FAN_CREATE) && (event.mask & FAN_DELETE) && exists_(*path);
    if (replaced) out.push_back(fileEvent(EventKind::FileDeletion, event.pid, *path));
    if (event.mask & FAN_CREATE) {
        rememberWrite(event.pid, *path, nowNs);  // writing a new file is part of creating it
        out.push_back(fileEvent(EventKind::FileCreation, event.pid, *path));
    }
    if ((event.mask & FAN_MODIFY) && !(event.mask & FAN_CREATE) && admitModify(event.pid, *path, nowNs)) {
        out.push_back(fileEvent(EventKind::FileModification, event.pid, *path));
    }
    if (event.mask & FAN_ATTRIB) out.push_back(fileEvent(EventKind::FileTimeChange, event.pid, *path));
    if (event.mask & FAN_MOVED_FROM) movedFrom(event.pid, *path, nowNs);
    if (event.mask & FAN_MOVED_TO) movedTo(event.pid, *path, nowNs, out);
    if ((event.mask & FAN_DELETE) && !replaced) out.push_back(fileEvent(EventKind::FileDeletion, event.pid, *path));
}

void FileEventShaper::expire(uint64_t nowNs) {
    for (auto it = pendingMoves_.begin(); it != pendingMoves_.end();) {
        if (nowNs - it->second.atNs > kMovePairWindowNs) {
            ++lost_;
            it = pendingMoves_.erase(it);
        } else {
            ++it;
        }
    }
}

uint64_t FileEventShaper::takeLost() { return std::exchange(lost_, 0); }

std::optional<std::string> FileEventShaper::pathOf(const FanotifyEvent& event, uint8_t recordType) {
    for (const FileHandleRecord& record : event.records) {
        if (record.type != recordType) continue;
        auto dir = resolve_(record.fsid, record.handle);
        if (!dir) return std::nullopt;
        return joinPath(*dir, record.name);
    }
    return std::nullopt;
}

bool FileEventShaper::admitModify(int32_t pid, const std::string& path, uint64_t nowNs) {
    auto it = lastWrite_.find(writeKey(pid, path));
    if (it != lastWrite_.end() && nowNs - it->second < kModifyWindowNs) return false;
    rememberWrite(pid, path, nowNs);
    return true;
}

void FileEventShaper::rememberWrite(int32_t pid, const std::string& path, uint64_t nowNs) {
    if (lastWrite_.size() >= kModifyMemory) {
        for (auto it = lastWrite_.begin(); it != lastWrite_.end();) {
            it = nowNs - it->second >= kModifyWindowNs ? lastWrite_.erase(it) : std::next(it);
        }
        // Still full of fresh entries: forgetting them only lets a repeat through.
        if (lastWrite_.size() >= kModifyMemory) lastWrite_.clear();
    }
    lastWrite_[writeKey(pid, path)] = nowNs;
}

void FileEventShaper::movedFrom(int32_t pid, std::string path, uint64_t nowNs) {
    auto it = pendingMoves_.find(pid);
    if (it != pendingMoves_.end()) {
        ++lost_;  // the earlier half never found its pair
        it->second = PendingMove{std::move(path), nowNs};
        return;
    }
    if (pendingMoves_.size() >= kPendingMoves) expire(nowNs);
    if (pendingMoves_.size() >= kPendingMoves) {
        ++lost_;
        return;
    }
    pendingMoves_.emplace(pid, PendingMove{std::move(path), nowNs});
}

void FileEventShaper::movedTo(int32_t pid, std::string path, uint64_t nowNs, std::vector<HostEvent>& out) {
    auto it = pendingMoves_.find(pid);
    if (it == pendingMoves_.end() || nowNs - it->second.atNs > kMovePairWindowNs) {
        ++lost_;
        if (it != pendingMoves_.end()) {
            ++lost_;
            pendingMoves_.erase(it);
        }
        return;
    }
    HostEvent renamed = fileEvent(EventKind::FileRenaming, pid, std::move(it->second.path));
    renamed.path2 = std::move(path);
    pendingMoves_.erase(it);
    out.push_back(std::move(renamed));
}

}  // namespace wlc::portable
