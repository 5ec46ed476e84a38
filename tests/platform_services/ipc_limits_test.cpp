// IPC endpoints, the debug point among them, against intruders and greedy
// peers: another user, a flood from one process, peers that stall, a peer
// faster than the owner, and a listener that isn't the agent's. Each time
// the rightful caller must still be answered.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cstring>
#include <string>

#include "forked_peer.h"
#include "ipc_handler.h"
#include "ipc_server_thread.h"
#include "log_capture.h"
#include "scoped_env.h"
#include "socket_client.h"
#include "temp_dir.h"

namespace {

std::string frame(std::uint32_t cmd, std::uint32_t id, const std::string& data, std::uint32_t size) {
    const std::uint32_t head[4] = {0x4B454D49, cmd, size, id};
    std::string out(reinterpret_cast<const char*>(head), sizeof(head));
    return out + data;
}

std::string frame(std::uint32_t cmd, const std::string& data) {
    return frame(cmd, 1, data, static_cast<std::uint32_t>(data.size()));
}

// The rightful caller: this process, over a connection of its own.
bool answered(const char* name) {
    char text[8] = {0};
    return kem_ipc_call(name, 1, "ab", 2, text, sizeof(text), 10000) == 2 && std::string(text) == "ba";
}

class IpcLimitsTest : public ::testing::Test {
protected:
    explicit IpcLimitsTest(std::vector<std::pair<std::string, std::string>> env = {}) : m_env(std::move(env)) {}
    std::string socketOf(const std::string& name) { return m_dir.path() + "/var/run/ipc/" + name + ".sock"; }

    ScopedEnv m_env;
    TempInstallRoot m_dir{"agent"};
    LogCapture m_log;
};

std::string g_debugSeen;
void debug_command(unsigned long, unsigned long, unsigned int, const char* msg) { g_debugSeen += msg; }

TEST_F(IpcLimitsTest, AnotherUserIsRefusedByEveryEndpointEvenWhenTheSocketModeLetsItIn) {
    ServerThread server("srv", true);
    ASSERT_TRUE(server.ok());
    ipc_handler_table table = {nullptr, nullptr, nullptr, debug_command};
    ASSERT_EQ(reg_ipc_handler("wl_dbg", &table), 0);
    ASSERT_TRUE(open_path_to_sockets(m_dir.path()));
    ASSERT_EQ(chmod((m_dir.path() + "/var/run/ipc").c_str(), 0755), 0);
    g_debugSeen.clear();
    for (const char* name : {"srv", "wl_dbg"}) {
        SCOPED_TRACE(name);
        const std::string path = socketOf(name);
        ASSERT_EQ(chmod(path.c_str(), 0666), 0);  // a mistake in the file mode must not open the endpoint
        ForkedPeer intruder(
            [path] {
                int fd = peer_connect(path);
                if (fd < 0) return std::string("<connect failed>");
                const std::string request = frame(IPC_HANDLER_CMD_COMMAND, "{\"opr_code\":0}");
                if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) < 0) return std::string("closed:");
                return peer_read_until_closed(fd, std::chrono::seconds(5));
            },
            {true, false});
        EXPECT_EQ(intruder.report(), "closed:") << "refused without a word";
        EXPECT_TRUE(m_log.waitFor("refused pid " + std::to_string(intruder.pid()))) << m_log.dump();
    }
    // The debug point delivers through this thread's loop: pump it.
    for (int i = 0; i < 20; ++i) {
        cl_ev_loop_nowait(1);
        cl_event_loop_once();
        usleep(5000);
    }
    EXPECT_EQ(g_debugSeen, "") << "no command of the intruder ran";
    EXPECT_EQ(server.messages(), 0);
    EXPECT_TRUE(answered("srv"));
    unreg_ipc_handler();
}

TEST_F(IpcLimitsTest, ClientRefusesAListenerThatIsNotTheAgents) {
    const std::string dir = m_dir.path() + "/var/run/ipc";
    ServerThread server("srv", true);  // makes the directory
    ASSERT_TRUE(server.ok());
    ASSERT_TRUE(open_path_to_sockets(m_dir.path()));
    ASSERT_EQ(chmod(dir.c_str(), 0777), 0);  // as if someone had loosened it
    const std::string path = socketOf("rogue");
    ForkedPeer rogue(
        [path] {
            int fd = socket(AF_UNIX, SOCK_STREAM, 0);
            sockaddr_un address{};
            address.sun_family = AF_UNIX;
            std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
            if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 || listen(fd, 8) != 0) {
                return std::string("<no listener>");
            }
            // Answers like an endpoint would, so only the credential check can stop
            // the call; from a process of its own, as no thread may start here.
            if (fork() == 0) {
                // Holds nothing but the listener: a copy of the report pipe
                // here would keep the test waiting for its end.
                for (int other = 3; other < 1024; ++other) {
                    if (other != fd) close(other);
                }
                alarm(10);
                int peer = accept(fd, nullptr, nullptr);
                std::uint32_t head[4];
                if (peer < 0 || recv(peer, head, sizeof(head), MSG_WAITALL) != sizeof(head)) _exit(0);
                std::string data(head[2], '\0');
                if (head[2] > 0 && recv(peer, &data[0], data.size(), MSG_WAITALL) != static_cast<ssize_t>(data.size()))
                    _exit(0);
                const std::string answer = frame(head[1] + 1, head[3], data, head[2]);
                send(peer, answer.data(), answer.size(), MSG_NOSIGNAL);
                _exit(0);
            }
            return std::string("listening");
        },
        {true, true});
    ASSERT_EQ(rogue.report(), "listening");
    char text[8] = {0};
    EXPECT_EQ(kem_ipc_call("rogue", 1, "ab", 2, text, sizeof(text), 2000), -1) << "nothing sent to a stranger";
    EXPECT_STREQ(text, "");
    rogue.release();
}

class IpcFloodTest : public IpcLimitsTest {
protected:
    IpcFloodTest() : IpcLimitsTest({{"WL_IPC_MAX_PER_PEER", "3"}}) {}
};

TEST_F(IpcFloodTest, OneProcessGetsItsShareAndOthersAreStillAnswered) {
    ServerThread server("srv", true);
    ASSERT_TRUE(server.ok());
    const std::string path = socketOf("srv");
    ForkedPeer flood(
        [path] {
            std::string fourth;
            for (int i = 0; i < 4; ++i) {
                int fd = peer_connect(path);
                if (fd < 0) return std::string("<connect failed>");
                if (i == 3) fourth = peer_read_until_closed(fd, std::chrono::seconds(5));
            }
            return fourth;
        },
        {false, true});
    EXPECT_EQ(flood.report(), "closed:") << "the fourth connection of one process is one too many";
    EXPECT_TRUE(answered("srv")) << "another process still gets a slot";
    flood.release();
}

class IpcStallTest : public IpcLimitsTest {
protected:
    IpcStallTest() : IpcLimitsTest({{"WL_IPC_IDLE_MS", "300"}}) {}
};

TEST_F(IpcStallTest, PeersThatStallAreCutAtTheIdleLimit) {
    ServerThread server("srv", true);
    ASSERT_TRUE(server.ok());
    const std::string partials[] = {"", frame(9, "").substr(0, 8), frame(9, 1, "{\"a\":", 10)};
    for (const std::string& partial : partials) {
        SCOPED_TRACE(partial.size());
        SocketPeer slow(socketOf("srv"));
        ASSERT_TRUE(slow.connected());
        if (!partial.empty()) {
            ASSERT_TRUE(slow.send(partial));
        }
        std::string got;
        const auto start = std::chrono::steady_clock::now();
        EXPECT_TRUE(slow.readUntilClosed(&got, std::chrono::seconds(5))) << "a silent peer keeps its slot";
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
        EXPECT_EQ(got, "");
    }
    EXPECT_EQ(server.messages(), 0);
    EXPECT_TRUE(answered("srv"));
}

class IpcBacklogTest : public IpcLimitsTest {
protected:
    IpcBacklogTest() : IpcLimitsTest({{"WL_IPC_MAX_BACKLOG", "4"}}) {}
};

TEST_F(IpcBacklogTest, MessagesBeyondWhatTheOwnerHasYetToRunAreDroppedAndSaidSo) {
    ServerThread server("srv", false);
    ASSERT_TRUE(server.ok());
    server.pause(true);
    SocketPeer fast(socketOf("srv"));
    std::string burst;
    for (int i = 0; i < 10; ++i) burst += frame(7, std::to_string(i));
    ASSERT_TRUE(fast.send(burst));
    EXPECT_TRUE(m_log.waitFor("wait for the owner, command 7 dropped")) << m_log.dump();
    server.pause(false);
    EXPECT_TRUE(waitUntil([&server] { return server.messages() == 4; }));
    std::lock_guard<std::mutex> lock(server.m_lock);
    EXPECT_EQ(server.m_seen, "0123") << "the oldest kept, the newest dropped";
}

}  // namespace
