// The processes the portable back-end reports on: subscribed pids and what
// they fork. Read by every capture thread, changed by the collector and by
// process events, so it locks itself.
#ifndef WLC_PORTABLE_WATCH_SET_H
#define WLC_PORTABLE_WATCH_SET_H

#include <cstddef>
#include <cstdint>
#include <shared_mutex>
#include <unordered_map>
#include <vector>

namespace wlc::portable {

class WatchSet {
public:
    static constexpr std::size_t kDefaultCapacity = 65536;

    explicit WatchSet(std::size_t capacity = kDefaultCapacity);

    // Subscribes pid (and, from now on, what it forks). False when full.
    bool watch(int32_t pid);
    // Withdraws pid's subscription: pid and its descendants stay watched
    // only if another subscription still covers them.
    void unwatch(int32_t pid);
    bool isWatched(int32_t pid) const;

    // True when child is now watched (its parent is).
    bool onFork(int32_t parent, int32_t child);
    // True when pid was watched.
    bool onExit(int32_t pid);

    std::vector<int32_t> watchedPids() const;  // ascending
    std::size_t size() const;
    // Subscriptions and forks not tracked because the set was full.
    uint64_t refused() const;

private:
    // An exited process stays as a ghost while it has tracked descendants,
    // so that withdrawing its ancestor's subscription still finds them.
    struct Node {
        int32_t pid = 0;
        uint64_t parent = 0;  // node id, 0: none
        uint32_t children = 0;
        bool alive = true;
        bool subscribed = false;
    };

    bool coveredLocked(uint64_t id, std::unordered_map<uint64_t, bool>& memo) const;
    void exitLocked(uint64_t id);
    void releaseLocked(uint64_t id);

    const std::size_t capacity_;
    mutable std::shared_mutex mutex_;
    std::unordered_map<uint64_t, Node> nodes_;
    std::unordered_map<int32_t, uint64_t> alive_;  // pid -> node id
    uint64_t nextId_ = 1;
    uint64_t refused_ = 0;
};

}  // namespace wlc::portable

#endif
