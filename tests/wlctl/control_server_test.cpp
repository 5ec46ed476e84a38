// The control socket: who is served, and the bounds on size, idle time and
// connections.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <thread>

#include "control_client.h"
#include "control_server.h"
#include "forked_peer.h"

namespace {

using wlagent::ControlServer;
using wlagent::ControlServerLimits;

class ControlSocket : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/ctl-XXXXXX";
        ASSERT_TRUE(mkdtemp(pattern));
        dir = pattern;
        path = dir + "/wl-agent.sock";
    }
    void TearDown() override {
        server.reset();
        ::rmdir(dir.c_str());
    }
    void start(ControlServerLimits limits, ControlServer::Handler handler) {
        server.reset(new ControlServer(std::move(handler), limits));
        ASSERT_EQ(server->start(path), "");
    }
    int connectRaw() {
        int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strcpy(addr.sun_path, path.c_str());
        EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
        return fd;
    }
    std::string readAll(int fd) {
        std::string out;
        char buf[256];
        ssize_t n;
        while ((n = ::read(fd, buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(n));
        return out;
    }
    std::string dir, path;
    std::unique_ptr<ControlServer> server;
};

TEST_F(ControlSocket, AnswersOneLineAndIsPrivate) {
    start(ControlServerLimits(), [](const std::string& line) { return "{\"echo\":\"" + line + "\"}"; });
    struct stat st;
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    wlctl::ControlReply reply = wlctl::askAgent(path, "{\"cmd\":\"status\"}", 2000);
    EXPECT_EQ(reply.failure, wlctl::kExitOk) << reply.error;
    EXPECT_EQ(reply.json, "{\"echo\":\"{\"cmd\":\"status\"}\"}");
}

TEST_F(ControlSocket, AnotherUserIsRefusedEvenThroughAWidenedFileMode) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
    std::atomic<int> calls{0};
    start(ControlServerLimits(), [&](const std::string&) {
        ++calls;
        return std::string("{}");
    });
    ASSERT_EQ(::chmod(dir.c_str(), 0711), 0);
    ASSERT_EQ(::chmod(path.c_str(), 0666), 0);  // a mistake the credential check must survive
    ForkedPeer intruder(
        [&] {
            int fd = peer_connect(path);
            if (fd < 0) return std::string("cannot connect");
            return peer_read_until_closed(fd, std::chrono::seconds(5));
        },
        {true, false});
    const std::string seen = intruder.report();
    EXPECT_NE(seen.find("\"code\":\"forbidden\""), std::string::npos) << seen;
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(server->refusedPeers(), 1u);
}

TEST_F(ControlSocket, OversizeRequestIsRefusedWithoutCallingTheHandler) {
    ControlServerLimits limits;
    limits.maxRequest = 100;
    std::atomic<int> calls{0};
    start(limits, [&](const std::string&) {
        ++calls;
        return std::string("{}");
    });
    int fd = connectRaw();
    std::string big(5000, 'x');
    ASSERT_EQ(::write(fd, big.data(), big.size()), static_cast<ssize_t>(big.size()));
    std::string answer = readAll(fd);
    ::close(fd);
    EXPECT_NE(answer.find("\"code\":\"too_large\""), std::string::npos) << answer;
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(server->badRequests(), 1u);
}

TEST_F(ControlSocket, IdleClientIsDroppedAndOthersStillServed) {
    ControlServerLimits limits;
    limits.idleMs = 200;
    start(limits, [](const std::string&) { return std::string("{}"); });
    int idle = connectRaw();
    ASSERT_EQ(::write(idle, "{\"cmd\"", 6), 6);  // never finished
    EXPECT_EQ(readAll(idle), "");                // closed without an answer
    ::close(idle);
    EXPECT_EQ(wlctl::askAgent(path, "{}", 2000).json, "{}");
}

TEST_F(ControlSocket, ConnectionsBeyondTheBoundAreToldBusy) {
    ControlServerLimits limits;
    limits.maxClients = 1;
    limits.idleMs = 3000;
    start(limits, [](const std::string&) { return std::string("{}"); });
    int holder = connectRaw();  // holds the only slot until its idle time ends
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    wlctl::ControlReply reply = wlctl::askAgent(path, "{}", 2000);
    EXPECT_NE(reply.json.find("\"code\":\"busy\""), std::string::npos) << reply.json << reply.error;
    EXPECT_EQ(server->refusedBusy(), 1u);
    ::close(holder);
}

TEST(ControlClient, NoAgentIsUnreachable) {
    wlctl::ControlReply reply = wlctl::askAgent("/nonexistent/wl-agent.sock", "{}", 500);
    EXPECT_EQ(reply.failure, wlctl::kExitUnreachable);
    EXPECT_NE(reply.error.find("is wl-agent running"), std::string::npos);
}

}  // namespace
