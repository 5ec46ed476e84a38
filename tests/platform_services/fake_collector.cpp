#include "fake_collector.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <stdexcept>

namespace {

#ifdef SYS_setresuid32
constexpr long kSetresuid = SYS_setresuid32;
#else
constexpr long kSetresuid = SYS_setresuid;
#endif

// The raw call changes the calling thread only, unlike setresuid().
void setThreadEuid(uid_t uid) {
    if (::syscall(kSetresuid, -1, uid, -1) != 0) throw std::runtime_error("setresuid failed");
}

bool readAll(int fd, void* buf, size_t size) {
    char* out = static_cast<char*>(buf);
    while (size > 0) {
        pollfd p = {fd, POLLIN, 0};
        if (::poll(&p, 1, 5000) != 1) return false;
        ssize_t n = ::recv(fd, out, size, 0);
        if (n <= 0) return false;
        out += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

std::vector<unsigned char> greeting(FakeCollector::Greeting kind) {
    vrccl_hello hello = {VRCCL_PROTOCOL_VERSION, 4242, "fake"};
    vrccl_frame_head head = {VRCCL_MAGIC, VRCCL_HELLO, 0, sizeof(hello)};
    if (kind == FakeCollector::Greeting::BadMagic) head.magic = 0x31435257u;
    if (kind == FakeCollector::Greeting::NotHello) head.kind = VRCCL_STATUS;
    if (kind == FakeCollector::Greeting::OldVersion) hello.version = 0;
    std::vector<unsigned char> bytes(sizeof(head) + sizeof(hello));
    std::memcpy(bytes.data(), &head, sizeof(head));
    std::memcpy(bytes.data() + sizeof(head), &hello, sizeof(hello));
    return bytes;
}

}  // namespace

FakeCollector::FakeCollector(const std::string& path, Greeting greetingKind, uid_t listenAs) {
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
    m_listen.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ::unlink(path.c_str());
    if (::bind(m_listen.get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        throw std::runtime_error("bind " + path + ": " + std::strerror(errno));
    }
    if (listenAs != 0) setThreadEuid(listenAs);
    int rc = ::listen(m_listen.get(), 4);
    if (listenAs != 0) setThreadEuid(0);
    if (rc != 0) throw std::runtime_error("listen failed");

    std::promise<int> accepted;
    m_accepted = accepted.get_future();
    m_acceptor = std::thread([this, greetingKind, promise = std::move(accepted)]() mutable {
        int fd = ::accept4(m_listen.get(), nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0 && greetingKind != Greeting::Silent) {
            std::vector<unsigned char> hello = greeting(greetingKind);
            ::send(fd, hello.data(), hello.size(), MSG_NOSIGNAL);
        }
        promise.set_value(fd);
    });
}

FakeCollector::~FakeCollector() {
    ::shutdown(m_listen.get(), SHUT_RDWR);  // wakes a pending accept
    m_acceptor.join();
    if (m_accepted.valid()) m_client.reset(m_accepted.get());
}

int FakeCollector::client() {
    if (m_accepted.valid() && m_accepted.wait_for(std::chrono::seconds(5)) == std::future_status::ready) {
        m_client.reset(m_accepted.get());
    }
    return m_client.get();
}

bool FakeCollector::connectionPending() const {
    pollfd p = {m_listen.get(), POLLIN, 0};
    return ::poll(&p, 1, 0) == 1 && (p.revents & POLLIN);
}

bool FakeCollector::sendBytes(const void* data, size_t size) {
    const char* in = static_cast<const char*>(data);
    while (size > 0) {
        ssize_t n = ::send(client(), in, size, MSG_NOSIGNAL);
        if (n <= 0) return false;
        in += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool FakeCollector::sendFrame(uint16_t kind, const std::vector<unsigned char>& body) {
    vrccl_frame_head head = {VRCCL_MAGIC, kind, 0, static_cast<uint32_t>(body.size())};
    return sendBytes(&head, sizeof(head)) && sendBytes(body.data(), body.size());
}

bool FakeCollector::sendRecord(uint32_t subType, uint64_t sequence, const std::vector<unsigned char>& payload) {
    vrccl_record_head record = {subType, static_cast<uint32_t>(payload.size()), sequence};
    std::vector<unsigned char> body(sizeof(record));
    std::memcpy(body.data(), &record, sizeof(record));
    body.insert(body.end(), payload.begin(), payload.end());
    return sendFrame(VRCCL_RECORD, body);
}

bool FakeCollector::readFrame(vrccl_frame_head& head, std::vector<unsigned char>& body) {
    if (!readAll(client(), &head, sizeof(head)) || head.length > VRCCL_MAX_BODY) return false;
    body.resize(head.length);
    return readAll(client(), body.data(), body.size());
}

bool FakeCollector::clientClosed() {
    char scratch[256];
    for (;;) {
        pollfd p = {client(), POLLIN, 0};
        if (::poll(&p, 1, 5000) != 1) return false;
        ssize_t n = ::recv(client(), scratch, sizeof(scratch), 0);
        if (n == 0) return true;
        if (n < 0) return errno == ECONNRESET;
    }
}

void FakeCollector::closeClient() {
    client();
    m_client.reset();
}
