#include "connection.h"

#include "no_destructor.h"

namespace kemipc {

namespace {
// Answers are small and the socket buffer holds them: a peer whose buffer
// stays full this long has stopped reading.
constexpr int kSendTimeoutMs = 2000;
}  // namespace

int Connection::send(std::uint32_t cmd, std::uint32_t request_id, const void* data, std::uint32_t size) {
    std::string frame = encode_frame(cmd, request_id, data, size);
    std::lock_guard<std::mutex> lock(m_writeLock);
    auto result = wlsock::write_all(m_fd.get(), frame.data(), frame.size(), -1, wlsock::deadline_in(kSendTimeoutMs));
    if (result != wlsock::IoResult::Ok) {
        // The receiving thread sees the hang-up and drops the connection.
        ::shutdown(m_fd.get(), SHUT_RDWR);
        return -1;
    }
    touch();
    return 0;
}

ConnectionTable& ConnectionTable::instance() {
    static wl::NoDestructor<ConnectionTable> table;
    return table.get();
}

std::shared_ptr<Connection> ConnectionTable::open(wl::UniqueFd fd, wlsock::ConnectionSlot slot) {
    std::lock_guard<std::mutex> lock(m_lock);
    unsigned long id = m_nextId++;
    if (m_nextId == 0) m_nextId = 1;
    auto connection = std::make_shared<Connection>(std::move(fd), id, std::move(slot));
    m_connections[id] = connection;
    return connection;
}

void ConnectionTable::close(unsigned long id) {
    std::lock_guard<std::mutex> lock(m_lock);
    m_connections.erase(id);
}

std::shared_ptr<Connection> ConnectionTable::find(unsigned long id) {
    std::lock_guard<std::mutex> lock(m_lock);
    auto it = m_connections.find(id);
    return it == m_connections.end() ? nullptr : it->second.lock();
}

}  // namespace kemipc
