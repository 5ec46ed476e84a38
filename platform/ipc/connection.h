// An accepted connection of an endpoint. Answers find it by its id through
// the process-wide table, so that an answer after the peer left is dropped
// instead of reaching a reused descriptor.
#ifndef KEMIPC_CONNECTION_H
#define KEMIPC_CONNECTION_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

#include "connection_limits.h"
#include "frame.h"
#include "unix_socket.h"

namespace kemipc {

class Connection {
public:
    using Clock = std::chrono::steady_clock;

    Connection(wl::UniqueFd fd, unsigned long id, wlsock::ConnectionSlot slot)
        : m_fd(std::move(fd)), m_id(id), m_slot(std::move(slot)) {}
    int fd() const { return m_fd.get(); }
    unsigned long id() const { return m_id; }
    FrameReader& reader() { return m_reader; }  // the receiving thread's
    // 0, or -1 when the peer is gone or doesn't read; a peer that doesn't
    // read is cut off, so that it holds up no answering thread again.
    int send(std::uint32_t cmd, std::uint32_t request_id, const void* data, std::uint32_t size);

    void touch() { m_lastActive.store(Clock::now().time_since_epoch().count()); }
    Clock::time_point lastActive() const { return Clock::time_point(Clock::duration(m_lastActive.load())); }

private:
    wl::UniqueFd m_fd;
    const unsigned long m_id;
    wlsock::ConnectionSlot m_slot;
    FrameReader m_reader;
    std::mutex m_writeLock;
    std::atomic<Clock::rep> m_lastActive{Clock::now().time_since_epoch().count()};
};

class ConnectionTable {
public:
    static ConnectionTable& instance();
    std::shared_ptr<Connection> open(wl::UniqueFd fd, wlsock::ConnectionSlot slot);
    void close(unsigned long id);
    std::shared_ptr<Connection> find(unsigned long id);

private:
    std::mutex m_lock;
    std::map<unsigned long, std::weak_ptr<Connection>> m_connections;
    unsigned long m_nextId = 1;
};

}  // namespace kemipc

#endif
