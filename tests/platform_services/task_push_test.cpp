// Task push through its real socket: results back to the client, refused
// requests, peers that break the format, and the socket's rights.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <future>
#include <string>
#include <thread>

#include "socket_client.h"
#include "task_push.h"
#include "temp_dir.h"

namespace {

std::atomic<unsigned int> g_code{0};
std::string g_message;
std::thread::id g_thread;

unsigned int record_task(unsigned long, unsigned long, const char* msg, unsigned int len) {
    EXPECT_EQ(msg[len], '\0') << "the text is terminated";
    g_message.assign(msg, len);
    g_thread = std::this_thread::get_id();
    return g_code;
}

std::future<std::string> sendAsync(const std::string& bytes) {
    std::string path = push_task_socket_path();
    return std::async(std::launch::async, [path, bytes] { return socket_exchange(path, bytes); });
}

// Pumps the handle on this thread until the client's answer is in.
std::string pumpUntilAnswered(task_handle_t handle, std::future<std::string> answer) {
    while (answer.wait_for(std::chrono::milliseconds(2)) != std::future_status::ready) task_loop_once(handle);
    return answer.get();
}

class ServicesTaskPushTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(m_handle = push_task_reg_handler("WL_HDL", record_task, 0), nullptr); }
    void TearDown() override {
        push_task_unreg_handler("WL_HDL");
        push_task_unreg_handler("IDLE");
    }

    TempInstallRoot m_dir{"agent"};
    task_handle_t m_handle = nullptr;
};

TEST_F(ServicesTaskPushTest, RequestRunsOnThePumpingThreadAndReturnsTheExactCode) {
    struct Case {
        unsigned int code;
        std::string body;
        const char* reply;  // unsigned decimal, never a negative int
    };
    const Case cases[] = {
        {0, "{\"opr_code\":1,\"model_name\":\"m\"}", "0\n"},
        {0x84ce0001, std::string(4 * 1024 * 1024, 'x'), "2228092929\n"},  // the largest body
    };
    for (const Case& c : cases) {
        g_code = c.code;
        g_message.clear();
        std::string request = "WL_HDL " + std::to_string(c.body.size()) + "\n" + c.body;
        EXPECT_EQ(pumpUntilAnswered(m_handle, sendAsync(request)), c.reply);
        EXPECT_TRUE(g_message == c.body) << "body of " << c.body.size() << " bytes arrived as " << g_message.size();
        EXPECT_EQ(g_thread, std::this_thread::get_id());
    }
}

TEST_F(ServicesTaskPushTest, BadRequestsAreAnsweredWithAReasonAndQueueNothing) {
    struct Case {
        std::string request;
        const char* reply;
    };
    const Case cases[] = {
        {"OTHER 2\n{}", "ERR unknown handler\n"},
        {"WL_HDL\n{}", "ERR malformed request\n"},
        {"WL_HDL abc\n{}", "ERR malformed request\n"},
        {"WL_HDL -2\n{}", "ERR malformed request\n"},
        {"WL_HDL 2 3\n{}", "ERR malformed request\n"},
        {" 2\n{}", "ERR malformed request\n"},
        {std::string(300, 'a') + " 2\n{}", "ERR malformed request\n"},
        {"WL_HDL 4194305\n", "ERR too large\n"},
        {"WL_HDL 99999999999999999999\n", "ERR too large\n"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(socket_exchange(push_task_socket_path(), c.request), c.reply) << c.request;
    }
    EXPECT_EQ(task_loop_once(m_handle), 0);
}

struct MisbehavingPeer {
    const char* what;
    std::string bytes;
    bool hangUp;  // shuts its writing side after the bytes
    const char* reply;
};

void PrintTo(const MisbehavingPeer& peer, std::ostream* os) { *os << peer.what; }

std::string noise() {
    std::string bytes;
    for (int i = 0; i < 300; ++i) bytes.push_back(static_cast<char>(i % 2 ? 0xfe : 0x01));
    return bytes;
}

const MisbehavingPeer kTaskPeers[] = {
    {"GarbageLine", "\x01\x7f\xff garbage\n", false, "ERR malformed request\n"},
    {"GarbageWithoutEndOfLine", noise(), false, "ERR malformed request\n"},
    {"HeadOneByteOverTheBound", "WL_HDL 4194305\n", false, "ERR too large\n"},
    {"HeadPastAnyInteger", "WL_HDL 99999999999999999999\n", false, "ERR too large\n"},
    {"HalfAHeadThenHangUp", "WL_H", true, ""},
    {"HeadAndHalfTheBodyThenHangUp", "WL_HDL 10\n{\"a\":", true, ""},
};

class ServicesTaskPushPeerTest : public ServicesTaskPushTest, public ::testing::WithParamInterface<MisbehavingPeer> {};

TEST_P(ServicesTaskPushPeerTest, MisbehavingPeerLosesOnlyItsOwnConnection) {
    const MisbehavingPeer& c = GetParam();
    const std::string path = push_task_socket_path();
    g_code = 7;
    g_message.clear();
    // Half-way through its request while the other peer misbehaves.
    SocketPeer good(path);
    ASSERT_TRUE(good.send("WL_HDL 2\n{"));
    SocketPeer bad(path);
    ASSERT_TRUE(bad.send(c.bytes));
    if (c.hangUp) bad.hangUp();
    std::string reply;
    EXPECT_TRUE(bad.readUntilClosed(&reply)) << "the server still holds the connection";
    EXPECT_EQ(reply, c.reply);

    ASSERT_TRUE(good.send("}")) << "the good client lost its connection";
    auto answer = std::async(std::launch::async, [&good] {
        std::string text;
        good.readUntilClosed(&text, std::chrono::seconds(10));
        return text;
    });
    EXPECT_EQ(pumpUntilAnswered(m_handle, std::move(answer)), "7\n");
    EXPECT_EQ(g_message, "{}") << "only the good request ran";
    EXPECT_EQ(pumpUntilAnswered(m_handle, sendAsync("WL_HDL 2\n{}")), "7\n") << "new clients are taken";
    EXPECT_EQ(task_loop_once(m_handle), 0);
}

INSTANTIATE_TEST_SUITE_P(Peers, ServicesTaskPushPeerTest, ::testing::ValuesIn(kTaskPeers),
                         [](const ::testing::TestParamInfo<MisbehavingPeer>& info) { return info.param.what; });

TEST_F(ServicesTaskPushTest, UnpumpedHandlerHoldsUpOnlyItsOwnClient) {
    ASSERT_NE(push_task_reg_handler("IDLE", record_task, 0), nullptr);
    g_code = 7;
    auto stuck = sendAsync("IDLE 2\n{}");
    EXPECT_EQ(pumpUntilAnswered(m_handle, sendAsync("WL_HDL 2\n{}")), "7\n");
    EXPECT_NE(stuck.wait_for(std::chrono::milliseconds(50)), std::future_status::ready);
    push_task_unreg_handler("IDLE");
    EXPECT_EQ(stuck.get(), "ERR handler gone\n");
}

TEST_F(ServicesTaskPushTest, SocketIsPrivateAndGoesWithTheLastHandler) {
    const std::string path = push_task_socket_path();
    EXPECT_EQ(path, m_dir.path() + "/agent/../var/run/task_push.sock");
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_EQ(push_task_unreg_handler("WL_HDL"), 0);
    EXPECT_NE(stat(path.c_str(), &st), 0);
    EXPECT_EQ(socket_exchange(path, "WL_HDL 2\n{}"), "<connect failed>");
}

}  // namespace
