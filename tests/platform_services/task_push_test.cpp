// Task push through its real socket and in process: results back to the
// client, refused requests, the socket's life and rights.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "log_capture.h"
#include "socket_client.h"
#include "task_push.h"
#include "temp_install_dir.h"

namespace {

struct Received {
    std::mutex lock;
    std::vector<std::string> messages;
    std::vector<std::thread::id> threads;
    unsigned int code = 0x84ce0001;
};
Received g_received;

unsigned int record_task(unsigned long ctx1, unsigned long ctx2, const char* msg, unsigned int len) {
    std::lock_guard<std::mutex> lock(g_received.lock);
    EXPECT_EQ(msg[len], '\0') << "the text is terminated";
    g_received.messages.emplace_back(msg, len);
    g_received.threads.push_back(std::this_thread::get_id());
    return g_received.code;
}

// 0x84ce0001 in decimal, as an unsigned 32-bit number (not as a negative int).
const char kRefusedReply[] = "2228092929\n";

unsigned int answer_seven(unsigned long, unsigned long, const char*, unsigned int) { return 7; }

class ServicesTaskPushTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::lock_guard<std::mutex> lock(g_received.lock);
        g_received.messages.clear();
        g_received.threads.clear();
        g_received.code = 0x84ce0001;
    }
    void TearDown() override {
        for (const std::string& name : m_registered) push_task_unreg_handler(name.c_str());
    }
    task_handle_t reg(const std::string& name, task_push_fn fn = record_task) {
        task_handle_t handle = push_task_reg_handler(name.c_str(), fn, 0);
        if (handle) m_registered.push_back(name);
        return handle;
    }
    // Pumps the handle on this thread until the client's answer is in.
    static std::string pumpUntilAnswered(task_handle_t handle, std::future<std::string>& answer) {
        while (answer.wait_for(std::chrono::milliseconds(2)) != std::future_status::ready) task_loop_once(handle);
        return answer.get();
    }
    static std::future<std::string> sendAsync(const std::string& bytes) {
        std::string path = push_task_socket_path();
        return std::async(std::launch::async, [path, bytes] { return socket_exchange(path, bytes); });
    }

    TempInstallDir m_dir;
    std::vector<std::string> m_registered;
};

TEST_F(ServicesTaskPushTest, RequestRunsOnThePumpingThreadAndReturnsTheExactCode) {
    task_handle_t handle = reg("WL_HDL");
    ASSERT_NE(handle, nullptr);
    const std::string body = "{\"opr_code\":1,\"model_name\":\"m\"}";
    auto answer = sendAsync("WL_HDL " + std::to_string(body.size()) + "\n" + body);
    EXPECT_EQ(pumpUntilAnswered(handle, answer), kRefusedReply);
    std::lock_guard<std::mutex> lock(g_received.lock);
    ASSERT_EQ(g_received.messages.size(), 1u);
    EXPECT_EQ(g_received.messages[0], body);
    EXPECT_EQ(g_received.threads[0], std::this_thread::get_id());
}

TEST_F(ServicesTaskPushTest, LargestBodyArrivesWhole) {
    task_handle_t handle = reg("WL_HDL");
    ASSERT_NE(handle, nullptr);
    std::string body(4 * 1024 * 1024, 'x');
    body.front() = '"';
    body.back() = '"';
    auto answer = sendAsync("WL_HDL 4194304\n" + body);
    EXPECT_EQ(pumpUntilAnswered(handle, answer), kRefusedReply);
    std::lock_guard<std::mutex> lock(g_received.lock);
    ASSERT_EQ(g_received.messages.size(), 1u);
    EXPECT_EQ(g_received.messages[0], body);
}

TEST_F(ServicesTaskPushTest, BadRequestsAreAnsweredWithAReasonAndQueueNothing) {
    task_handle_t handle = reg("WL_HDL");
    ASSERT_NE(handle, nullptr);
    struct Case {
        const char* request;
        const char* reply;
    };
    const Case cases[] = {
        {"OTHER 2\n{}", "ERR unknown handler\n"},
        {"WL_HDL\n{}", "ERR malformed request\n"},
        {"WL_HDL abc\n{}", "ERR malformed request\n"},
        {"WL_HDL -2\n{}", "ERR malformed request\n"},
        {"WL_HDL 2 3\n{}", "ERR malformed request\n"},
        {" 2\n{}", "ERR malformed request\n"},
        {"WL_HDL \n", "ERR malformed request\n"},
        {"WL_HDL 4194305\n", "ERR too large\n"},
        {"WL_HDL 99999999999999999999\n", "ERR too large\n"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(socket_exchange(push_task_socket_path(), c.request), c.reply) << c.request;
    }
    std::string longLine(300, 'a');
    EXPECT_EQ(socket_exchange(push_task_socket_path(), longLine + " 2\n{}"), "ERR malformed request\n");
    EXPECT_EQ(task_loop_once(handle), 0);
}

TEST_F(ServicesTaskPushTest, ClientLeavingEarlyCostsOnlyItsOwnRequest) {
    task_handle_t handle = reg("WL_HDL");
    ASSERT_NE(handle, nullptr);
    socket_exchange(push_task_socket_path(), "WL_HDL 100\n{\"opr", true);
    socket_exchange(push_task_socket_path(), "WL_HDL 1", true);
    auto answer = sendAsync("WL_HDL 2\n{}");
    EXPECT_EQ(pumpUntilAnswered(handle, answer), kRefusedReply);
    std::lock_guard<std::mutex> lock(g_received.lock);
    ASSERT_EQ(g_received.messages.size(), 1u);
    EXPECT_EQ(g_received.messages[0], "{}");
}

TEST_F(ServicesTaskPushTest, UnpumpedHandlerHoldsUpOnlyItsOwnClient) {
    ASSERT_NE(reg("IDLE"), nullptr);
    task_handle_t busy = reg("BUSY", answer_seven);
    ASSERT_NE(busy, nullptr);
    auto stuck = sendAsync("IDLE 2\n{}");
    auto served = sendAsync("BUSY 2\n{}");
    EXPECT_EQ(pumpUntilAnswered(busy, served), "7\n");
    EXPECT_NE(stuck.wait_for(std::chrono::milliseconds(50)), std::future_status::ready);
    push_task_unreg_handler("IDLE");
    EXPECT_EQ(stuck.get(), "ERR handler gone\n");
}

TEST_F(ServicesTaskPushTest, NameIsRegisteredOnce) {
    task_handle_t first = reg("WL_HDL");
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(push_task_reg_handler("WL_HDL", answer_seven, 0), nullptr);
    EXPECT_EQ(push_task_reg_handler(nullptr, answer_seven, 0), nullptr);
    EXPECT_EQ(push_task_reg_handler("X", nullptr, 0), nullptr);
    auto answer = sendAsync("WL_HDL 2\n{}");
    EXPECT_EQ(pumpUntilAnswered(first, answer), kRefusedReply) << "the first registration keeps serving";
}

TEST_F(ServicesTaskPushTest, SocketIsPrivateAndLivesWithTheHandlers) {
    const std::string path = push_task_socket_path();
    EXPECT_EQ(path, m_dir.root() + "/agent/../var/run/task_push.sock");
    ASSERT_NE(reg("A"), nullptr);
    ASSERT_NE(reg("B"), nullptr);
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    EXPECT_EQ(push_task_unreg_handler("A"), 0);
    EXPECT_EQ(socket_exchange(path, "A 2\n{}"), "ERR unknown handler\n") << "still up for B";
    EXPECT_EQ(push_task_unreg_handler("B"), 0);
    EXPECT_NE(stat(path.c_str(), &st), 0) << "the last handler takes the socket along";
    EXPECT_EQ(socket_exchange(path, "B 2\n{}"), "<connect failed>");
    EXPECT_EQ(push_task_unreg_handler("B"), -1);
}

TEST_F(ServicesTaskPushTest, StaleSocketFileIsReplaced) {
    const std::string path = push_task_socket_path();
    std::string dir = path.substr(0, path.rfind('/'));
    ASSERT_EQ(system(("mkdir -p '" + dir + "'").c_str()), 0);
    {
        // A socket bound and closed leaves its file behind, as a crash would.
        int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        path.copy(addr.sun_path, sizeof(addr.sun_path) - 1);
        ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
        close(fd);
    }
    task_handle_t handle = reg("WL_HDL");
    ASSERT_NE(handle, nullptr);
    auto answer = sendAsync("WL_HDL 2\n{}");
    EXPECT_EQ(pumpUntilAnswered(handle, answer), kRefusedReply);
}

TEST_F(ServicesTaskPushTest, InProcessSubmissionDeliversTheResult) {
    task_handle_t handle = reg("WL_HDL");
    ASSERT_NE(handle, nullptr);
    unsigned int result = 0;
    volatile int done = 0;
    ASSERT_EQ(push_task_submit("WL_HDL", "{\"a\":1}", 7, &result, &done), 0);
    ASSERT_EQ(push_task_submit("WL_HDL", "{}", 2, nullptr, nullptr), 0);
    EXPECT_EQ(push_task_submit("NOPE", "{}", 2, nullptr, nullptr), -1);
    EXPECT_EQ(done, 0) << "nothing runs before the pump";
    EXPECT_EQ(task_loop_once(handle), 2);
    EXPECT_EQ(done, 1);
    EXPECT_EQ(result, 0x84ce0001u);
    EXPECT_EQ(task_loop_once(handle), 0);
}

TEST_F(ServicesTaskPushTest, UnregisteringCancelsWhatIsQueued) {
    task_handle_t handle = reg("WL_HDL");
    ASSERT_NE(handle, nullptr);
    unsigned int result = 0;
    volatile int done = 0;
    ASSERT_EQ(push_task_submit("WL_HDL", "{}", 2, &result, &done), 0);
    EXPECT_EQ(push_task_unreg_handler("WL_HDL"), 0);
    EXPECT_EQ(done, -1);
    EXPECT_EQ(task_loop_once(handle), -1) << "a stale handle is refused";
    EXPECT_EQ(task_loop_once(nullptr), -1);
    std::lock_guard<std::mutex> lock(g_received.lock);
    EXPECT_TRUE(g_received.messages.empty());
}

TEST_F(ServicesTaskPushTest, ManyClientsAtOnceEachGetTheirAnswer) {
    task_handle_t handle = reg("WL_HDL");
    ASSERT_NE(handle, nullptr);
    std::vector<std::future<std::string>> answers;
    for (int i = 0; i < 20; ++i) answers.push_back(sendAsync("WL_HDL 2\n{}"));
    for (auto& answer : answers) EXPECT_EQ(pumpUntilAnswered(handle, answer), kRefusedReply);
    std::lock_guard<std::mutex> lock(g_received.lock);
    EXPECT_EQ(g_received.messages.size(), 20u);
}

}  // namespace
