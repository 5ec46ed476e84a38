// A plain client of a Unix stream socket, as another process would be.
#ifndef PLATFORM_SERVICES_SOCKET_CLIENT_H
#define PLATFORM_SERVICES_SOCKET_CLIENT_H

#include <chrono>
#include <string>

// Connects, writes the bytes and reads until the peer closes (at most ten
// seconds). Returns what was read; "<connect failed>" when nobody listens.
std::string socket_exchange(const std::string& path, const std::string& bytes);

// A connection held across steps, for peers that pause or misbehave
// mid-request. The deadlines only bound a failure.
class SocketPeer {
public:
    explicit SocketPeer(const std::string& path);
    ~SocketPeer();
    SocketPeer(const SocketPeer&) = delete;
    SocketPeer& operator=(const SocketPeer&) = delete;

    bool connected() const { return m_fd >= 0; }
    bool send(const std::string& bytes);
    // The server reads the end of the stream; its answers still come back.
    void hangUp();
    // True when the server closed (end of stream or an error) in time;
    // what arrived before that is appended to *received.
    bool readUntilClosed(std::string* received, std::chrono::milliseconds deadline = std::chrono::seconds(5));
    // True when n more bytes arrived in time.
    bool readExact(size_t n, std::string* received, std::chrono::milliseconds deadline = std::chrono::seconds(10));

private:
    int m_fd = -1;
};

#endif
