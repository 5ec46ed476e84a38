// IPC between endpoints on threads that each pump their own loop: answers,
// failures, the thread of every callback, and peers that break the framing.
#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "cl_ev.h"
#include "kem_ipc.h"
#include "log_capture.h"
#include "ipc_server_thread.h"
#include "socket_client.h"
#include "temp_dir.h"

namespace {

struct ReplyRecord {
    int status = 1;
    unsigned int cmd = 0;
    std::string data;
    std::thread::id thread;
    int count = 0;
};
ReplyRecord g_reply;

void record_reply(int status, unsigned int cmd, const void* data, unsigned int size) {
    std::string text = data ? std::string(static_cast<const char*>(data), size) : std::string();
    g_reply = {status, cmd, text, std::this_thread::get_id(), g_reply.count + 1};
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
    int request(const char* to, unsigned int cmd, const std::string& data, int timeout_s) {
        m_addrs.push_back(kem_addr_create(to, 1, 2));
        return kem_ipc_make_request(m_client, m_addrs.back(), cmd, data.data(), static_cast<unsigned int>(data.size()),
                                    record_reply, nullptr, timeout_s);
    }
    static bool pumpForReply() {
        return waitUntil(
            [] {
                cl_ev_loop_nowait(1);
                cl_event_loop_once();
                return g_reply.count > 0;
            },
            std::chrono::seconds(15));
    }

    TempInstallRoot m_dir{"agent"};
    kem_ipc_t m_client = nullptr;
    std::vector<kem_addr_t> m_addrs;
};

TEST_F(ServicesIpcTest, RequestAndAnswerEachArriveOnTheirOwnersThread) {
    ServerThread server("srv", true);
    ASSERT_TRUE(server.ok());
    std::string buffer = "module_switch";
    ASSERT_EQ(request("srv", 1004, buffer, 10), 0);
    buffer.assign(buffer.size(), '#');  // the caller's buffer is free again at once
    ASSERT_TRUE(pumpForReply());
    EXPECT_EQ(g_reply.status, 0);
    EXPECT_EQ(g_reply.cmd, 1005u);
    EXPECT_EQ(g_reply.data, "hctiws_eludom");
    EXPECT_EQ(g_reply.thread, std::this_thread::get_id());
    std::lock_guard<std::mutex> lock(server.m_lock);
    EXPECT_EQ(server.m_seen, "module_switch");
    EXPECT_EQ(server.m_cmd, 1004u);
    EXPECT_TRUE(server.m_onOwnThread);
}

TEST_F(ServicesIpcTest, FailureGivesNegativeStatusOnTheCallersThread) {
    ServerThread mute("mute", false);
    ASSERT_TRUE(mute.ok());
    struct Case {
        const char* to;
        int expected;  // 0: any negative status
    };
    const Case cases[] = {{"acfg", 0}, {"mute", -ETIMEDOUT}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.to);
        g_reply = ReplyRecord();
        ASSERT_EQ(request(c.to, 1004, "x", 1), 0);
        EXPECT_EQ(g_reply.count, 0) << "the reply waits for the pump";
        ASSERT_TRUE(pumpForReply());
        EXPECT_LT(g_reply.status, 0);
        EXPECT_TRUE(c.expected == 0 || g_reply.status == c.expected) << g_reply.status;
        EXPECT_EQ(g_reply.cmd, 1004u);
        EXPECT_EQ(g_reply.thread, std::this_thread::get_id());
    }
    std::lock_guard<std::mutex> lock(mute.m_lock);
    EXPECT_EQ(mute.m_seen, "x") << "the unanswered request itself arrived";
}

// A frame as another process writes it: magic, cmd, size, request id in
// host order, then the data; size is what the head announces.
std::string wire_frame(std::uint32_t cmd, std::uint32_t id, const std::string& data, std::uint32_t size,
                       std::uint32_t magic = 0x4B454D49) {
    const std::uint32_t head[4] = {magic, cmd, size, id};
    std::string out(sizeof(head), '\0');
    std::memcpy(&out[0], head, sizeof(head));
    return out + data;
}

std::string wire_frame(std::uint32_t cmd, std::uint32_t id, const std::string& data) {
    return wire_frame(cmd, id, data, static_cast<std::uint32_t>(data.size()));
}

struct MisbehavingPeer {
    const char* what;
    std::string bytes;
    bool hangUp;  // shuts its writing side after the bytes
};

void PrintTo(const MisbehavingPeer& peer, std::ostream* os) { *os << peer.what; }

const MisbehavingPeer kIpcPeers[] = {
    {"Garbage", std::string(64, '\xab'), false},
    {"WholeFrameWithWrongMagic", wire_frame(9, 1, "{}", 2, 0x494D454B), false},
    {"HeadOneByteOverTheBound", wire_frame(9, 1, "", 4u * 1024 * 1024 + 1), false},
    {"HeadWithTheLargestSize", wire_frame(9, 1, "", 0xFFFFFFFFu), false},
    {"HalfAHeadThenHangUp", wire_frame(9, 1, "").substr(0, 8), true},
    {"HeadAndHalfTheDataThenHangUp", wire_frame(9, 1, "{\"a\":", 10), true},
};

class ServicesIpcPeerTest : public ServicesIpcTest, public ::testing::WithParamInterface<MisbehavingPeer> {};

TEST_P(ServicesIpcPeerTest, MisbehavingPeerLosesOnlyItsOwnConnection) {
    const MisbehavingPeer& c = GetParam();
    ServerThread server("srv", true);
    ASSERT_TRUE(server.ok());
    const std::string path = m_dir.path() + "/var/run/ipc/srv.sock";
    // Half-way through its request while the other peer misbehaves.
    const std::string request = wire_frame(1004, 77, "module_switch");
    SocketPeer good(path);
    ASSERT_TRUE(good.send(request.substr(0, 20)));
    SocketPeer bad(path);
    ASSERT_TRUE(bad.send(c.bytes));
    if (c.hangUp) bad.hangUp();
    std::string unexpected;
    EXPECT_TRUE(bad.readUntilClosed(&unexpected)) << "the endpoint still holds the connection";
    EXPECT_EQ(unexpected, "");

    ASSERT_TRUE(good.send(request.substr(20))) << "the good peer lost its connection";
    std::string answer;
    ASSERT_TRUE(good.readExact(16 + 13, &answer)) << "the good peer got " << answer.size() << " bytes";
    EXPECT_EQ(answer, wire_frame(1005, 77, "hctiws_eludom"));

    char text[8] = {0};
    EXPECT_EQ(kem_ipc_call("srv", 1, "ab", 2, text, sizeof(text), 10000), 2) << "new connections are taken";
    EXPECT_STREQ(text, "ba");
    std::lock_guard<std::mutex> lock(server.m_lock);
    EXPECT_EQ(server.m_seen, "module_switchab") << "nothing of the bad peer was delivered";
}

INSTANTIATE_TEST_SUITE_P(Peers, ServicesIpcPeerTest, ::testing::ValuesIn(kIpcPeers),
                         [](const ::testing::TestParamInfo<MisbehavingPeer>& info) { return info.param.what; });

}  // namespace
