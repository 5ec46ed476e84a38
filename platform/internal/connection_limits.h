// Connection slots of a server: a total, and a share per peer so that one
// peer flooding the server cannot take the slots of the others.
#ifndef WL_CONNECTION_LIMITS_H
#define WL_CONNECTION_LIMITS_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>

namespace wlsock {

class ConnectionLimits {
public:
    enum class Verdict { Ok, TotalFull, PeerFull };

    ConnectionLimits(std::size_t total, std::size_t per_peer) : m_total(total), m_perPeer(per_peer) {}

    // Takes a slot for the peer when it returns Ok.
    Verdict acquire(std::uint64_t peer) {
        std::lock_guard<std::mutex> lock(m_lock);
        if (m_active >= m_total) return Verdict::TotalFull;
        std::size_t& mine = m_byPeer[peer];
        if (mine >= m_perPeer) return Verdict::PeerFull;
        ++mine;
        ++m_active;
        return Verdict::Ok;
    }

    void release(std::uint64_t peer) {
        std::lock_guard<std::mutex> lock(m_lock);
        auto it = m_byPeer.find(peer);
        if (it == m_byPeer.end() || it->second == 0) return;
        if (--it->second == 0) m_byPeer.erase(it);
        --m_active;
    }

    std::size_t active() const {
        std::lock_guard<std::mutex> lock(m_lock);
        return m_active;
    }

private:
    const std::size_t m_total;
    const std::size_t m_perPeer;
    mutable std::mutex m_lock;
    std::map<std::uint64_t, std::size_t> m_byPeer;
    std::size_t m_active = 0;
};

// A slot held for as long as the connection lives.
class ConnectionSlot {
public:
    ConnectionSlot() = default;
    ConnectionSlot(ConnectionLimits* limits, std::uint64_t peer) : m_limits(limits), m_peer(peer) {}
    ~ConnectionSlot() {
        if (m_limits) m_limits->release(m_peer);
    }
    ConnectionSlot(ConnectionSlot&& other) noexcept : m_limits(other.m_limits), m_peer(other.m_peer) {
        other.m_limits = nullptr;
    }
    ConnectionSlot& operator=(ConnectionSlot&& other) noexcept {
        if (this != &other) {
            if (m_limits) m_limits->release(m_peer);
            m_limits = other.m_limits;
            m_peer = other.m_peer;
            other.m_limits = nullptr;
        }
        return *this;
    }
    ConnectionSlot(const ConnectionSlot&) = delete;
    ConnectionSlot& operator=(const ConnectionSlot&) = delete;

private:
    ConnectionLimits* m_limits = nullptr;
    std::uint64_t m_peer = 0;
};

}  // namespace wlsock

#endif
