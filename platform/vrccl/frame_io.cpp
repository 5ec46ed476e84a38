#include "frame_io.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <cstring>
#include <vector>

namespace vrccl {
namespace {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "frames are little-endian and read in place");

using Clock = std::chrono::steady_clock;

class Deadline {
public:
    explicit Deadline(int timeoutMs)
        : m_forever(timeoutMs < 0), m_end(Clock::now() + std::chrono::milliseconds(timeoutMs)) {}
    // Milliseconds for poll: -1 without a deadline, 0 once it passed.
    int left() const {
        if (m_forever) return -1;
        auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(m_end - Clock::now()).count();
        return ms > 0 ? static_cast<int>(ms) : 0;
    }

private:
    bool m_forever;
    Clock::time_point m_end;
};

IoStatus waitFor(int fd, short events, int stopFd, const Deadline& deadline) {
    for (;;) {
        pollfd fds[2] = {{fd, events, 0}, {stopFd, POLLIN, 0}};
        int rc = ::poll(fds, stopFd >= 0 ? 2 : 1, deadline.left());
        if (rc < 0) {
            if (errno == EINTR) continue;
            return IoStatus::Error;
        }
        if (rc == 0) return IoStatus::Timeout;
        if (stopFd >= 0 && (fds[1].revents & POLLIN)) return IoStatus::Stopped;
        return IoStatus::Ok;
    }
}

IoStatus readWithin(int fd, void* buf, std::size_t size, int stopFd, const Deadline& deadline) {
    char* out = static_cast<char*>(buf);
    std::size_t got = 0;
    while (got < size) {
        IoStatus ready = waitFor(fd, POLLIN, stopFd, deadline);
        if (ready != IoStatus::Ok) return ready;
        ssize_t n = ::recv(fd, out + got, size - got, MSG_DONTWAIT);
        if (n == 0) return IoStatus::Closed;
        if (n < 0) {
            if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK) continue;
            return errno == ECONNRESET ? IoStatus::Closed : IoStatus::Error;
        }
        got += static_cast<std::size_t>(n);
    }
    return IoStatus::Ok;
}

}  // namespace

const char* describe(IoStatus status) {
    switch (status) {
        case IoStatus::Ok: return "ok";
        case IoStatus::Closed: return "closed by the peer";
        case IoStatus::Timeout: return "timed out";
        case IoStatus::Stopped: return "stopped";
        case IoStatus::Error: return "socket error";
    }
    return "?";
}

IoStatus readFully(int fd, void* buf, std::size_t size, int stopFd, int timeoutMs) {
    return readWithin(fd, buf, size, stopFd, Deadline(timeoutMs));
}

IoStatus skipBytes(int fd, std::size_t size, int stopFd, int timeoutMs) {
    Deadline deadline(timeoutMs);
    char scratch[4096];
    while (size > 0) {
        std::size_t chunk = size < sizeof(scratch) ? size : sizeof(scratch);
        IoStatus st = readWithin(fd, scratch, chunk, stopFd, deadline);
        if (st != IoStatus::Ok) return st;
        size -= chunk;
    }
    return IoStatus::Ok;
}

IoStatus writeFully(int fd, const void* buf, std::size_t size, int timeoutMs) {
    Deadline deadline(timeoutMs);
    const char* in = static_cast<const char*>(buf);
    std::size_t sent = 0;
    while (sent < size) {
        IoStatus ready = waitFor(fd, POLLOUT, -1, deadline);
        if (ready != IoStatus::Ok) return ready;
        ssize_t n = ::send(fd, in + sent, size - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0) {
            if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK) continue;
            return (errno == EPIPE || errno == ECONNRESET) ? IoStatus::Closed : IoStatus::Error;
        }
        sent += static_cast<std::size_t>(n);
    }
    return IoStatus::Ok;
}

IoStatus sendFrame(int fd, uint16_t kind, const void* body, uint32_t length, int timeoutMs) {
    if (length > VRCCL_MAX_BODY) return IoStatus::Error;
    std::vector<unsigned char> frame(sizeof(vrccl_frame_head) + length);
    vrccl_frame_head head = {VRCCL_MAGIC, kind, 0, length};
    std::memcpy(frame.data(), &head, sizeof(head));
    if (length > 0) std::memcpy(frame.data() + sizeof(head), body, length);
    return writeFully(fd, frame.data(), frame.size(), timeoutMs);
}

const char* headProblem(const vrccl_frame_head& head) {
    if (head.magic != VRCCL_MAGIC) return "bad magic";
    if (head.length > VRCCL_MAX_BODY) return "body larger than 64 KiB";
    return nullptr;
}

}  // namespace vrccl
