// An event from the queue through the filter and the library to its fate,
// and the host delay list with its clock.
#include <cwchar>

#include "base.h"
#include "engine_test_env.h"
#include "log_capture.h"
#include "rasp.h"
#include "recorders.h"
#include "whitelist_upload.h"

using fake_model::Engine;
using fake_model::Library;
using fake_model::Verdict;

namespace {

const Verdict kEnds{0, 2, 1, "FILTER_PEROID"};  // not black, not to be delayed again
const Verdict kDelay{0, 1, 1, "FILTER_PEROID"};

// Queues a marker that ends quietly and waits until the library saw it:
// everything queued before it has then been decided.
void drain(Engine engine, int processedBefore) {
    Library::instance().queueVerdict(engine, kEnds);
    engine == Engine::Base ? queue_base_event(*baseRecord(6, 999999)) : queue_rasp_text("marker");
    ASSERT_TRUE(wait_calls(engine, "processEvent", processedBefore + 1));
}

std::vector<std::string> processed_tags(Engine engine) {
    std::vector<std::string> tags;
    for (const fake_model::Call& call : Library::instance().calls(engine, "processEvent")) {
        tags.push_back(call.eventTag);
    }
    return tags;
}

}  // namespace

struct Outcome {
    const char* name;
    Engine engine;
    int eventType;
    Verdict verdict;
    bool originLog;
    bool alarm;
    bool delayed;
};

class OutcomeTest : public EngineTest, public ::testing::WithParamInterface<Outcome> {};

TEST_P(OutcomeTest, DecidesFromTheLibraryVerdict) {
    const Outcome& c = GetParam();
    const bool base = c.engine == Engine::Base;
    LogCapture log;
    ASSERT_TRUE(initialize(c.engine));
    Library::instance().setDefaultText(c.engine, "getBlackLog", "{\"black\":7}");
    if (c.verdict.match_verdict >= 0) {
        Library::instance().queueVerdict(c.engine, c.verdict);
    }
    base ? queue_base_event(*baseRecord(c.eventType, 1)) : queue_rasp_text("{\"app\":1}");
    drain(c.engine, 1);

    std::vector<fake_model::Call> saved = Library::instance().calls(c.engine, "saveOriginLog");
    ASSERT_EQ(c.originLog ? 1u : 0u, saved.size());
    if (c.originLog) {
        EXPECT_EQ(base ? BaseEngine::GetInstance()->m_logSavePath : RaspEngine::GetInstance()->m_logSavePath,
                  saved[0].text);
    }
    std::vector<module_fakes::ReportUpload> alarms =
        module_fakes::uploads(base ? WL_REPORT_ALARM : WL_REPORT_RASP_ALARM);
    ASSERT_EQ(c.alarm ? 1u : 0u, alarms.size());
    if (c.alarm) {
        EXPECT_EQ("{\"black\":7}", alarms[0].text);
        EXPECT_EQ(1, Library::instance().calls(c.engine, "getBlackLog")[0].first);
    }
    EXPECT_EQ(c.alarm, log.contains("BlackLog : {\"black\":7}", 3));
    EXPECT_EQ(c.delayed ? 1u : 0u, base_delay_size());
    EXPECT_EQ(alarms.size(), module_fakes::uploads().size()) << "only alarms may be uploaded by the worker";
}

INSTANTIATE_TEST_SUITE_P(
    Rules, OutcomeTest,
    ::testing::Values(
        Outcome{"OriginLogWhileLearning", Engine::Base, 6, {1, 0, 0, "LEARN_PEROID"}, true, false, false},
        Outcome{
            "OriginFlagOutsideLearningFallsToAlarm", Engine::Base, 6, {1, 0, 0, "FILTER_PEROID"}, false, true, false},
        Outcome{"AllZeroResultIsBlack", Engine::Base, 6, {0, 0, 0, ""}, false, true, false},
        Outcome{"AlarmWhileLearningWithoutOriginFlag", Engine::Base, 6, {0, 0, 0, "LEARN_PEROID"}, false, true, false},
        Outcome{"UndecidedInFilterPeriodIsDelayed", Engine::Base, 6, kDelay, false, false, true},
        Outcome{"ProcessCreationIsNeverDelayed", Engine::Base, 1, {0, 0, 1, "FILTER_PEROID"}, false, false, false},
        Outcome{"PeriodIsComparedExactly", Engine::Base, 6, {0, 0, 1, "FILTER_PEROID "}, false, false, false},
        Outcome{"RaspOriginLogWhileLearning", Engine::Rasp, 0, {1, 0, 0, "LEARN_PEROID"}, true, false, false},
        Outcome{"RaspBlackWithFlagOutsideLearning", Engine::Rasp, 0, {1, 0, 0, "OTHER"}, false, true, false},
        Outcome{
            "RaspAlarmWhileLearningWithoutOriginFlag", Engine::Rasp, 0, {0, 0, 0, "LEARN_PEROID"}, false, true, false},
        Outcome{"RaspNotBlackEnds", Engine::Rasp, 0, {0, 0, 1, "FILTER_PEROID"}, false, false, false},
        // The library writes nothing: the record's own starting verdict decides.
        Outcome{"RaspUntouchedRecordEnds", Engine::Rasp, 0, {0, 0, -1, ""}, false, false, false}),
    [](const ::testing::TestParamInfo<Outcome>& info) { return std::string(info.param.name); });

TEST_F(EngineTest, EventsLeaveTheQueueInOrderAndLocalConnectionsNeverReachTheLibrary) {
    ASSERT_TRUE(initialize(Engine::Base));
    Library::instance().setDefaultVerdict(Engine::Base, kEnds);
    for (unsigned long long tag = 1; tag <= 4; ++tag) {
        _BASE_EVENTINFO event = *baseRecord(15, tag);
        const wchar_t* ip = tag == 2 ? L"127.0.0.1" : L"10.1.2.3";
        wmemcpy(event.detail.connect.dst_ip, ip, wcslen(ip));
        queue_base_event(event);
    }
    drain(Engine::Base, 3);
    EXPECT_EQ((std::vector<std::string>{"1", "3", "4", "999999"}), processed_tags(Engine::Base));
}

// The text is converted on the worker, then filtered: what the library sees
// are its fields; a look-up of a local address and nothing else is dropped.
TEST_F(EngineTest, TelemetryFieldsReachTheLibraryAndLocalAddressesDoNot) {
    LogCapture log;
    ASSERT_TRUE(initialize(Engine::Rasp));
    Library::instance().setDefaultVerdict(Engine::Rasp, kEnds);
    queue_rasp_text(telemetryLine(R"("url":"/read")", R"({"type":"file","action":"read","data":"/etc/hosts"})"));
    const std::string local =
        telemetryLine(R"("url":"/local")", R"({"action":"address","data":{"hostName":"127.0.0.1"}})");
    queue_rasp_text(local);
    queue_rasp_text(telemetryLine(R"("url":"/remote")", R"({"action":"address","data":{"hostName":"db.example"}})"));
    queue_rasp_text("no json");
    drain(Engine::Rasp, 3);
    std::vector<std::pair<std::string, int>> seen;
    for (const fake_model::Call& call : Library::instance().calls(Engine::Rasp, "processEvent")) {
        seen.emplace_back(call.eventTag, call.eventType);
        EXPECT_EQ("FILTER_PEROID", call.modelStatus) << call.eventTag;
    }
    EXPECT_EQ((std::vector<std::pair<std::string, int>>{{"/read", 4}, {"/remote", 1}, {"", 0}, {"", 0}}), seen);
    EXPECT_TRUE(log.contains("match local Ip success, event has been filter, dstIp: 127.0.0.1", 3));
    EXPECT_TRUE(log.contains("originLog : no json", 4));
    EXPECT_FALSE(log.contains("originLog : " + local)) << "logged only once past the filter";
}

class DelayCycleTest : public EngineTest, public ::testing::WithParamInterface<std::pair<Verdict, bool>> {};

TEST_P(DelayCycleTest, CycleEndsExactlyWhenTheLibraryEndsIt) {
    ASSERT_TRUE(initialize(Engine::Base));
    const time_t t0 = FakeClock::now();
    Library::instance().queueVerdict(Engine::Base, kDelay);
    Library::instance().queueVerdict(Engine::Base, {0, 0, 1, "FILTER_PEROID"});
    Library::instance().queueVerdict(Engine::Base, GetParam().first);
    queue_base_event(*baseRecord(8, 1));
    for (int round = 1; round <= 2; ++round) {
        ASSERT_TRUE(waitUntil([] { return base_delay_size() == 1; })) << "round " << round;
        FakeClock::setTime(t0 + round);
        ASSERT_TRUE(wait_calls(Engine::Base, "processEvent", round + 1));
    }
    drain(Engine::Base, 3);
    std::vector<fake_model::Call> seen = Library::instance().calls(Engine::Base, "processEvent");
    ASSERT_EQ(4u, seen.size());
    // A returning record carries what the library wrote at its last pass.
    EXPECT_EQ(1, seen[1].delayGate);
    EXPECT_EQ("FILTER_PEROID", seen[1].modelStatus);
    EXPECT_EQ(0, seen[2].delayGate);
    EXPECT_EQ("1", seen[2].eventTag);
    EXPECT_EQ(0u, base_delay_size());
    EXPECT_EQ(GetParam().second ? 1u : 0u, module_fakes::uploads(WL_REPORT_ALARM).size());
}

// Gate 2, black, period changed.
INSTANTIATE_TEST_SUITE_P(Ends, DelayCycleTest,
                         ::testing::Values(std::make_pair(kEnds, false),
                                           std::make_pair(Verdict{0, 0, 0, "FILTER_PEROID"}, true),
                                           std::make_pair(Verdict{0, 0, 1, "LEARN_PEROID"}, false)));

// Holds a record on the delay list at t0, then moves the clock through the
// given values; after several delay passes at each, the record must still be
// held, except at the last.
TEST_F(EngineTest, DelayedRecordReturnsOnTheNextSecondOrWhenTheClockJumpsFarBack) {
    const std::vector<std::vector<int>> walks = {{0, 1}, {-5, -1, 0, 1}, {-11}};
    for (const std::vector<int>& walk : walks) {
        Library::instance().reset();
        FakeClock::install();
        ASSERT_TRUE(initialize(Engine::Base));
        const time_t t0 = FakeClock::now();
        Library::instance().queueVerdict(Engine::Base, kDelay);
        Library::instance().setDefaultVerdict(Engine::Base, kEnds);
        queue_base_event(*baseRecord(9, 1));
        ASSERT_TRUE(waitUntil([] { return base_delay_size() == 1; }));
        for (size_t i = 0; i < walk.size(); ++i) {
            FakeClock::setTime(t0 + walk[i]);
            int passes = FakeClock::usleepsOf("base_work_delay");
            EXPECT_TRUE(waitUntil([&] { return FakeClock::usleepsOf("base_work_delay") >= passes + 5; }));
            EXPECT_EQ(i + 1 < walk.size(), base_delay_size() == 1) << "offset " << walk[i];
        }
        EXPECT_TRUE(wait_calls(Engine::Base, "processEvent", 2));
        BaseEngine::GetInstance()->Uninitialize();
    }
}
