// Task push against intruders and greedy peers: another user, a flood from
// one process, peers that stall, requests over the byte budget. Each time
// the rightful client must still be served.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <future>
#include <string>

#include "forked_peer.h"
#include "log_capture.h"
#include "scoped_env.h"
#include "socket_client.h"
#include "task_push.h"
#include "temp_dir.h"

namespace {

std::string g_seen;

unsigned int remember(unsigned long, unsigned long, const char* msg, unsigned int len) {
    g_seen.append(msg, len);
    return 5;
}

class TaskPushLimitsTest : public ::testing::Test {
protected:
    explicit TaskPushLimitsTest(std::vector<std::pair<std::string, std::string>> env = {}) : m_env(std::move(env)) {}
    void SetUp() override {
        g_seen.clear();
        ASSERT_NE(m_handle = push_task_reg_handler("WL_HDL", remember, 0), nullptr);
        m_path = push_task_socket_path();
    }
    void TearDown() override { push_task_unreg_handler("WL_HDL"); }

    // A request of the rightful client (this process), pumped until answered.
    std::string serve(const std::string& body) {
        const std::string path = m_path;
        const std::string request = "WL_HDL " + std::to_string(body.size()) + "\n" + body;
        auto answer = std::async(std::launch::async, [path, request] { return socket_exchange(path, request); });
        while (answer.wait_for(std::chrono::milliseconds(2)) != std::future_status::ready) task_loop_once(m_handle);
        return answer.get();
    }

    ScopedEnv m_env;
    TempInstallRoot m_dir{"agent"};
    LogCapture m_log;
    task_handle_t m_handle = nullptr;
    std::string m_path;
};

TEST_F(TaskPushLimitsTest, AnotherUserIsRefusedEvenWhenTheSocketModeLetsItIn) {
    ASSERT_TRUE(open_path_to_sockets(m_dir.path()));
    ASSERT_EQ(chmod(m_path.c_str(), 0666), 0);  // a mistake in the file mode must not open the channel
    const std::string path = m_path;
    ForkedPeer intruder(
        [path] {
            int fd = peer_connect(path);
            if (fd < 0) return std::string("<connect failed>");
            const std::string request = "WL_HDL 14\n{\"opr_code\":1}";
            if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) < 0) return std::string("closed:");
            return peer_read_until_closed(fd, std::chrono::seconds(5));
        },
        {true, false});
    EXPECT_EQ(intruder.report(), "closed:") << "refused without a word";
    EXPECT_EQ(task_loop_once(m_handle), 0) << "nothing of the intruder was queued";
    EXPECT_TRUE(m_log.waitFor("refused pid " + std::to_string(intruder.pid()))) << m_log.dump();
    EXPECT_EQ(serve("{}"), "5\n");
    EXPECT_EQ(g_seen, "{}");
}

class TaskPushFloodTest : public TaskPushLimitsTest {
protected:
    TaskPushFloodTest() : TaskPushLimitsTest({{"WL_TASK_PUSH_MAX_PER_PEER", "3"}}) {}
};

TEST_F(TaskPushFloodTest, OneProcessGetsItsShareAndTheOthersAreStillServed) {
    const std::string path = m_path;
    // Holds its connections open until released, each half-way into a request.
    ForkedPeer flood(
        [path] {
            std::string seen;
            for (int i = 0; i < 4; ++i) {
                int fd = peer_connect(path);
                if (fd < 0) return std::string("<connect failed>");
                // The one too many may be closed before its bytes arrive.
                const bool sent = send(fd, "WL_HDL 2\n", 9, MSG_NOSIGNAL) == 9;
                if (!sent && i < 3) return std::string("<send failed>");
                if (i == 3) seen = peer_read_until_closed(fd, std::chrono::seconds(5));
            }
            return seen;
        },
        {false, true});
    EXPECT_EQ(flood.report(), "closed:ERR busy\n") << "the fourth connection of one process is one too many";
    EXPECT_EQ(serve("{\"n\":1}"), "5\n") << "another process still gets a slot";
    EXPECT_TRUE(m_log.contains("busy, connection of pid " + std::to_string(flood.pid()))) << m_log.dump();
    flood.release();
}

class TaskPushStallTest : public TaskPushLimitsTest {
protected:
    TaskPushStallTest() : TaskPushLimitsTest({{"WL_TASK_PUSH_IDLE_MS", "300"}}) {}
};

TEST_F(TaskPushStallTest, PeersThatStallAreCutAtTheIdleLimit) {
    const char* partials[] = {"", "WL_HD", "WL_HDL 10\n{\"a\":"};
    for (const char* partial : partials) {
        SCOPED_TRACE(partial);
        SocketPeer slow(m_path);
        ASSERT_TRUE(slow.connected());
        if (*partial) {
            ASSERT_TRUE(slow.send(partial));
        }
        std::string got;
        const auto start = std::chrono::steady_clock::now();
        EXPECT_TRUE(slow.readUntilClosed(&got, std::chrono::seconds(5))) << "a silent peer keeps its thread";
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
        EXPECT_EQ(got, "");
    }
    EXPECT_EQ(task_loop_once(m_handle), 0) << "no partial request was queued";
    EXPECT_EQ(serve("{}"), "5\n");
}

class TaskPushBudgetTest : public TaskPushLimitsTest {
protected:
    TaskPushBudgetTest() : TaskPushLimitsTest({{"WL_TASK_PUSH_MAX_BUFFERED", "64"}}) {}
};

TEST_F(TaskPushBudgetTest, RequestOverTheByteBudgetIsBusyAndTheNextOneFits) {
    EXPECT_EQ(socket_exchange(m_path, "WL_HDL 65\n" + std::string(65, 'x')), "ERR busy\n");
    EXPECT_EQ(task_loop_once(m_handle), 0);
    EXPECT_EQ(serve(std::string(64, 'y')), "5\n") << "a request at the budget fits";
    EXPECT_EQ(g_seen, std::string(64, 'y'));
    EXPECT_EQ(serve("{}"), "5\n") << "the budget is given back";
}

}  // namespace
