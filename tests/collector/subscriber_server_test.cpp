// The collector's socket, for real: who may connect, what a client sees, and
// how subscriptions reach the back-end.
#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <cstring>

#include "call_log.h"
#include "log_capture.h"
#include "subscriber_server.h"
#include "vrccl_action.h"
#include "vrccl_wire.h"
#include "wire_client.h"

namespace {

using wlc::EventKind;

class CollectorServer : public ::testing::Test {
protected:
    void SetUp() override {
        m_dir = ::testing::TempDir() + "/wlc-server-" + std::to_string(::getpid());
        ::mkdir(m_dir.c_str(), 0700);
        m_path = m_dir + "/vrccl.sock";
        call_log::reset();
    }
    void TearDown() override {
        m_server.reset();
        ::rmdir(m_dir.c_str());
    }

    void startServer(wlc::ServerLimits limits = {}) {
        wlc::ServerHooks hooks;
        hooks.watch = [](int32_t pid) { call_log::record("watch " + std::to_string(pid)); };
        hooks.unwatch = [](int32_t pid) { call_log::record("unwatch " + std::to_string(pid)); };
        hooks.status = [](const std::vector<int32_t>& pids, std::size_t receivers) {
            return "{\"pids\":" + std::to_string(pids.size()) + ",\"receivers\":" + std::to_string(receivers) + "}";
        };
        m_server = std::make_unique<wlc::SubscriberServer>(m_path, "test", hooks, limits);
        std::string error;
        ASSERT_TRUE(m_server->start(error)) << error;
    }
    // Waits until the server has taken in what was sent: a status round trip.
    void sync(WireClient& client) {
        client.send(VRCCL_STATUS_REQ, nullptr, 0);
        std::vector<uint8_t> body;
        while (uint16_t kind = client.next(body)) {
            if (kind == VRCCL_STATUS) return;
        }
        ADD_FAILURE() << "no status answer";
    }
    static WireClient& greeted(WireClient& client) {
        std::vector<uint8_t> body;
        EXPECT_EQ(client.next(body), VRCCL_HELLO);
        return client;
    }

    std::string m_dir, m_path;
    std::unique_ptr<wlc::SubscriberServer> m_server;
};

TEST_F(CollectorServer, GreetsWithItsBackendAndListensOwnerOnly) {
    startServer();
    struct stat st;
    ASSERT_EQ(::stat(m_path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    WireClient client(m_path);
    std::vector<uint8_t> body;
    ASSERT_EQ(client.next(body), VRCCL_HELLO);
    ASSERT_EQ(body.size(), sizeof(vrccl_hello));
    vrccl_hello hello;
    std::memcpy(&hello, body.data(), sizeof hello);
    EXPECT_EQ(hello.version, VRCCL_PROTOCOL_VERSION);
    EXPECT_EQ(hello.collector_pid, static_cast<uint32_t>(::getpid()));
    EXPECT_STREQ(hello.backend, "test");

    std::string error;
    wlc::SubscriberServer second(m_path, "test", {});
    EXPECT_FALSE(second.start(error)) << "a live socket must not be taken over";
    EXPECT_EQ(error, "another collector answers on " + m_path);
}

TEST_F(CollectorServer, SubscriptionsAreSharedAcrossClientsAndEndWithThem) {
    startServer();
    {
        WireClient a(m_path), b(m_path);
        // Each step is synced: the server reads connections in no set order.
        greeted(a).subscribe(VRCCL_ACTION_ADD_PID, 100);
        a.subscribe(VRCCL_ACTION_ADD_PID, 100);  // a repeat changes nothing
        sync(a);
        greeted(b).subscribe(VRCCL_ACTION_ADD_PID, 100);
        b.subscribe(VRCCL_ACTION_ADD_PID, 200);
        sync(b);
        a.subscribe(VRCCL_ACTION_DEL_PID, 100);  // b still has it
        a.subscribe(VRCCL_ACTION_DEL_PID, 300);  // never had it
        a.subscribe(999, 400);                   // not an action
        sync(a);
        EXPECT_EQ(m_server->subscribedPids(), (std::vector<int32_t>{100, 200}));
    }
    // b's disconnection withdraws what it held.
    EXPECT_TRUE(waitUntil([] { return call_log::calls().size() >= 4; }));
    EXPECT_EQ(call_log::calls(), (std::vector<std::string>{"watch 100", "watch 200", "unwatch 100", "unwatch 200"}));
}

TEST_F(CollectorServer, RecordsGoToSubscribersInSequence) {
    startServer();
    WireClient subscriber(m_path), onlooker(m_path);
    greeted(subscriber).subscribe(VRCCL_ACTION_ADD_PID, 100);
    greeted(onlooker);
    sync(subscriber);
    m_server->broadcast(EventKind::DnsQuery, 1030, {1, 2, 3});
    m_server->broadcast(EventKind::Listening, 1031, {4});
    std::vector<uint8_t> body;
    for (uint64_t sequence : {1, 2}) {
        ASSERT_EQ(subscriber.next(body), VRCCL_RECORD);
        vrccl_record_head head;
        std::memcpy(&head, body.data(), sizeof head);
        EXPECT_EQ(head.sequence, sequence);
        EXPECT_EQ(head.size, body.size() - sizeof head);
        EXPECT_EQ(head.sub_type, sequence == 1 ? 1030u : 1031u);
    }
    EXPECT_EQ(onlooker.next(body, 200), 0) << "a connection that subscribed nothing gets no records";
    EXPECT_EQ(m_server->sent(EventKind::DnsQuery), 1u);
}

TEST_F(CollectorServer, ASlowClientLosesTheNewestAndSeesTheGap) {
    wlc::ServerLimits limits;
    limits.maxQueuedBytes = 256 * 1024;
    startServer(limits);
    WireClient slow(m_path);
    greeted(slow).subscribe(VRCCL_ACTION_ADD_PID, 100);
    sync(slow);
    std::vector<uint8_t> payload(14000, 0x41);
    const int total = 200;  // far more than the socket and the queue hold
    for (int i = 0; i < total; ++i) m_server->broadcast(EventKind::FileCreation, 1026, payload);
    uint64_t lost = m_server->lost(EventKind::FileCreation);
    EXPECT_GT(lost, 0u);
    EXPECT_EQ(m_server->sent(EventKind::FileCreation) + lost, static_cast<uint64_t>(total));
    std::vector<uint8_t> body;
    uint64_t expected = 1, gaps = 0, last = 0;
    while (slow.next(body, 500) == VRCCL_RECORD) {
        vrccl_record_head head;
        std::memcpy(&head, body.data(), sizeof head);
        if (head.sequence != expected) gaps += head.sequence - expected;
        expected = head.sequence + 1;
        last = head.sequence;
    }
    EXPECT_EQ(gaps + (static_cast<uint64_t>(total) - last), lost) << "every lost record shows as a gap";
}

TEST_F(CollectorServer, MalformedFramesCostOnlyTheirConnection) {
    startServer();
    struct Case {
        const char* what;
        uint16_t kind;
        uint32_t length;
        uint32_t magic;
    };
    const Case cases[] = {
        {"bad magic", VRCCL_SUBSCRIBE, 12, 0xdeadbeef},
        {"oversize body", VRCCL_SUBSCRIBE, 1u << 20, VRCCL_MAGIC},
        {"unknown kind", 77, 0, VRCCL_MAGIC},
        {"short subscribe", VRCCL_SUBSCRIBE, 4, VRCCL_MAGIC},
    };
    WireClient bystander(m_path);
    greeted(bystander).subscribe(VRCCL_ACTION_ADD_PID, 100);
    for (const Case& c : cases) {
        WireClient client(m_path);
        greeted(client);
        std::vector<uint8_t> body(c.length > 64 ? 64 : c.length);
        client.send(c.kind, body.data(), static_cast<uint32_t>(body.size()), c.magic, c.length);
        EXPECT_EQ(client.next(body, 3000), 0) << c.what << ": the connection must be closed";
    }
    sync(bystander);
    EXPECT_EQ(m_server->subscribedPids(), (std::vector<int32_t>{100}));
}

TEST_F(CollectorServer, RefusesPeersOfAnotherUser) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to connect as another user";
    startServer();
    ASSERT_EQ(::chmod(m_dir.c_str(), 0755), 0);
    ASSERT_EQ(::chmod(m_path.c_str(), 0666), 0);  // only the credential check stands in the way
    pid_t child = ::fork();
    if (child == 0) {
        if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(2);
        WireClient intruder(m_path);
        std::vector<uint8_t> body;
        ::_exit(intruder.connected() && intruder.next(body, 2000) == 0 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the intruder was greeted";
    EXPECT_EQ(m_server->refusedPeers(), 1u);
}

}  // namespace
