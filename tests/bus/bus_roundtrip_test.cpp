// Both plug-ins of the module on the real bus library: what a source hands
// to the publisher arrives in the engines' queues.
#include <gtest/gtest.h>

#include <unistd.h>

#include <string>

#include "bus_library.h"
#include "bus_test_support.h"
#include "dirutils.h"
#include "log_capture.h"
#include "register.h"
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
    auto message = collectorMessage(1027, processRecord("PROCESS_CREATION", 321, "/usr/sbin/nginx"));
    transmit_action_data(reinterpret_cast<const action_collector_msg*>(message.data()));
    message.assign(message.size(), 0xee);  // the source's buffer is free on return

    ASSERT_TRUE(waitUntil([] { return raspQueued() == 1 && baseQueued() == 1; })) << m_log.dump();
    EXPECT_EQ(raspTexts()[0], "{\"type\":\"request\",\"n\":1}");
    const _BASE_EVENTINFO record = baseRecords().back();
    EXPECT_EQ(record.event_type, 1);
    EXPECT_EQ(record.detail.process.process_id, 321u);
}

TEST_P(BusRoundTripTest, CollectorOfflineFromAnotherPlugin) {
    TestPlugin collector(0x55, {});
    MbFrame::IRtmFrame* frame = m_bus.newFrame();
    ASSERT_NE(frame, nullptr);
    ASSERT_EQ(frame->Advise(&collector, 1), 0);
    _RESPONSE_APP_REQUEST_INFO* native = nullptr;
    EventTrace::CBaseEvent* event = EventTrace::CBaseEvent::New(native);
    ASSERT_NE(event, nullptr);
    mb_set_event_id(*native, 1022);
    EXPECT_EQ(collector.dispatch()->Invoke(event), 0);
    EXPECT_EQ(orv_event_timedwait(g_vr_event, 5000, 0), 0);
    event->Release();
    EXPECT_EQ(frame->Unadvise(collector.id()), 0);
    EXPECT_EQ(frame->Release(), 0);
}

INSTANTIATE_TEST_SUITE_P(Delivery, BusRoundTripTest, ::testing::Values(true, false),
                         [](const ::testing::TestParamInfo<bool>& info) {
                             return info.param ? "Synchronous" : "Threaded";
                         });

TEST(BusLiteInstallation, BothPluginsStayUnattachedAndSucceed) {
    LogCapture log;
    char dir[] = "/tmp/wl_lite_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    dirutils_set_install_dir(dir);
    EXPECT_EQ(whitelist_msgbus_init(), 1);
    EXPECT_TRUE(Register::GetInstance()->registerInit());
    EXPECT_EQ(log.count("lite no tulmb path: " + std::string(dir) + "/../agent_plugins/libtulmb.1.so, not load"), 2)
        << log.dump();
    transmit_rasp_data("{}");
    EXPECT_TRUE(log.contains("bus need init first.")) << log.dump();
    whitelist_msgbus_uninit();
    Register::GetInstance()->registerUninit();
    EXPECT_FALSE(log.contains("OnUnadvised succeed")) << "nothing was attached";
    rmdir(dir);
}

}  // namespace
