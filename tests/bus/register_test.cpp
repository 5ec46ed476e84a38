// Register::OnEvent and the plug-in operations, driven with counted events.
#include <gtest/gtest.h>

#include "bus_test_support.h"
#include "log_capture.h"
#include "orv_log.h"
#include "register.h"
#include "whitelist.h"

namespace {

class BusRegisterTest : public ::testing::Test {
protected:
    void SetUp() override {
        orv_event_init(&g_vr_event, 0, 1);
    }
    void TearDown() override {
        orv_event_destroy(g_vr_event);
        g_vr_event = nullptr;
    }

    // Delivers as the bus does: one reference for the subscriber.
    void deliver(CountedEvent& event) {
        event.AddRef();
        Register::GetInstance()->OnEvent(&event, nullptr);
        EXPECT_EQ(event.count(), 0) << "every path releases the event exactly once";
    }

    void fillBase(std::size_t count) {
        orv_mutex_lock(&g_baseDataLock);
        for (std::size_t i = 0; i < count; ++i) {
            g_baseData.emplace_back();
        }
        orv_mutex_unlock(&g_baseDataLock);
    }
    void fillRasp(std::size_t count) {
        orv_mutex_lock(&g_raspDataLock);
        for (std::size_t i = 0; i < count; ++i) {
            g_raspData.emplace_back("{}");
        }
        orv_mutex_unlock(&g_raspDataLock);
    }

    QueueReset m_queues;
    LogCapture m_log;
};

TEST_F(BusRegisterTest, TelemetryTextIsQueued) {
    char text[] = "{\"a\":1}";
    CountedEvent event(19, text, 0);
    deliver(event);
    ASSERT_EQ(raspTexts(), std::vector<std::string>{"{\"a\":1}"});
    EXPECT_EQ(baseQueued(), 0u);
}

TEST_F(BusRegisterTest, TelemetryWithoutPayloadIsDropped) {
    CountedEvent event(19, nullptr, 0);
    deliver(event);
    EXPECT_EQ(raspQueued(), 0u);
}

TEST_F(BusRegisterTest, QueueLimitOfBothQueues) {
    struct Case {
        const char* name;
        unsigned int id;
        std::size_t prefilled;
        std::size_t after;
    } cases[] = {
        {"rasp, 98 queued", 19, 98, 99},
        {"rasp, 99 queued", 19, 99, 100},
        {"rasp, 100 queued", 19, 100, 100},
        {"base, 99 queued", 20, 99, 100},
        {"base, 100 queued", 20, 100, 100},
    };
    auto record = processRecord("PROCESS_CREATION", 42, "/bin/true");
    char text[] = "{}";
    for (const Case& c : cases) {
        QueueReset::clear();
        if (c.id == 19) {
            fillRasp(c.prefilled);
            CountedEvent event(19, text, 0);
            deliver(event);
            EXPECT_EQ(raspQueued(), c.after) << c.name;
        } else {
            fillBase(c.prefilled);
            CountedEvent event(20, record.data(), 1027);
            deliver(event);
            EXPECT_EQ(baseQueued(), c.after) << c.name;
        }
    }
    EXPECT_FALSE(m_log.contains("Unknown event ID")) << m_log.dump();
}

TEST_F(BusRegisterTest, ActionTypesSelectTheirConversion) {
    auto process = processRecord("PROCESS_CREATION", 4242, "/usr/bin/curl");
    auto file = fileRecord("FILE_DELETION", "/etc/passwd");
    auto net = netRecord("NETWORK_CONNECTION", "10.1.2.3", 8080);
    struct Case {
        int sub_type;
        void* data;
        uint16_t event_type;
    } cases[] = {
        {1027, process.data(), 1},
        {1026, file.data(), 8},
        {1044, file.data(), 8},
        {1057, file.data(), 8},
        {1029, net.data(), 15},
        {1031, net.data(), 15},
    };
    for (const Case& c : cases) {
        QueueReset::clear();
        CountedEvent event(20, c.data, c.sub_type);
        deliver(event);
        ASSERT_EQ(baseQueued(), 1u) << c.sub_type;
        const _BASE_EVENTINFO record = lastBaseRecord();
        EXPECT_EQ(record.event_type, c.event_type) << c.sub_type;
        if (c.event_type == 1) {
            EXPECT_EQ(record.detail.process.process_id, 4242u);
            EXPECT_EQ(narrow(record.detail.process.process_path), "/usr/bin/curl");
        } else if (c.event_type == 15) {
            EXPECT_EQ(narrow(record.detail.connect.dst_ip), "10.1.2.3");
        }
    }
    EXPECT_FALSE(m_log.contains("Unknown event ID")) << m_log.dump();
}

TEST_F(BusRegisterTest, UnknownActionTypesQueueAClearedRecord) {
    auto process = processRecord("PROCESS_CREATION", 7, "/bin/sh");
    // 1028 is inside the mask range but in no mask; 1025 and 1058 are outside.
    for (int sub_type : {1028, 1025, 1058, 0, -1}) {
        QueueReset::clear();
        m_log.clear();
        CountedEvent event(20, process.data(), sub_type);
        deliver(event);
        ASSERT_EQ(baseQueued(), 1u) << sub_type;
        const _BASE_EVENTINFO record = lastBaseRecord();
        const _BASE_EVENTINFO zero{};
        EXPECT_EQ(std::memcmp(&record, &zero, sizeof(zero)), 0) << sub_type;
        EXPECT_EQ(m_log.count("Unknown event ID. event ID:20!", LOG_LVL_INFO), 1) << sub_type << m_log.dump();
    }
}

TEST_F(BusRegisterTest, UnsubscribedIdIsRefused) {
    auto process = processRecord("PROCESS_CREATION", 7, "/bin/sh");
    CountedEvent event(21, process.data(), 1027);
    deliver(event);
    EXPECT_EQ(baseQueued(), 0u);
    EXPECT_EQ(raspQueued(), 0u);
    EXPECT_EQ(m_log.count("Base don't support the type!", LOG_LVL_ERROR), 1) << m_log.dump();
}

TEST_F(BusRegisterTest, CollectorOfflineWakesTheWorkThread) {
    CountedEvent event(1022, nullptr, 0);
    deliver(event);
    EXPECT_EQ(orv_event_timedwait(g_vr_event, 0, 0), 0);
    EXPECT_EQ(baseQueued(), 0u);
}

TEST_F(BusRegisterTest, EventWithoutNativeRecordIsOnlyReleased) {
    for (unsigned int id : {1022u, 19u, 20u}) {
        CountedEvent event(id, nullptr, 0, false, false);
        deliver(event);
    }
    EXPECT_NE(orv_event_timedwait(g_vr_event, 0, 0), 0) << "step 2 comes before the wake-up";
    EXPECT_EQ(baseQueued(), 0u);
    EXPECT_EQ(raspQueued(), 0u);
}

TEST_F(BusRegisterTest, UpperBitsOfTheWordDoNotChangeTheId) {
    char text[] = "{\"k\":2}";
    CountedEvent event(19, text, 0);
    event.GetNativeEvent()->event_id |= 0xfc00;
    deliver(event);
    EXPECT_EQ(raspQueued(), 1u);
}

class FailingSetting : public MbFrame::IPluginSetting {
public:
    explicit FailingSetting(int result) : m_result(result) {}
    int GetPluginID(unsigned char (*)[16]) const override { return 0; }
    int UnregisterEvents(const event_subscription*, unsigned int) override { return 0; }
    int RegisterEvents(const event_subscription* table, unsigned int count) override {
        m_table = table;
        m_count = count;
        return m_result;
    }
    const event_subscription* m_table = nullptr;
    unsigned int m_count = 0;

private:
    int m_result;
};

TEST_F(BusRegisterTest, AdvisedRegistersItsEventsAndAlwaysReportsSuccess) {
    for (int result : {0, -5}) {
        m_log.clear();
        FailingSetting setting(result);
        Register::GetInstance()->OnAdvised(&setting, nullptr);
        EXPECT_EQ(setting.m_table, b_RegisterEvent);
        EXPECT_EQ(setting.m_count, 3u);
        EXPECT_EQ(m_log.count("regist event failed -5", LOG_LVL_WARN), result != 0 ? 1 : 0) << m_log.dump();
        EXPECT_EQ(m_log.count("regist event succeed", LOG_LVL_INFO), 1) << m_log.dump();
    }
    Register::GetInstance()->OnUnadvised(UNADVISE_BY_PLUGIN);
    EXPECT_TRUE(m_log.contains("OnUnadvised succeed", LOG_LVL_INFO));
}

}  // namespace
