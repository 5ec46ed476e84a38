// A host event from the queue through the filter and the library to its
// fate, the delay list and its clock, and the telemetry path.
#include <cstring>
#include <cwchar>

#include "base.h"
#include "engine_test_env.h"
#include "event_queues.h"
#include "log_capture.h"
#include "rasp.h"
#include "recorders.h"
#include "whitelist_upload.h"

using fake_model::Engine;
using fake_model::Library;
using fake_model::Verdict;

namespace {

const Verdict kEnds{0, 2, 1, "FILTER_PEROID"};  // not black, not to be delayed again

// Queues a marker event that ends quietly and waits until the library saw it:
// everything queued before it has then been decided.
void drain_base(int processedBefore) {
    Library::instance().queueVerdict(Engine::Base, kEnds);
    queue_base_event(make_base_event(6, 999999));
    ASSERT_TRUE(Library::instance().waitForCount(Engine::Base, "processEvent", processedBefore + 1));
}

void drain_rasp(int processedBefore) {
    Library::instance().queueVerdict(Engine::Rasp, {0, 0, 2, "FILTER_PEROID"});
    queue_rasp_text("marker");
    ASSERT_TRUE(Library::instance().waitForCount(Engine::Rasp, "processEvent", processedBefore + 1));
}

}  // namespace

struct HostOutcome {
    const char* name;
    int eventType;
    Verdict verdict;
    bool originLog;
    bool alarm;
    bool delayed;
};

class HostOutcomeTest : public EngineTest, public ::testing::WithParamInterface<HostOutcome> {};

TEST_P(HostOutcomeTest, DecidesFromTheLibraryVerdict) {
    const HostOutcome& c = GetParam();
    LogCapture log;
    startBase();
    Library::instance().setDefaultText(Engine::Base, "getBlackLog", "{\"black\":7}");
    Library::instance().queueVerdict(Engine::Base, c.verdict);
    queue_base_event(make_base_event(c.eventType, 1));
    drain_base(1);

    std::vector<fake_model::Call> saved = Library::instance().calls(Engine::Base, "saveOriginLog");
    ASSERT_EQ(c.originLog ? 1u : 0u, saved.size());
    if (c.originLog) {
        EXPECT_EQ(BaseEngine::GetInstance()->m_logSavePath, saved[0].text);
        EXPECT_EQ("1", saved[0].eventTag);
    }
    std::vector<recorders::Upload> alarms = recorders::uploadsOfType(WL_REPORT_ALARM);
    ASSERT_EQ(c.alarm ? 1u : 0u, alarms.size());
    if (c.alarm) {
        EXPECT_EQ("{\"black\":7}", alarms[0].text);
        std::vector<fake_model::Call> black = Library::instance().calls(Engine::Base, "getBlackLog");
        ASSERT_EQ(1u, black.size());
        EXPECT_EQ(1, black[0].first);
        EXPECT_TRUE(log.contains("BlackLog : {\"black\":7}", 3));
    }
    EXPECT_EQ(c.delayed ? 1u : 0u, base_delay_size());
    EXPECT_EQ(alarms.size(), recorders::uploads().size()) << "only alarms may be uploaded by the worker";
}

INSTANTIATE_TEST_SUITE_P(
    Rules, HostOutcomeTest,
    ::testing::Values(HostOutcome{"OriginLogWhileLearning", 6, {1, 0, 0, "LEARN_PEROID"}, true, false, false},
                      HostOutcome{"OriginFlagOutsideLearningFallsToAlarm", 6, {1, 0, 0, "FILTER_PEROID"}, false, true, false},
                      HostOutcome{"BlackWhileLearning", 15, {0, 0, 0, "LEARN_PEROID"}, false, true, false},
                      HostOutcome{"AllZeroResultIsBlack", 6, {0, 0, 0, ""}, false, true, false},
                      HostOutcome{"UndecidedInFilterPeriodIsDelayed", 6, {0, 1, 1, "FILTER_PEROID"}, false, false, true},
                      HostOutcome{"GateTwoEnds", 6, {0, 2, 1, "FILTER_PEROID"}, false, false, false},
                      HostOutcome{"ProcessCreationIsNeverDelayed", 1, {0, 0, 1, "FILTER_PEROID"}, false, false, false},
                      HostOutcome{"OtherPeriodEnds", 6, {0, 0, 1, "SOME_PEROID"}, false, false, false},
                      HostOutcome{"PeriodIsComparedExactly", 6, {0, 0, 1, "FILTER_PEROID "}, false, false, false}),
    [](const ::testing::TestParamInfo<HostOutcome>& info) { return std::string(info.param.name); });

TEST_F(EngineTest, OriginLogEventWithoutPathIsDroppedWithError) {
    LogCapture log;
    startBase();
    BaseEngine* engine = BaseEngine::GetInstance();
    _BASE_EVENTINFO event = make_base_event(6, 5);
    event.origin_log_flag = 1;
    fake_model::set_status(event, "LEARN_PEROID");
    std::string saved = engine->m_logSavePath;
    orv_mutex_lock(&engine->m_engineLock);
    engine->m_logSavePath.clear();
    EXPECT_FALSE(engine->isNeedSendReport(event));
    engine->m_logSavePath = saved;
    EXPECT_TRUE(engine->isNeedSendReport(event));
    orv_mutex_unlock(&engine->m_engineLock);
    EXPECT_TRUE(log.contains("get log savePath error", 1));
    EXPECT_EQ(1, Library::instance().count(Engine::Base, "saveOriginLog"));
}

TEST_F(EngineTest, ConnectionToALocalAddressNeverReachesTheLibrary) {
    startBase();
    _BASE_EVENTINFO event = make_base_event(15, 1);
    const wchar_t* loopback = L"127.0.0.1";
    wmemcpy(event.detail.connect.dst_ip, loopback, wcslen(loopback));
    queue_base_event(event);
    drain_base(0);
    std::vector<fake_model::Call> seen = Library::instance().calls(Engine::Base, "processEvent");
    ASSERT_EQ(1u, seen.size());
    EXPECT_EQ("999999", seen[0].eventTag);
}

TEST_F(EngineTest, EventsLeaveTheQueueInOrderOnePerPass) {
    startBase();
    Library::instance().setDefaultVerdict(Engine::Base, kEnds);
    for (unsigned long long tag = 1; tag <= 5; ++tag) {
        queue_base_event(make_base_event(7, tag));
    }
    ASSERT_TRUE(Library::instance().waitForCount(Engine::Base, "processEvent", 5));
    std::vector<fake_model::Call> seen = Library::instance().calls(Engine::Base, "processEvent");
    for (size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(std::to_string(i + 1), seen[i].eventTag);
    }
    EXPECT_GE(FakeClock::usleepsOf("base_work"), 5);
}

struct DelayEnd {
    const char* name;
    Verdict second;
    bool alarm;
};

class DelayCycleTest : public EngineTest, public ::testing::WithParamInterface<DelayEnd> {};

TEST_P(DelayCycleTest, CycleEndsExactlyWhenTheLibraryEndsIt) {
    const DelayEnd& c = GetParam();
    startBase();
    const time_t t0 = FakeClock::now();
    Library::instance().queueVerdict(Engine::Base, {0, 1, 1, "FILTER_PEROID"});
    Library::instance().queueVerdict(Engine::Base, {0, 0, 1, "FILTER_PEROID"});
    Library::instance().queueVerdict(Engine::Base, c.second);
    queue_base_event(make_base_event(8, 1));

    for (int round = 1; round <= 2; ++round) {
        ASSERT_TRUE(waitUntil([] { return base_delay_size() == 1; })) << "round " << round;
        FakeClock::setTime(t0 + round);
        ASSERT_TRUE(Library::instance().waitForCount(Engine::Base, "processEvent", round + 1));
    }
    drain_base(3);
    std::vector<fake_model::Call> seen = Library::instance().calls(Engine::Base, "processEvent");
    ASSERT_EQ(4u, seen.size());
    // A returning record carries what the library wrote at its last pass.
    EXPECT_EQ(1, seen[1].delayGate);
    EXPECT_EQ("FILTER_PEROID", seen[1].modelStatus);
    EXPECT_EQ(0, seen[2].delayGate);
    EXPECT_EQ("1", seen[2].eventTag);
    EXPECT_EQ(0u, base_delay_size());
    EXPECT_EQ(c.alarm ? 1u : 0u, recorders::uploadsOfType(WL_REPORT_ALARM).size());
}

INSTANTIATE_TEST_SUITE_P(Ends, DelayCycleTest,
                         ::testing::Values(DelayEnd{"GateTwo", {0, 2, 1, "FILTER_PEROID"}, false},
                                           DelayEnd{"Black", {0, 0, 0, "FILTER_PEROID"}, true},
                                           DelayEnd{"PeriodChanged", {0, 0, 1, "LEARN_PEROID"}, false}),
                         [](const ::testing::TestParamInfo<DelayEnd>& info) { return std::string(info.param.name); });

// Holds a record on the delay list at t0 and reports whether it is still
// there after the delay thread ran several passes at clock value `at`.
class DelayClockTest : public EngineTest {
protected:
    void delayOne() {
        startBase();
        m_t0 = FakeClock::now();
        Library::instance().queueVerdict(Engine::Base, {0, 1, 1, "FILTER_PEROID"});
        Library::instance().setDefaultVerdict(Engine::Base, kEnds);
        queue_base_event(make_base_event(9, 1));
        ASSERT_TRUE(waitUntil([] { return base_delay_size() == 1; }));
    }
    bool heldAt(time_t at) {
        FakeClock::setTime(at);
        int passes = FakeClock::usleepsOf("base_work_delay");
        EXPECT_TRUE(FakeClock::waitUsleepsOf("base_work_delay", passes + 5));
        return base_delay_size() == 1;
    }
    time_t m_t0 = 0;
};

TEST_F(DelayClockTest, ReleasedOnTheNextSecondNotBefore) {
    delayOne();
    EXPECT_TRUE(heldAt(m_t0));
    EXPECT_FALSE(heldAt(m_t0 + 1));
    EXPECT_TRUE(Library::instance().waitForCount(Engine::Base, "processEvent", 2));
}

TEST_F(DelayClockTest, ClockSetBackFiveSecondsHoldsUntilThePastSecondReturns) {
    delayOne();
    EXPECT_TRUE(heldAt(m_t0 - 5));
    EXPECT_TRUE(heldAt(m_t0 - 1));
    EXPECT_TRUE(heldAt(m_t0));
    EXPECT_FALSE(heldAt(m_t0 + 1));
}

TEST_F(DelayClockTest, ClockSetBackElevenSecondsReleasesAtOnce) {
    delayOne();
    EXPECT_FALSE(heldAt(m_t0 - 11));
}

TEST_F(DelayClockTest, ReturningRecordIgnoresTheQueueBound) {
    delayOne();
    // Stop the worker from draining while the queue is full.
    BaseEngine* engine = BaseEngine::GetInstance();
    orv_mutex_lock(&engine->m_engineLock);
    for (size_t i = 0; i < kEventQueueLimit; ++i) {
        queue_base_event(make_base_event(7, 100 + i));
    }
    FakeClock::setTime(m_t0 + 1);
    bool moved = waitUntil([] { return base_delay_size() == 0; });
    size_t queued = base_queue_size();
    orv_mutex_unlock(&engine->m_engineLock);
    EXPECT_TRUE(moved);
    // The worker may have taken one record out before it blocked on the lock.
    EXPECT_GE(queued, kEventQueueLimit);
}

struct RaspOutcome {
    const char* name;
    Verdict verdict;
    bool originLog;
    bool alarm;
};

class RaspOutcomeTest : public EngineTest, public ::testing::WithParamInterface<RaspOutcome> {};

TEST_P(RaspOutcomeTest, DecidesFromTheLibraryVerdict) {
    const RaspOutcome& c = GetParam();
    startRasp();
    Library::instance().setDefaultText(Engine::Rasp, "getBlackLog", "{\"rasp\":1}");
    Library::instance().queueVerdict(Engine::Rasp, c.verdict);
    queue_rasp_text("{\"app\":1}");
    drain_rasp(1);
    std::vector<fake_model::Call> saved = Library::instance().calls(Engine::Rasp, "saveOriginLog");
    ASSERT_EQ(c.originLog ? 1u : 0u, saved.size());
    if (c.originLog) {
        EXPECT_EQ(RaspEngine::GetInstance()->m_logSavePath, saved[0].text);
    }
    std::vector<recorders::Upload> alarms = recorders::uploadsOfType(WL_REPORT_RASP_ALARM);
    ASSERT_EQ(c.alarm ? 1u : 0u, alarms.size());
    if (c.alarm) {
        EXPECT_EQ("{\"rasp\":1}", alarms[0].text);
    }
    EXPECT_EQ(alarms.size(), recorders::uploads().size());
}

INSTANTIATE_TEST_SUITE_P(
    Rules, RaspOutcomeTest,
    ::testing::Values(RaspOutcome{"OriginLogWhileLearning", {1, 0, 0, "LEARN_PEROID"}, true, false},
                      RaspOutcome{"BlackInAnyPeriod", {0, 0, 0, "FILTER_PEROID"}, false, true},
                      RaspOutcome{"BlackWithFlagOutsideLearning", {1, 0, 0, "OTHER"}, false, true},
                      RaspOutcome{"NotBlackEnds", {0, 0, 1, "FILTER_PEROID"}, false, false}),
    [](const ::testing::TestParamInfo<RaspOutcome>& info) { return std::string(info.param.name); });

TEST_F(EngineTest, TelemetryThatIsNoJsonStillReachesTheLibraryWithDefaults) {
    LogCapture log;
    startRasp();
    queue_rasp_text("not json at all");
    ASSERT_TRUE(Library::instance().waitForCount(Engine::Rasp, "processEvent", 1));
    fake_model::Call call = Library::instance().calls(Engine::Rasp, "processEvent")[0];
    EXPECT_EQ(2, call.matchVerdict);
    EXPECT_EQ("FILTER_PEROID", call.modelStatus);
    EXPECT_EQ(0, call.originLogFlag);
    EXPECT_TRUE(log.waitFor("originLog : not json at all", std::chrono::seconds(5), 4));
    drain_rasp(1);
    // A library that writes nothing leaves verdict 2: no report, no delay.
    EXPECT_TRUE(recorders::uploads().empty());
}

TEST_F(EngineTest, TelemetryToALocalAddressIsDroppedUnlogged) {
    LogCapture log;
    startRasp();
    queue_rasp_text(
        "{\"data\":{\"data\":{\"action\":\"address\",\"data\":{\"hostName\":\"127.0.0.1\","
        "\"url\":\"127.0.0.1\",\"port\":80}}}}");
    drain_rasp(0);
    int passes = FakeClock::usleepsOf("rasp_work");
    ASSERT_TRUE(FakeClock::waitUsleepsOf("rasp_work", passes + 3));
    EXPECT_EQ(1, Library::instance().count(Engine::Rasp, "processEvent"));
    EXPECT_FALSE(log.contains("originLog : {", 4)) << log.dump();
    EXPECT_TRUE(log.contains("match local Ip success, event has been filter, dstIp: 127.0.0.1", 3));
}
