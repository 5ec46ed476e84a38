// IPC between endpoints on threads that each pump their own loop: answers,
// failures, the thread of every callback, and hostile peers.
#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "cl_ev.h"
#include "kem_ipc.h"
#include "log_capture.h"
#include "socket_client.h"
#include "temp_install_dir.h"

namespace {

// What an endpoint saw, and how it answers.
struct ServerState {
    std::mutex lock;
    std::vector<std::string> messages;
    std::vector<unsigned int> cmds;
    std::vector<std::thread::id> threads;
    bool answer = true;
    unsigned long lastCtx1 = 0;
    unsigned long lastCtx2 = 0;
};

// Answers cmd + 1 with the data reversed.
void echo_reversed(unsigned long ctx1, unsigned long ctx2, unsigned int cmd, const void* data, unsigned int size,
                   void* user) {
    auto* state = static_cast<ServerState*>(user);
    std::string text = data ? std::string(static_cast<const char*>(data), size) : std::string();
    bool answer;
    {
        std::lock_guard<std::mutex> lock(state->lock);
        state->messages.push_back(text);
        state->cmds.push_back(cmd);
        state->threads.push_back(std::this_thread::get_id());
        state->lastCtx1 = ctx1;
        state->lastCtx2 = ctx2;
        answer = state->answer;
    }
    if (answer) {
        std::string reversed(text.rbegin(), text.rend());
        kem_ipc_response(ctx1, ctx2, cmd + 1, 0, reversed.data(), static_cast<unsigned int>(reversed.size()));
    }
}

// An endpoint living on a thread of its own that pumps its loop.
class ServerThread {
public:
    ServerThread(const std::string& name, ServerState* state) {
        std::promise<bool> ready;
        auto created = ready.get_future();
        m_thread = std::thread([this, name, state, &ready] {
            m_id = std::this_thread::get_id();
            kem_ipc_t ipc = kem_ipc_create(name.c_str(), 0);
            if (ipc) kem_ipc_msg_recv(ipc, echo_reversed, state);
            ready.set_value(ipc != nullptr);
            while (!m_stop) {
                cl_ev_loop_nowait(1);
                cl_event_loop_once();
                usleep(1000);
            }
            kem_ipc_destroy(ipc);
        });
        m_ok = created.get();
    }
    ~ServerThread() {
        m_stop = true;
        m_thread.join();
    }
    bool ok() const { return m_ok; }
    std::thread::id id() const { return m_id; }

private:
    std::thread m_thread;
    std::thread::id m_id;
    std::atomic<bool> m_stop{false};
    bool m_ok = false;
};

struct ReplyRecord {
    int status = 1;
    unsigned int cmd = 0;
    std::string data;
    std::thread::id thread;
    int count = 0;
};
ReplyRecord g_reply;

void record_reply(int status, unsigned int cmd, const void* data, unsigned int size) {
    g_reply.status = status;
    g_reply.cmd = cmd;
    g_reply.data = data ? std::string(static_cast<const char*>(data), size) : std::string();
    g_reply.thread = std::this_thread::get_id();
    ++g_reply.count;
}

class ServicesIpcTest : public ::testing::Test {
protected:
    void SetUp() override {
        g_reply = ReplyRecord();
        m_client = kem_ipc_create("client", 0);
        ASSERT_NE(m_client, nullptr);
    }
    void TearDown() override {
        kem_ipc_destroy(m_client);
        for (kem_addr_t addr : m_addrs) kem_addr_destroy(addr);
    }
    kem_addr_t addr(const char* name) {
        kem_addr_t a = kem_addr_create(name, 1, 2);
        m_addrs.push_back(a);
        return a;
    }
    // Pumps this thread's loop until the reply came, for at most 15 seconds.
    static bool pumpForReply(int count = 1) {
        return waitUntil(
            [count] {
                cl_ev_loop_nowait(1);
                cl_event_loop_once();
                return g_reply.count >= count;
            },
            std::chrono::seconds(15));
    }

    TempInstallDir m_dir;
    kem_ipc_t m_client = nullptr;
    std::vector<kem_addr_t> m_addrs;
};

TEST_F(ServicesIpcTest, RequestAndAnswerEachArriveOnTheirOwnersThread) {
    ServerState state;
    ServerThread server("srv", &state);
    ASSERT_TRUE(server.ok());
    const char text[] = "module_switch";
    ASSERT_EQ(kem_ipc_make_request(m_client, addr("srv"), 1004, text, sizeof(text) - 1, record_reply, nullptr, 10), 0);
    ASSERT_TRUE(pumpForReply());
    EXPECT_EQ(g_reply.status, 0);
    EXPECT_EQ(g_reply.cmd, 1005u);
    EXPECT_EQ(g_reply.data, "hctiws_eludom");
    EXPECT_EQ(g_reply.thread, std::this_thread::get_id());
    std::lock_guard<std::mutex> lock(state.lock);
    ASSERT_EQ(state.messages.size(), 1u);
    EXPECT_EQ(state.messages[0], "module_switch");
    EXPECT_EQ(state.cmds[0], 1004u);
    EXPECT_EQ(state.threads[0], server.id());
}

TEST_F(ServicesIpcTest, RequestBufferIsTheCallersAgainAtOnce) {
    ServerState state;
    ServerThread server("srv", &state);
    ASSERT_TRUE(server.ok());
    std::vector<char> buffer(1024 * 1024);
    for (size_t i = 0; i < buffer.size(); ++i) buffer[i] = static_cast<char>('a' + i % 26);
    const std::string sent(buffer.begin(), buffer.end());
    ASSERT_EQ(kem_ipc_make_request(m_client, addr("srv"), 7, buffer.data(), buffer.size(), record_reply, nullptr, 10),
              0);
    std::fill(buffer.begin(), buffer.end(), '#');
    ASSERT_TRUE(pumpForReply());
    EXPECT_EQ(g_reply.status, 0);
    EXPECT_EQ(g_reply.data, std::string(sent.rbegin(), sent.rend()));
}

TEST_F(ServicesIpcTest, UnreachableAddressGivesNegativeStatusOnTheCallersThread) {
    ASSERT_EQ(kem_ipc_make_request(m_client, addr("acfg"), 1004, "x", 1, record_reply, nullptr, 10), 0);
    EXPECT_EQ(g_reply.count, 0) << "the reply waits for the pump";
    ASSERT_TRUE(pumpForReply());
    EXPECT_LT(g_reply.status, 0);
    EXPECT_EQ(g_reply.cmd, 1004u);
    EXPECT_EQ(g_reply.thread, std::this_thread::get_id());
}

TEST_F(ServicesIpcTest, MissingAnswerTimesOut) {
    ServerState state;
    state.answer = false;
    ServerThread server("mute", &state);
    ASSERT_TRUE(server.ok());
    ASSERT_EQ(kem_ipc_make_request(m_client, addr("mute"), 1, "q", 1, record_reply, nullptr, 1), 0);
    ASSERT_TRUE(pumpForReply());
    EXPECT_EQ(g_reply.status, -ETIMEDOUT);
    std::lock_guard<std::mutex> lock(state.lock);
    EXPECT_EQ(state.messages.size(), 1u) << "the message itself arrived";
}

TEST_F(ServicesIpcTest, MessagesReachTheSubscriberOnlyThroughTheCreatorsPump) {
    ServerState state;
    ASSERT_EQ(kem_ipc_msg_recv(m_client, echo_reversed, &state), 0);
    std::string path = m_dir.root() + "/agent/../var/run/ipc/client.sock";
    auto caller = std::async(std::launch::async, [] {
        char answer[64] = {0};
        int n = kem_ipc_call("client", 1002, "notify", 6, answer, sizeof(answer), 10000);
        return n < 0 ? std::string("<failed>") : std::string(answer, n);
    });
    usleep(50000);
    {
        std::lock_guard<std::mutex> lock(state.lock);
        EXPECT_TRUE(state.messages.empty()) << "delivery waits for this thread's pump";
    }
    ASSERT_TRUE(waitUntil([&] {
        cl_ev_loop_nowait(1);
        std::lock_guard<std::mutex> lock(state.lock);
        return !state.messages.empty();
    }));
    EXPECT_EQ(caller.get(), "yfiton");
    std::lock_guard<std::mutex> lock(state.lock);
    EXPECT_EQ(state.threads[0], std::this_thread::get_id());
    EXPECT_EQ(state.cmds[0], 1002u);
}

TEST_F(ServicesIpcTest, AnswerAfterTheAskerLeftIsDropped) {
    ServerState state;
    state.answer = false;
    ASSERT_EQ(kem_ipc_msg_recv(m_client, echo_reversed, &state), 0);
    auto caller = std::async(std::launch::async, [] {
        char answer[8];
        return kem_ipc_call("client", 3, "bye", 3, answer, sizeof(answer), 100);
    });
    ASSERT_TRUE(waitUntil([&] {
        cl_ev_loop_nowait(1);
        std::lock_guard<std::mutex> lock(state.lock);
        return !state.messages.empty();
    }));
    EXPECT_EQ(caller.get(), -1);
    unsigned long ctx1, ctx2;
    {
        std::lock_guard<std::mutex> lock(state.lock);
        ctx1 = state.lastCtx1;
        ctx2 = state.lastCtx2;
    }
    EXPECT_TRUE(waitUntil([&] { return kem_ipc_response(ctx1, ctx2, 3, 0, "late", 4) == -1; }));
    EXPECT_EQ(kem_ipc_response(0, 0, 3, 0, "x", 1), -1);
}

TEST_F(ServicesIpcTest, GarbageFromAPeerClosesOnlyThatConnection) {
    ServerState state;
    ServerThread server("srv", &state);
    ASSERT_TRUE(server.ok());
    std::string path = m_dir.root() + "/agent/../var/run/ipc/srv.sock";
    EXPECT_EQ(socket_exchange(path, std::string(64, 'z')), "") << "closed without an answer";
    std::string oversized(16, '\0');
    const unsigned int header[4] = {0x4B454D49, 1, 4u * 1024 * 1024 + 1, 9};
    std::memcpy(&oversized[0], header, sizeof(header));
    EXPECT_EQ(socket_exchange(path, oversized), "");
    ASSERT_EQ(kem_ipc_make_request(m_client, addr("srv"), 5, "ok", 2, record_reply, nullptr, 10), 0);
    ASSERT_TRUE(pumpForReply());
    EXPECT_EQ(g_reply.data, "ko");
    std::lock_guard<std::mutex> lock(state.lock);
    EXPECT_EQ(state.messages.size(), 1u);
}

TEST_F(ServicesIpcTest, EndpointNameIsServedOnceAndFreedByDestroy) {
    errno = 0;
    EXPECT_EQ(kem_ipc_create("client", 0), nullptr);
    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_EQ(kem_ipc_create("", 0), nullptr);
    EXPECT_EQ(kem_ipc_create("a/b", 0), nullptr);
    kem_ipc_destroy(m_client);
    m_client = kem_ipc_create("client", 0);
    EXPECT_NE(m_client, nullptr);
}

TEST_F(ServicesIpcTest, DestroyWithARequestInFlightDeliversNothing) {
    ServerState state;
    state.answer = false;
    ServerThread server("mute", &state);
    ASSERT_TRUE(server.ok());
    ASSERT_EQ(kem_ipc_make_request(m_client, addr("mute"), 1, "q", 1, record_reply, nullptr, 30), 0);
    ASSERT_TRUE(waitUntil([&] {
        std::lock_guard<std::mutex> lock(state.lock);
        return !state.messages.empty();
    }));
    kem_ipc_destroy(m_client);
    m_client = nullptr;
    for (int i = 0; i < 20; ++i) {
        cl_ev_loop_nowait(1);
        usleep(1000);
    }
    EXPECT_EQ(g_reply.count, 0);
}

TEST_F(ServicesIpcTest, BadArgumentsAreRefused) {
    kem_addr_t target = addr("srv");
    EXPECT_EQ(kem_ipc_make_request(nullptr, target, 1, "x", 1, record_reply, nullptr, 1), -1);
    EXPECT_EQ(kem_ipc_make_request(m_client, nullptr, 1, "x", 1, record_reply, nullptr, 1), -1);
    EXPECT_EQ(kem_ipc_make_request(m_client, target, 1, nullptr, 4, record_reply, nullptr, 1), -1);
    EXPECT_EQ(kem_ipc_msg_recv(m_client, nullptr, nullptr), -1);
    EXPECT_EQ(kem_addr_create(nullptr, 1, 2), nullptr);
    EXPECT_EQ(kem_ipc_call("nobody", 1, "x", 1, nullptr, 0, 100), -1);
}

}  // namespace
