// The real bus library: what a source hands to the publisher arrives in the
// engines' queues, and a plug-in may leave the bus from its own delivery.
#include <gtest/gtest.h>

#include <unistd.h>

#include <string>

#include "bus_library.h"
#include "bus_test_support.h"
#include "dirutils.h"
#include "log_capture.h"
#include "register.h"
#include "temp_dir.h"
#include "whitelist.h"
#include "whitelist_event.h"
#include "whitelist_invoke.h"

namespace {

// Attaches both plug-ins for one test and detaches them after it.
class BusRoundTripTest : public ::testing::TestWithParam<bool> {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_bus.loaded()) << "build the tulmb target first";
        m_bus.setSynchronous(GetParam());
        orv_event_init(&g_vr_event, 0, 1);
        dirutils_set_install_dir(WL_TEST_STAGE_LIB);
        ASSERT_EQ(whitelist_msgbus_init(), 1) << m_log.dump();
        ASSERT_TRUE(Register::GetInstance()->registerInit()) << m_log.dump();
    }
    void TearDown() override {
        Register::GetInstance()->registerUninit();
        whitelist_msgbus_uninit();
        orv_event_destroy(g_vr_event);
        g_vr_event = nullptr;
    }

    QueueReset m_queues;
    LogCapture m_log;
    BusLibrary m_bus;  // keeps the library loaded across the plug-ins' detach
};

TEST_P(BusRoundTripTest, TelemetryTextAndCollectorRecordReachTheirQueues) {
    transmit_rasp_data("{\"type\":\"request\",\"n\":1}");
    auto message = collectorMessage(ACTION_PROCESS_CREATION, processRecord("PROCESS_CREATION", 321, "/usr/sbin/nginx"));
    transmit_action_data(reinterpret_cast<const action_collector_msg*>(message.data()));
    message.assign(message.size(), 0xee);  // the source's buffer is free on return

    ASSERT_TRUE(waitUntil([] { return raspQueued() == 1 && baseQueued() == 1; })) << m_log.dump();
    EXPECT_EQ(raspTexts()[0], "{\"type\":\"request\",\"n\":1}");
    const _BASE_EVENTINFO record = baseRecords().back();
    EXPECT_EQ(record.event_type, 1);
    const uint64_t pid = record.detail.process.process_id;  // a packed field: compared by value
    EXPECT_EQ(pid, 321u);
}

// Leaves the bus from inside its own delivery.
class SelfRemovingPlugin : public TestPlugin {
public:
    explicit SelfRemovingPlugin(MbFrame::IRtmFrame* frame) : TestPlugin(0x5a, {700}), m_frame(frame) {}
    int OnEvent(MbFrame::IEvent* event, _RESPONSE_STATUS* status) override {
        const int result = TestPlugin::OnEvent(event, status);
        m_frame->Unadvise(id());
        return result;
    }

private:
    MbFrame::IRtmFrame* m_frame;
};

TEST_P(BusRoundTripTest, UnadviseFromInsideOnEventDoesNotWaitForItself) {
    MbFrame::IRtmFrame* frame = m_bus.newFrame();
    ASSERT_NE(frame, nullptr);
    SelfRemovingPlugin leaving(frame);
    TestPlugin observer(0x5b, {700});
    ASSERT_EQ(frame->Advise(&leaving, 1), 0);
    ASSERT_EQ(frame->Advise(&observer, 1), 0);
    for (int i = 1; i <= 2; ++i) {
        _RESPONSE_APP_REQUEST_INFO* native = nullptr;
        EventTrace::CBaseEvent* event = EventTrace::CBaseEvent::New(native);
        ASSERT_NE(event, nullptr);
        mb_set_event_id(*native, 700);
        EXPECT_EQ(observer.dispatch()->Invoke(event), 0);
        event->Release();  // the bus keeps its own reference
        ASSERT_TRUE(waitUntil([&] { return observer.m_received.load() == i; }));
    }
    EXPECT_EQ(leaving.m_received.load(), 1);
    EXPECT_EQ(leaving.m_unadvised.load(), 1);
    EXPECT_EQ(frame->GetPluginCount(), 1u);
    EXPECT_EQ(frame->Release(), 0);
}

INSTANTIATE_TEST_SUITE_P(Delivery, BusRoundTripTest, ::testing::Values(true, false),
                         [](const ::testing::TestParamInfo<bool>& info) {
                             return info.param ? "Synchronous" : "Threaded";
                         });

TEST(BusLiteInstallation, BothPluginsStayUnattachedAndSucceed) {
    LogCapture log;
    TempInstallRoot root;
    EXPECT_EQ(whitelist_msgbus_init(), 1);
    EXPECT_TRUE(Register::GetInstance()->registerInit());
    EXPECT_EQ(log.count("lite no tulmb path: " + (root / "lib") + "/../agent_plugins/libtulmb.1.so, not load"), 2)
        << log.dump();
    transmit_rasp_data("{}");
    EXPECT_TRUE(log.contains("bus need init first.")) << log.dump();
    whitelist_msgbus_uninit();
    Register::GetInstance()->registerUninit();
    EXPECT_FALSE(log.contains("OnUnadvised succeed")) << "nothing was attached";
}

}  // namespace
