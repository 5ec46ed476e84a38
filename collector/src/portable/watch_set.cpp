#include "portable/watch_set.h"

#include <algorithm>
#include <mutex>

namespace wlc::portable {

WatchSet::WatchSet(std::size_t capacity) : capacity_(capacity) {}

bool WatchSet::watch(int32_t pid) {
    if (pid <= 0) return false;
    std::unique_lock lock(mutex_);
    auto it = alive_.find(pid);
    if (it != alive_.end()) {
        nodes_[it->second].subscribed = true;
        return true;
    }
    if (nodes_.size() >= capacity_) {
        ++refused_;
        return false;
    }
    uint64_t id = nextId_++;
    Node node;
    node.pid = pid;
    node.subscribed = true;
    nodes_.emplace(id, node);
    alive_.emplace(pid, id);
    return true;
}

void WatchSet::unwatch(int32_t pid) {
    std::unique_lock lock(mutex_);
    bool withdrawn = false;
    // A ghost may carry the same pid as a newer process; both subscriptions go.
    for (auto& [id, node] : nodes_) {
        if (node.pid == pid && node.subscribed) {
            node.subscribed = false;
            withdrawn = true;
        }
    }
    if (!withdrawn) return;

    std::unordered_map<uint64_t, bool> memo;
    std::vector<uint64_t> uncovered;
    for (const auto& [pidKey, id] : alive_) {
        if (!coveredLocked(id, memo)) uncovered.push_back(id);
    }
    for (uint64_t id : uncovered) exitLocked(id);

    std::vector<uint64_t> ghosts;
    for (const auto& [id, node] : nodes_) {
        if (!node.alive && node.children == 0) ghosts.push_back(id);
    }
    for (uint64_t id : ghosts) releaseLocked(id);
}

bool WatchSet::isWatched(int32_t pid) const {
    std::shared_lock lock(mutex_);
    return alive_.count(pid) != 0;
}

bool WatchSet::onFork(int32_t parent, int32_t child) {
    if (child <= 0 || parent == child) return false;
    {
        // Every fork on the host passes here; most parents are not watched.
        std::shared_lock peek(mutex_);
        if (alive_.count(parent) == 0) return false;
    }
    std::unique_lock lock(mutex_);
    if (alive_.count(parent) == 0) return false;
    auto stale = alive_.find(child);
    if (stale != alive_.end()) exitLocked(stale->second);  // its exit was missed
    if (nodes_.size() >= capacity_) {
        ++refused_;
        return false;
    }
    uint64_t parentId = alive_.at(parent);
    uint64_t id = nextId_++;
    Node node;
    node.pid = child;
    node.parent = parentId;
    nodes_.emplace(id, node);
    nodes_[parentId].children++;
    alive_.emplace(child, id);
    return true;
}

bool WatchSet::onExit(int32_t pid) {
    std::unique_lock lock(mutex_);
    auto it = alive_.find(pid);
    if (it == alive_.end()) return false;
    exitLocked(it->second);
    return true;
}

std::vector<int32_t> WatchSet::watchedPids() const {
    std::vector<int32_t> pids;
    {
        std::shared_lock lock(mutex_);
        pids.reserve(alive_.size());
        for (const auto& entry : alive_) pids.push_back(entry.first);
    }
    std::sort(pids.begin(), pids.end());
    return pids;
}

std::size_t WatchSet::size() const {
    std::shared_lock lock(mutex_);
    return alive_.size();
}

uint64_t WatchSet::refused() const {
    std::shared_lock lock(mutex_);
    return refused_;
}

bool WatchSet::coveredLocked(uint64_t id, std::unordered_map<uint64_t, bool>& memo) const {
    std::vector<uint64_t> path;
    bool covered = false;
    for (uint64_t at = id; at != 0;) {
        auto known = memo.find(at);
        if (known != memo.end()) {
            covered = known->second;
            break;
        }
        auto node = nodes_.find(at);
        if (node == nodes_.end()) break;
        path.push_back(at);
        if (node->second.subscribed) {
            covered = true;
            break;
        }
        at = node->second.parent;
    }
    for (uint64_t visited : path) memo[visited] = covered;
    return covered;
}

void WatchSet::exitLocked(uint64_t id) {
    Node& node = nodes_.at(id);
    node.alive = false;
    alive_.erase(node.pid);
    releaseLocked(id);
}

void WatchSet::releaseLocked(uint64_t id) {
    while (id != 0) {
        auto it = nodes_.find(id);
        if (it == nodes_.end() || it->second.alive || it->second.children > 0) return;
        uint64_t parent = it->second.parent;
        nodes_.erase(it);
        auto up = nodes_.find(parent);
        if (up == nodes_.end()) return;
        up->second.children--;
        id = parent;
    }
}

}  // namespace wlc::portable
