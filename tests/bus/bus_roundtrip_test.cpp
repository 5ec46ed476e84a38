// Both plug-ins of the module on the real bus library: what a source hands
// to the publisher arrives in the engines' queues.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
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
        ASSERT_TRUE(m_log.contains("regist event succeed")) << m_log.dump();
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

TEST_P(BusRoundTripTest, TelemetryTextReachesTheRaspQueue) {
    transmit_rasp_data("{\"type\":\"request\",\"n\":1}");
    ASSERT_TRUE(waitUntil([] { return raspQueued() == 1; })) << m_log.dump();
    EXPECT_EQ(raspTexts()[0], "{\"type\":\"request\",\"n\":1}");
    EXPECT_EQ(baseQueued(), 0u);
}

TEST_P(BusRoundTripTest, CollectorRecordsArriveConverted) {
    struct Case {
        int type;
        std::vector<unsigned char> payload;
        uint16_t event_type;
    } cases[] = {
        {1027, processRecord("PROCESS_CREATION", 321, "/usr/sbin/nginx"), 1},
        {1045, fileRecord("FILE_CREATION", "/var/www/shell.php"), 6},
        {1030, netRecord("NETWORK_CONNECTION", "192.168.7.9", 443), 15},
        {1028, processRecord("PROCESS_CREATION", 1, "/x"), 0},  // unknown type: an empty record
    };
    std::size_t expected = 0;
    for (const Case& c : cases) {
        auto message = collectorMessage(c.type, c.payload);
        transmit_action_data(reinterpret_cast<const action_collector_msg*>(message.data()));
        message.assign(message.size(), 0xee);  // the source's buffer is free on return
        ++expected;
        ASSERT_TRUE(waitUntil([&] { return baseQueued() == expected; })) << c.type << m_log.dump();
        const _BASE_EVENTINFO record = lastBaseRecord();
        EXPECT_EQ(record.event_type, c.event_type) << c.type;
        if (c.type == 1027) {
            EXPECT_EQ(record.detail.process.process_id, 321u);
            EXPECT_EQ(narrow(record.detail.process.process_path), "/usr/sbin/nginx");
            EXPECT_EQ(record.event_time, 1700000000123ull);
        }
    }
}

TEST_P(BusRoundTripTest, ShortCollectorRecordIsReadSafely) {
    // A sender's record cut after its event name: the rest reads as zeros.
    auto full = processRecord("PROCESS_CREATION", 99, "/bin/sh");
    std::vector<unsigned char> cut(full.begin(), full.begin() + 40);
    auto message = collectorMessage(1027, cut);
    transmit_action_data(reinterpret_cast<const action_collector_msg*>(message.data()));
    ASSERT_TRUE(waitUntil([] { return baseQueued() == 1; })) << m_log.dump();
    EXPECT_EQ(lastBaseRecord().detail.process.process_id, 0u);
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

TEST_P(BusRoundTripTest, QueueLimitHoldsAndOtherSubscribersSeeEverything) {
    // A second subscriber of event 19 tells when the bus has delivered all.
    TestPlugin observer(0x66, {19});
    MbFrame::IRtmFrame* frame = m_bus.newFrame();
    ASSERT_NE(frame, nullptr);
    ASSERT_EQ(frame->Advise(&observer, 1), 0);
    for (int i = 0; i < 150; ++i) {
        transmit_rasp_data(("{\"n\":" + std::to_string(i) + "}").c_str());
    }
    ASSERT_TRUE(observer.waitReceived(150));
    EXPECT_EQ(raspQueued(), 100u);
    EXPECT_EQ(raspTexts().back(), "{\"n\":99}") << "the first hundred are kept";
    EXPECT_FALSE(m_log.contains("Error to Invoke data.")) << "the bus's own queue is larger";
    EXPECT_EQ(frame->Unadvise(observer.id()), 0);
    EXPECT_EQ(frame->Release(), 0);
}

TEST_P(BusRoundTripTest, DetachEndsPublishing) {
    whitelist_msgbus_uninit();
    transmit_rasp_data("{}");
    EXPECT_TRUE(m_log.contains("bus need init first.")) << m_log.dump();
    Register::GetInstance()->registerUninit();
    EXPECT_TRUE(m_log.contains("OnUnadvised succeed")) << m_log.dump();
    // Attaching again works on a fresh frame.
    ASSERT_EQ(whitelist_msgbus_init(), 1);
    ASSERT_TRUE(Register::GetInstance()->registerInit());
    transmit_rasp_data("{\"again\":true}");
    ASSERT_TRUE(waitUntil([] { return raspQueued() == 1; })) << m_log.dump();
}

INSTANTIATE_TEST_SUITE_P(Delivery, BusRoundTripTest, ::testing::Values(true, false),
                         [](const ::testing::TestParamInfo<bool>& info) {
                             return info.param ? "Synchronous" : "Threaded";
                         });

TEST(BusLiteInstallation, BothPluginsStayUnattachedAndSucceed) {
    LogCapture log;
    QueueReset queues;
    char dir[] = "/tmp/wl_lite_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    dirutils_set_install_dir(dir);
    EXPECT_EQ(whitelist_msgbus_init(), 1);
    EXPECT_TRUE(Register::GetInstance()->registerInit());
    EXPECT_EQ(log.count("lite no tulmb path: " + std::string(dir) + "/../agent_plugins/libtulmb.1.so, not load"), 2)
        << log.dump();
    transmit_rasp_data("{}");
    EXPECT_TRUE(log.contains("bus need init first.")) << log.dump();
    EXPECT_EQ(raspQueued(), 0u);
    whitelist_msgbus_uninit();
    Register::GetInstance()->registerUninit();
    EXPECT_FALSE(log.contains("OnUnadvised succeed")) << "nothing was attached";
    rmdir(dir);
}

TEST(BusBrokenInstallation, ALibraryWithoutTheEntryIsAFailure) {
    LogCapture log;
    // liborv_rasp stands in for a bus library that lacks DllGetClassObject.
    char dir[] = "/tmp/wl_broken_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string plugins = std::string(dir) + "/agent_plugins";
    const std::string lib = std::string(dir) + "/lib";  // "@/.." must resolve
    ASSERT_EQ(dirutils_mkdir(plugins.c_str(), 0755), 0);
    ASSERT_EQ(dirutils_mkdir(lib.c_str(), 0755), 0);
    const std::string fake = plugins + "/libtulmb.1.so";
    ASSERT_EQ(symlink(WL_TEST_PLUGIN_DIR "/liborv_rasp.50.so", fake.c_str()), 0);
    dirutils_set_install_dir(lib.c_str());
    EXPECT_FALSE(Register::GetInstance()->registerInit());
    EXPECT_EQ(whitelist_msgbus_init(), 0);
    EXPECT_EQ(log.count("mb dll_get_addr failed!0x"), 2) << log.dump();
    // Detached again: a second try goes through the same steps.
    EXPECT_FALSE(Register::GetInstance()->registerInit());
    EXPECT_EQ(log.count("mb dll_get_addr failed!0x"), 3) << log.dump();

    unlink(fake.c_str());
    FILE* junk = fopen(fake.c_str(), "w");  // present, but not a library
    ASSERT_NE(junk, nullptr);
    fputs("not a shared object\n", junk);
    fclose(junk);
    EXPECT_FALSE(Register::GetInstance()->registerInit());
    EXPECT_TRUE(log.contains("mb dll open failed!0x")) << log.dump();
    unlink(fake.c_str());
    rmdir(plugins.c_str());
    rmdir(lib.c_str());
    rmdir(dir);
}

TEST(BusTelemetryRegistration, MissingOrWrongLibraryFails) {
    LogCapture log;
    char dir[] = "/tmp/wl_rasp_missing_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string lib = std::string(dir) + "/lib";
    const std::string plugins = std::string(dir) + "/agent_plugins";
    ASSERT_EQ(dirutils_mkdir(lib.c_str(), 0755), 0);
    ASSERT_EQ(dirutils_mkdir(plugins.c_str(), 0755), 0);
    dirutils_set_install_dir(lib.c_str());

    EXPECT_EQ(whitelist_init_rasp_handler(transmit_rasp_data, nullptr), -1);
    EXPECT_EQ(log.count("load liborv_rasp failed:"), 1) << log.dump();

    // The bus library stands in for a telemetry library without the entry.
    const std::string fake = plugins + "/liborv_rasp.50.so";
    ASSERT_EQ(symlink(WL_TEST_PLUGIN_DIR "/libtulmb.1.so", fake.c_str()), 0);
    for (int attempt = 1; attempt <= 2; ++attempt) {
        EXPECT_EQ(whitelist_init_rasp_handler(transmit_rasp_data, nullptr), -1);
        EXPECT_EQ(log.count("load tulmb symbol: orv_rasp_reg_tele_callback failed:"), attempt) << log.dump();
    }
    unlink(fake.c_str());
    rmdir(plugins.c_str());
    rmdir(lib.c_str());
    rmdir(dir);
}

}  // namespace
