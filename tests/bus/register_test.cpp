// Register::OnEvent, driven with counted events.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "bus_test_support.h"
#include "log_capture.h"
#include "orv_log.h"
#include "register.h"
#include "transformer.h"
#include "whitelist.h"
#include "whitelist_mb.h"

namespace {

class BusRegisterTest : public ::testing::Test {
protected:
    void SetUp() override { orv_event_init(&g_vr_event, 0, 1); }
    void TearDown() override {
        orv_event_destroy(g_vr_event);
        g_vr_event = nullptr;
    }

    // Delivers as the bus does: one reference for the subscriber, and other
    // bits in the upper six of the ID word.
    void deliver(CountedEvent& event) {
        if (event.GetNativeEvent() != nullptr) {
            event.GetNativeEvent()->event_id |= 0xfc00;
        }
        event.AddRef();
        Register::GetInstance()->OnEvent(&event, nullptr);
        EXPECT_EQ(event.count(), 0) << "every path releases the event exactly once";
    }

    QueueReset m_queues;
    LogCapture m_log;
};

// One counter of the module's, read from the text the agent shows.
unsigned long long counter(const std::string& name) {
    std::string json = Register::GetInstance()->countersJson();
    size_t at = json.find("\"" + name + "\":");
    return at == std::string::npos ? ~0ull : std::stoull(json.substr(at + name.size() + 3));
}

TEST_F(BusRegisterTest, QueueLimitOfBothQueues) {
    auto record = processRecord("PROCESS_CREATION", 42, "/bin/true");
    char text[] = "{}";
    for (unsigned int id : {19u, 20u}) {
        const std::string engine = id == 19 ? "rasp_" : "base_";
        const unsigned long long queued = counter(engine + "queued"), dropped = counter(engine + "dropped_full");
        // The 100th record is still taken; the 101st is dropped.
        for (std::size_t prefilled : {99u, 100u}) {
            orv_mutex_lock(&g_baseDataLock);
            g_baseData.resize(prefilled);
            orv_mutex_unlock(&g_baseDataLock);
            orv_mutex_lock(&g_raspDataLock);
            g_raspData.resize(prefilled, "{}");
            orv_mutex_unlock(&g_raspDataLock);
            CountedEvent event(id, id == 19 ? static_cast<void*>(text) : record.data(), ACTION_PROCESS_CREATION);
            deliver(event);
            EXPECT_EQ(id == 19 ? raspQueued() : baseQueued(), 100u) << id << " after " << prefilled;
        }
        // The drop is silent in the log but counted, and the depth shows.
        EXPECT_EQ(counter(engine + "queued"), queued + 1) << id;
        EXPECT_EQ(counter(engine + "dropped_full"), dropped + 1) << id;
        EXPECT_EQ(counter(engine + "depth"), 100u) << id;
    }
    char small[8];
    int needed = whitelist_counters_json(small, sizeof small);
    std::vector<char> whole(static_cast<size_t>(needed));
    EXPECT_EQ(whitelist_counters_json(whole.data(), needed), needed - 1);
    EXPECT_EQ(std::string(whole.data()), Register::GetInstance()->countersJson());
}

TEST_F(BusRegisterTest, UnknownActionTypesQueueAClearedRecord) {
    auto process = processRecord("PROCESS_CREATION", 7, "/bin/sh");
    // The type after process creation is inside the mask range but in no mask;
    // the two around the range are outside.
    for (int sub_type : {ACTION_PROCESS_CREATION + 1, kFirstRoutedActionType - 1, kLastRoutedActionType + 1}) {
        QueueReset::clear();
        m_log.clear();
        CountedEvent event(20, process.data(), sub_type);
        deliver(event);
        ASSERT_EQ(baseQueued(), 1u) << sub_type;
        const _BASE_EVENTINFO record = baseRecords().back();
        const _BASE_EVENTINFO zero{};
        EXPECT_EQ(std::memcmp(&record, &zero, sizeof(zero)), 0) << sub_type;
        EXPECT_EQ(m_log.count("Unknown event ID. event ID:20!", LOG_LVL_INFO), 1) << sub_type << m_log.dump();
    }
}

enum class Conversion { File, Process, Net, None };

// One record that every conversion accepts, with text everywhere, so that the
// three conversions give three different results. The network record's name
// starts 4 bytes later: "dns" for the others, "DNS_QUERY" for it.
std::vector<unsigned char> recordForAnyConversion() {
    std::vector<unsigned char> bytes(kNativeRecordMaxSize, 0);
    const std::size_t textStart = offsetof(net_event_info, event_time) + sizeof(uint64_t);
    for (std::size_t i = textStart; i < bytes.size(); ++i) {
        bytes[i] = static_cast<unsigned char>('a' + i % 23);
    }
    std::memcpy(bytes.data() + offsetof(process_event_info, event_name), "dns", 4);
    std::memcpy(bytes.data() + offsetof(net_event_info, event_name), "DNS_QUERY", 10);
    return bytes;
}

_BASE_EVENTINFO converted(Conversion conversion, const std::vector<unsigned char>& bytes) {
    _BASE_EVENTINFO event{};
    Transformer transformer;
    const void* data = bytes.data();
    switch (conversion) {
        case Conversion::File: transformer.TransformFileMsg(*static_cast<const file_event_info*>(data), event); break;
        case Conversion::Process:
            transformer.TransformProcessMsg(*static_cast<const process_event_info*>(data), event);
            break;
        case Conversion::Net: transformer.TransformNetEvent(*static_cast<const net_event_info*>(data), event); break;
        case Conversion::None: break;
    }
    return event;
}

TEST_F(BusRegisterTest, EveryActionTypeTakesItsMasksConversion) {
    std::map<int, Conversion> expected;
    for (int sub_type : {ACTION_FILE_CREATION, ACTION_FILE_MODIFICATION, ACTION_FILE_DELETION, ACTION_FILE_RENAMING}) {
        expected[sub_type] = Conversion::File;
    }
    // The types after time modification are file records up to the end of the range.
    for (int sub_type = ACTION_FILE_TIME_MODIFICATION; sub_type <= kLastRoutedActionType; ++sub_type) {
        expected[sub_type] = Conversion::File;
    }
    expected[ACTION_PROCESS_CREATION] = Conversion::Process;
    for (int sub_type : {ACTION_NETWORK_CONNECTION, ACTION_DNS_QUERY, ACTION_PORT_LISTENING}) {
        expected[sub_type] = Conversion::Net;
    }

    const std::vector<unsigned char> bytes = recordForAnyConversion();
    std::map<Conversion, _BASE_EVENTINFO> results;
    for (Conversion c : {Conversion::File, Conversion::Process, Conversion::Net, Conversion::None}) {
        results[c] = converted(c, bytes);
    }
    for (Conversion a : {Conversion::File, Conversion::Process, Conversion::Net}) {
        for (Conversion b : {Conversion::File, Conversion::Process, Conversion::Net, Conversion::None}) {
            ASSERT_TRUE(a == b || std::memcmp(&results[a], &results[b], sizeof(_BASE_EVENTINFO)) != 0)
                << "the record must tell the conversions apart " << static_cast<int>(a) << static_cast<int>(b);
        }
    }

    for (int sub_type :
         {0, -1, 1, 1000, kFirstRoutedActionType - 1, kLastRoutedActionType + 1, kFirstRoutedActionType + 63, 2048}) {
        expected[sub_type] = Conversion::None;
    }
    for (int sub_type = kFirstRoutedActionType; sub_type <= kLastRoutedActionType; ++sub_type) {
        expected.emplace(sub_type, Conversion::None);
    }
    for (const auto& [sub_type, conversion] : expected) {
        QueueReset::clear();
        m_log.clear();
        std::vector<unsigned char> data = bytes;
        CountedEvent event(20, data.data(), sub_type);
        deliver(event);
        ASSERT_EQ(baseQueued(), 1u) << sub_type;
        const _BASE_EVENTINFO record = baseRecords().back();
        EXPECT_EQ(std::memcmp(&record, &results[conversion], sizeof(record)), 0)
            << sub_type << " expected conversion " << static_cast<int>(conversion);
        EXPECT_EQ(m_log.count("Unknown event ID. event ID:20!", LOG_LVL_INFO), conversion == Conversion::None ? 1 : 0)
            << sub_type << m_log.dump();
    }
}

TEST_F(BusRegisterTest, TelemetryEventWithoutTextQueuesNothing) {
    CountedEvent event(19, nullptr, 0);
    deliver(event);
    EXPECT_EQ(raspQueued() + baseQueued(), 0u);
    EXPECT_TRUE(m_log.lines().empty()) << m_log.dump();
}

TEST_F(BusRegisterTest, UnsubscribedIdIsRefused) {
    auto process = processRecord("PROCESS_CREATION", 7, "/bin/sh");
    CountedEvent event(21, process.data(), ACTION_PROCESS_CREATION);
    deliver(event);
    EXPECT_EQ(baseQueued() + raspQueued(), 0u);
    EXPECT_EQ(m_log.count("Base don't support the type!", LOG_LVL_ERROR), 1) << m_log.dump();
}

TEST_F(BusRegisterTest, CollectorOfflineWakesTheWorkThreadUnlessTheRecordIsMissing) {
    for (unsigned int id : {1022u, 19u, 20u}) {
        CountedEvent event(id, nullptr, 0, false);
        deliver(event);
    }
    EXPECT_NE(orv_event_timedwait(g_vr_event, 0, 0), 0) << "the record check comes before the wake-up";
    EXPECT_EQ(baseQueued() + raspQueued(), 0u);

    CountedEvent offline(1022, nullptr, 0);
    deliver(offline);
    EXPECT_EQ(orv_event_timedwait(g_vr_event, 0, 0), 0);
    EXPECT_EQ(baseQueued(), 0u);
}

}  // namespace
