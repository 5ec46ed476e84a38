// The collector client library against a fake collector: connecting and
// the peer checks, subscriptions, record delivery, broken streams, and the
// bus event 1022 through the real bus library.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <vector>

#include "fake_collector.h"
#include "log_capture.h"
#include "mbframe.h"
#include "temp_dir.h"
#include "vrccl_action.h"
#include "vrccl_control.h"

namespace {

struct Delivered {
    int32_t type;
    uint32_t size;
    std::vector<unsigned char> payload;
};

std::mutex g_deliveredLock;
std::vector<Delivered> g_delivered;

std::vector<Delivered> delivered() {
    std::lock_guard<std::mutex> lock(g_deliveredLock);
    return g_delivered;
}

vrccl_counters counters() {
    vrccl_counters c;
    vrccl_control_counters(&c);
    return c;
}

std::vector<unsigned char> bytes(size_t size, unsigned char seed) {
    std::vector<unsigned char> out(size);
    for (size_t i = 0; i < size; ++i) out[i] = static_cast<unsigned char>(seed + i * 7);
    return out;
}

// Subscribes to 1022 on the real bus and counts what arrives.
class OfflineListener : public MbFrame::IPlugin {
public:
    int QueryInterface(const _GUID&, void**) override { return MB_E_PLUGIN_NOINTERFACE; }
    int AddRef() override { return 1; }
    int Release() override { return 1; }
    int GetUniqueID(unsigned char (*id)[16]) const override {
        std::memset(*id, 0x7e, 16);
        return 0;
    }
    int GetVersion(unsigned int* version) const override {
        *version = 1;
        return 0;
    }
    int OnAdvised(MbFrame::IPluginSetting* setting, MbFrame::IDispatch*) override {
        event_subscription offline = {1022, 1};
        return setting->RegisterEvents(&offline, 1);
    }
    int OnUnadvised(_UNADVISE_REASON) override { return 0; }
    int OnEvent(MbFrame::IEvent* event, _RESPONSE_STATUS*) override {
        if (event->GetUniqueID() == 1022 && event->GetNativeEvent() != nullptr &&
            (event->GetNativeEvent()->event_id & MB_EVENT_ID_MASK) == 1022) {
            ++received;
        }
        event->Release();
        return 0;
    }
    std::atomic<int> received{0};
};

// The bus library of the build, reached from the test's install root as the
// agent lays it out, delivering on the publisher's thread.
class RealBus {
public:
    explicit RealBus(const std::string& root) {
        std::filesystem::create_directories(root + "/agent_plugins");
        std::filesystem::create_symlink(WL_TEST_PLUGIN_DIR "/libtulmb.1.so", root + "/agent_plugins/libtulmb.1.so");
        m_library = ::dlopen((root + "/agent_plugins/libtulmb.1.so").c_str(), RTLD_NOW);
        if (m_library == nullptr) return;
        auto entry = reinterpret_cast<DllGetClassObject_fn>(::dlsym(m_library, "DllGetClassObject"));
        m_setSynchronous = reinterpret_cast<void (*)(int)>(::dlsym(m_library, "tulmb_set_synchronous"));
        m_setSynchronous(1);
        const _GUID frameId = {interface_id_hash("IRtmFrame"), 0, 0, {0}};
        const _GUID none = {0, 0, 0, {0}};
        void* frame = nullptr;
        if (entry(none, frameId, &frame) == 0) m_frame = static_cast<MbFrame::IRtmFrame*>(frame);
        if (m_frame != nullptr && m_frame->Advise(&listener, 1) != 0) m_frame = nullptr;
    }
    ~RealBus() {
        if (m_frame != nullptr) {
            unsigned char id[16];
            listener.GetUniqueID(&id);
            m_frame->Unadvise(id);
            m_frame->Release();
        }
        if (m_library != nullptr) {
            m_setSynchronous(0);
            ::dlclose(m_library);
        }
    }
    bool ready() const { return m_frame != nullptr; }

    OfflineListener listener;

private:
    void* m_library = nullptr;
    void (*m_setSynchronous)(int) = nullptr;
    MbFrame::IRtmFrame* m_frame = nullptr;
};

class VrcclClientTest : public ::testing::Test {
protected:
    void SetUp() override {
        vrccl_control_reset();
        vrccl_control_set_timeouts(1000, 300, 200);
        std::lock_guard<std::mutex> lock(g_deliveredLock);
        g_delivered.clear();
    }
    void TearDown() override {
        vrccl_action_free();
        vrccl_control_reset();
    }
    std::string socketPath() const { return root.path() + "/var/run/vrccl.sock"; }

    TempInstallRoot root{"agent"};
    LogCapture log;
};

// Connected with a greeting, and the bus in place.
class VrcclConnectedTest : public VrcclClientTest {
protected:
    void SetUp() override {
        VrcclClientTest::SetUp();
        std::filesystem::create_directories(root.path() + "/var/run");
        bus = std::make_unique<RealBus>(root.path());
        ASSERT_TRUE(bus->ready());
        collector = std::make_unique<FakeCollector>(socketPath());
        ASSERT_EQ(vrccl_action_init(), 0) << log.dump();
        ASSERT_GE(collector->client(), 0);
    }
    void TearDown() override {
        VrcclClientTest::TearDown();
        collector.reset();
        bus.reset();
    }
    void expectCut(const char* why) {
        EXPECT_TRUE(collector->clientClosed()) << why;
        EXPECT_TRUE(waitUntil([] { return counters().offline_published == 1; })) << why << "\n" << log.dump();
        EXPECT_EQ(bus->listener.received.load(), 1) << why;
        EXPECT_EQ(vrccl_action_subscribe(260, 1, -1), -1) << "down after: " << why;
    }

    std::unique_ptr<RealBus> bus;
    std::unique_ptr<FakeCollector> collector;
};

}  // namespace

// The module's receiver: the library finds it with dlsym.
extern "C" __attribute__((visibility("default"))) void transmit_action_data(const action_collector_msg* msg) {
    const auto* raw = reinterpret_cast<const unsigned char*>(msg);
    Delivered d;
    std::memcpy(&d.type, raw + 264, sizeof(d.type));
    std::memcpy(&d.size, raw + 272, sizeof(d.size));
    d.payload.assign(raw + 280, raw + 280 + d.size);
    std::lock_guard<std::mutex> lock(g_deliveredLock);
    g_delivered.push_back(std::move(d));
}

TEST_F(VrcclClientTest, InitFailsWhenNoCollectorAnswers) {
    vrccl_action_free();  // safe before any init
    std::filesystem::create_directories(root.path() + "/var/run");
    enum Listener { None, Stale, Live };
    struct Case {
        const char* name;
        Listener listener;
        FakeCollector::Greeting greeting;
        uid_t listenAs;
        const char* logged;
    };
    const Case cases[] = {
        {"no socket", None, FakeCollector::Greeting::Hello, 0, "no collector socket"},
        {"stale socket", Stale, FakeCollector::Greeting::Hello, 0, "nobody listens on the socket"},
        {"silent", Live, FakeCollector::Greeting::Silent, 0, "no greeting: timed out"},
        {"bad magic", Live, FakeCollector::Greeting::BadMagic, 0, "greeting with bad magic"},
        {"not a hello", Live, FakeCollector::Greeting::NotHello, 0, "not a greeting"},
        {"old version", Live, FakeCollector::Greeting::OldVersion, 0, "protocol version 0"},
        {"foreign uid", Live, FakeCollector::Greeting::Hello, 65534, "runs as uid 65534, neither root nor our uid"},
    };
    for (const Case& c : cases) {
        if (c.listenAs != 0 && geteuid() != 0) continue;  // only root can listen as another user
        log.clear();
        std::unique_ptr<FakeCollector> collector;
        if (c.listener != None) collector = std::make_unique<FakeCollector>(socketPath(), c.greeting, c.listenAs);
        if (c.listener == Stale) collector.reset();  // the socket file stays behind
        EXPECT_NE(vrccl_action_init(), 0) << c.name;
        EXPECT_TRUE(log.contains(c.logged)) << c.name << "\n" << log.dump();
        EXPECT_EQ(vrccl_action_subscribe(260, 1, -1), -1) << c.name;
        vrccl_action_free();
        vrccl_action_free();
    }
    EXPECT_EQ(counters().drops, 0u);
}

TEST_F(VrcclConnectedTest, SecondInitKeepsTheConnectionAndSubscriptionsAreFramed) {
    EXPECT_EQ(vrccl_action_init(), 0);
    EXPECT_FALSE(collector->connectionPending()) << "a second init must not connect again";
    EXPECT_TRUE(log.contains("pid 4242, back-end fake")) << log.dump();

    struct Step {
        int action;
        int pid;
        int rc;
    };
    const Step steps[] = {{260, 41, 0}, {259, 41, 0}, {1, 7, -1}, {261, 8, -1}, {260, 2147483647, 0}};
    std::vector<vrccl_subscribe> expected;
    for (const Step& s : steps) {
        EXPECT_EQ(vrccl_action_subscribe(s.action, s.pid, -1), s.rc) << s.action;
        if (s.rc == 0) expected.push_back({s.action, s.pid, -1});
    }
    for (const vrccl_subscribe& want : expected) {
        vrccl_frame_head head;
        std::vector<unsigned char> body;
        ASSERT_TRUE(collector->readFrame(head, body));
        EXPECT_EQ(head.magic, VRCCL_MAGIC);
        EXPECT_EQ(head.kind, VRCCL_SUBSCRIBE);
        EXPECT_EQ(head.flags, 0);
        ASSERT_EQ(body.size(), sizeof(vrccl_subscribe));
        vrccl_subscribe got;
        std::memcpy(&got, body.data(), sizeof(got));
        EXPECT_EQ(got.action, want.action);
        EXPECT_EQ(got.pid, want.pid);
        EXPECT_EQ(got.reserved, -1);
    }
    EXPECT_TRUE(log.contains("unknown collector action 1 for pid 7")) << log.dump();
}

TEST_F(VrcclConnectedTest, RecordsReachTheReceiverByteExactAndStatusIsSkipped) {
    struct Record {
        uint32_t subType;
        std::vector<unsigned char> payload;
    };
    const Record records[] = {
        {1027, bytes(100, 1)},
        {1026, {}},
        {1031, bytes(VRCCL_MAX_BODY - sizeof(vrccl_record_head), 9)},
        {1029, bytes(3, 200)},
    };
    uint64_t sequence = 0;
    for (const Record& r : records) {
        ASSERT_TRUE(collector->sendRecord(r.subType, ++sequence, r.payload));
        const char status[] = "{\"backend\":\"fake\"}";
        ASSERT_TRUE(
            collector->sendFrame(VRCCL_STATUS, std::vector<unsigned char>(status, status + sizeof(status) - 1)));
    }
    ASSERT_TRUE(waitUntil([] { return counters().delivered == 4; })) << log.dump();
    std::vector<Delivered> got = delivered();
    ASSERT_EQ(got.size(), 4u);
    for (size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(got[i].type, static_cast<int32_t>(records[i].subType)) << i;
        EXPECT_EQ(got[i].size, records[i].payload.size()) << i;
        EXPECT_TRUE(got[i].payload == records[i].payload) << i;
    }
    vrccl_counters c = counters();
    EXPECT_EQ(c.lost, 0u);
    EXPECT_EQ(c.drops, 0u);
}

TEST_F(VrcclConnectedTest, SequenceGapsAreCountedAsLost) {
    for (uint64_t sequence : {1, 2, 5, 6, 10}) ASSERT_TRUE(collector->sendRecord(1027, sequence, bytes(8, 1)));
    ASSERT_TRUE(waitUntil([] { return counters().delivered == 5; })) << log.dump();
    EXPECT_EQ(counters().lost, 5u);
    EXPECT_TRUE(log.contains("2 collector records lost before record 5")) << log.dump();
}

TEST_F(VrcclConnectedTest, UnexpectedCloseTellsTheBusOnceAndReconnects) {
    collector->closeClient();
    ASSERT_TRUE(waitUntil([] { return counters().offline_published == 1; })) << log.dump();
    EXPECT_TRUE(log.contains("lost the collector: connection closed by the peer")) << log.dump();
    EXPECT_EQ(vrccl_action_subscribe(260, 5, -1), -1);

    // The module's answer to 1022: free, init, subscribe again.
    vrccl_action_free();
    collector = std::make_unique<FakeCollector>(socketPath());
    ASSERT_EQ(vrccl_action_init(), 0) << log.dump();
    EXPECT_EQ(vrccl_action_subscribe(260, 5, -1), 0);
    vrccl_action_free();
    EXPECT_TRUE(collector->clientClosed());
    vrccl_counters c = counters();
    EXPECT_EQ(c.drops, 1u);
    EXPECT_EQ(c.offline_published, 1u) << "free publishes nothing";
    EXPECT_EQ(bus->listener.received.load(), 1);
}

TEST_F(VrcclConnectedTest, MalformedFramesCutTheConnection) {
    struct Case {
        const char* name;
        vrccl_frame_head head;
        vrccl_record_head record;
        const char* logged;
    };
    const uint32_t rec = sizeof(vrccl_record_head);
    const Case cases[] = {
        {"oversize", {VRCCL_MAGIC, VRCCL_STATUS, 0, VRCCL_MAX_BODY + 1}, {}, "body larger than 64 KiB"},
        {"bad magic", {0x12345678u, VRCCL_RECORD, 0, rec}, {1027, 0, 2}, "bad magic"},
        {"short record", {VRCCL_MAGIC, VRCCL_RECORD, 0, rec - 1}, {}, "record shorter than its head"},
        {"size mismatch", {VRCCL_MAGIC, VRCCL_RECORD, 0, rec + 4}, {1027, 8, 2}, "record of 8 bytes in a frame of 20"},
        {"sequence back", {VRCCL_MAGIC, VRCCL_RECORD, 0, rec}, {1027, 0, 1}, "sequence went backwards"},
    };
    bool first = true;
    for (const Case& c : cases) {
        if (!first) {
            vrccl_action_free();
            vrccl_control_reset();
            bus->listener.received = 0;
            collector = std::make_unique<FakeCollector>(socketPath());
            ASSERT_EQ(vrccl_action_init(), 0) << c.name;
        }
        first = false;
        log.clear();
        ASSERT_TRUE(collector->sendRecord(1027, 1, bytes(4, 3))) << c.name;
        ASSERT_TRUE(collector->sendBytes(&c.head, sizeof(c.head))) << c.name;
        std::vector<unsigned char> padding(c.head.length <= 64 ? c.head.length : 64);
        if (c.head.length >= rec) std::memcpy(padding.data(), &c.record, rec);
        collector->sendBytes(padding.data(), padding.size());
        expectCut(c.name);
        EXPECT_TRUE(log.contains(c.logged)) << c.name << "\n" << log.dump();
        vrccl_counters n = counters();
        EXPECT_EQ(n.delivered, 1u) << c.name << ": the record before the bad frame";
        EXPECT_EQ(n.protocol_errors, 1u) << c.name;
        EXPECT_EQ(n.drops, 1u) << c.name;
    }
}

TEST_F(VrcclConnectedTest, StuckCollectorCutsTheConnectionAtTheSendDeadline) {
    // The fake never reads: the socket buffer fills, then one send times out.
    int sent = 0;
    while (sent < 1000000 && vrccl_action_subscribe(260, sent, -1) == 0) ++sent;
    ASSERT_LT(sent, 1000000);
    EXPECT_TRUE(waitUntil([] { return counters().offline_published == 1; })) << log.dump();
    EXPECT_TRUE(log.contains("a subscription could not be sent (timed out)")) << log.dump();
    EXPECT_EQ(bus->listener.received.load(), 1);
}

TEST_F(VrcclConnectedTest, RecordsWithoutAReceiverAreCountedAsDropped) {
    vrccl_action_free();
    vrccl_control_set_receiver("vrccl_test_no_such_receiver");
    collector = std::make_unique<FakeCollector>(socketPath());
    ASSERT_EQ(vrccl_action_init(), 0);
    EXPECT_TRUE(log.contains("no vrccl_test_no_such_receiver in this process")) << log.dump();
    for (uint64_t sequence : {1, 2, 3}) ASSERT_TRUE(collector->sendRecord(1027, sequence, bytes(8, 1)));
    ASSERT_TRUE(waitUntil([] { return counters().undeliverable == 3; })) << log.dump();
    EXPECT_EQ(counters().delivered, 0u);
    EXPECT_TRUE(delivered().empty());
}

TEST_F(VrcclClientTest, WithoutTheBusLibraryRecordsFlowAndTheDropIsStillCounted) {
    std::filesystem::create_directories(root.path() + "/var/run");
    FakeCollector collector(socketPath());
    ASSERT_EQ(vrccl_action_init(), 0);
    EXPECT_TRUE(log.contains("cannot load the bus library")) << log.dump();
    ASSERT_TRUE(collector.sendRecord(1027, 1, bytes(8, 1)));
    ASSERT_TRUE(waitUntil([] { return counters().delivered == 1; }));
    collector.closeClient();
    ASSERT_TRUE(waitUntil([] { return counters().drops == 1; }));
    EXPECT_EQ(counters().offline_published, 0u);
    EXPECT_TRUE(waitUntil([&] { return log.contains("not attached to the bus"); })) << log.dump();
}
