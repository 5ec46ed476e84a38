#include "wire_client.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <cstring>
#include <thread>

WireClient::WireClient(const std::string& path, int retryMs) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(retryMs);
    do {
        wl::UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) {
            m_fd = std::move(fd);
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    } while (std::chrono::steady_clock::now() < deadline);
}

void WireClient::send(uint16_t kind, const void* body, uint32_t length, uint32_t magic, int64_t announced) {
    vrccl_frame_head head{magic, kind, 0, announced < 0 ? length : static_cast<uint32_t>(announced)};
    std::vector<uint8_t> bytes(sizeof head + length);
    std::memcpy(bytes.data(), &head, sizeof head);
    if (length) std::memcpy(bytes.data() + sizeof head, body, length);
    ASSERT_EQ(::send(m_fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
}

void WireClient::subscribe(int32_t action, int32_t pid) {
    vrccl_subscribe s{action, pid, -1};
    send(VRCCL_SUBSCRIBE, &s, sizeof s);
}

uint16_t WireClient::next(std::vector<uint8_t>& body, int timeoutMs) {
    vrccl_frame_head head{};
    if (!readExactly(&head, sizeof head, timeoutMs)) return 0;
    body.resize(head.length);
    if (head.length && !readExactly(body.data(), head.length, timeoutMs)) return 0;
    return head.kind;
}

std::vector<uint8_t> WireClient::record(uint32_t subType, int timeoutMs) {
    std::vector<uint8_t> body;
    while (next(body, timeoutMs) == VRCCL_RECORD) {
        vrccl_record_head head;
        std::memcpy(&head, body.data(), sizeof head);
        if (head.sub_type == subType) return std::vector<uint8_t>(body.begin() + sizeof head, body.end());
    }
    return {};
}

bool WireClient::readExactly(void* out, std::size_t size, int timeoutMs) {
    auto* p = static_cast<uint8_t*>(out);
    while (size > 0) {
        pollfd pfd{m_fd.get(), POLLIN, 0};
        if (::poll(&pfd, 1, timeoutMs) <= 0) return false;
        ssize_t n = ::recv(m_fd.get(), p, size, 0);
        if (n <= 0) return false;
        p += n;
        size -= static_cast<std::size_t>(n);
    }
    return true;
}
