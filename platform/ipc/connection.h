// An accepted connection of an endpoint. Answers find it by its id through
// the process-wide table, so that an answer after the peer left is dropped
// instead of reaching a reused descriptor.
#ifndef KEMIPC_CONNECTION_H
#define KEMIPC_CONNECTION_H

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

#include "frame.h"
#include "unix_socket.h"

namespace kemipc {

class Connection {
public:
    Connection(wlsock::UniqueFd fd, unsigned long id) : m_fd(std::move(fd)), m_id(id) {}
    int fd() const { return m_fd.get(); }
    unsigned long id() const { return m_id; }
    FrameReader& reader() { return m_reader; }  // the receiving thread's
    // 0, or -1 when the peer is gone or doesn't read.
    int send(std::uint32_t cmd, std::uint32_t request_id, const void* data, std::uint32_t size);

private:
    wlsock::UniqueFd m_fd;
    const unsigned long m_id;
    FrameReader m_reader;
    std::mutex m_writeLock;
};

class ConnectionTable {
public:
    static ConnectionTable& instance();
    std::shared_ptr<Connection> open(wlsock::UniqueFd fd);
    void close(unsigned long id);
    std::shared_ptr<Connection> find(unsigned long id);

private:
    std::mutex m_lock;
    std::map<unsigned long, std::weak_ptr<Connection>> m_connections;
    unsigned long m_nextId = 1;
};

}  // namespace kemipc

#endif
