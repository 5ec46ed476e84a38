// A collector stand-in for the client library's tests: listens on the
// collector socket, greets the one client it accepts, and lets the test
// read what the client sends and write frames of its choosing.
#ifndef PLATFORM_SERVICES_FAKE_COLLECTOR_H
#define PLATFORM_SERVICES_FAKE_COLLECTOR_H

#include <sys/types.h>

#include <cstdint>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "unix_socket.h"
#include "vrccl_wire.h"

class FakeCollector {
public:
    enum class Greeting { Hello, Silent, BadMagic, NotHello, OldVersion };

    // listenAs: the effective uid the socket is listened with (the peer
    // credentials the client sees).
    FakeCollector(const std::string& path, Greeting greeting = Greeting::Hello, uid_t listenAs = 0);
    ~FakeCollector();
    FakeCollector(const FakeCollector&) = delete;
    FakeCollector& operator=(const FakeCollector&) = delete;

    // The accepted client, -1 when none came within 5 s.
    int client();
    // A second client waits in the backlog.
    bool connectionPending() const;

    bool sendBytes(const void* data, size_t size);
    bool sendFrame(uint16_t kind, const std::vector<unsigned char>& body);
    bool sendRecord(uint32_t subType, uint64_t sequence, const std::vector<unsigned char>& payload);
    // One frame from the client within 5 s.
    bool readFrame(vrccl_frame_head& head, std::vector<unsigned char>& body);
    // True once the client closed its side, within 5 s.
    bool clientClosed();
    void closeClient();

private:
    wl::UniqueFd m_listen;
    wl::UniqueFd m_client;
    std::future<int> m_accepted;
    std::thread m_acceptor;
};

#endif
