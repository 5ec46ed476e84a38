// Which locks each library call runs under, and how much one pass of a
// worker or of the delay thread may do. A probe in the fake library asks,
// from another thread, whether the engine lock and the queue lock are taken.
#include <set>

#include "base.h"
#include "engine_test_env.h"
#include "event_queues.h"
#include "log_capture.h"
#include "rasp.h"
#include "recorders.h"

using fake_model::Call;
using fake_model::Engine;
using fake_model::Library;
using fake_model::Verdict;

namespace {

enum { kEngineLock = 1, kQueueLock = 2 };

orv_mutex_t* engine_lock(Engine engine) {
    return engine == Engine::Base ? &BaseEngine::GetInstance()->m_engineLock : &RaspEngine::GetInstance()->m_engineLock;
}

void probe_locks(Engine engine) {
    orv_mutex_t queue = engine == Engine::Base ? g_baseDataLock : g_raspDataLock;
    Library::instance().setLockProbe(engine, [engine, queue] {
        return (held_elsewhere(*engine_lock(engine)) ? kEngineLock : 0) | (held_elsewhere(queue) ? kQueueLock : 0);
    });
}

const char* worker_of(Engine engine) { return engine == Engine::Base ? "base_work" : "rasp_work"; }

void queue_event(Engine engine, unsigned long long tag) {
    engine == Engine::Base ? queue_base_event(*baseRecord(6, tag)) : queue_rasp_text("event" + std::to_string(tag));
}

class LockTest : public EngineTest, public ::testing::WithParamInterface<Engine> {
protected:
    void TearDown() override {
        Library::instance().setLockProbe(GetParam(), nullptr);
        EngineTest::TearDown();
    }
};

}  // namespace

TEST_P(LockTest, FirstStatusCallRunsWithoutTheEngineLock) {
    const Engine engine = GetParam();
    FakeClock::gate(true);
    orv_mutex_lock(engine_lock(engine));
    bool started = initialize(engine);
    bool asked = wait_calls(engine, "getModelStatus", 1);
    orv_mutex_unlock(engine_lock(engine));
    EXPECT_TRUE(started);
    EXPECT_TRUE(asked);
}

// The probe sees a lock taken by any thread, so only the calling thread may run:
// the others wait in their sleeps, which they enter holding no lock.
TEST_P(LockTest, EveryOtherLibraryCallHoldsTheEngineLockAndNoQueueLock) {
    const Engine engine = GetParam();
    const bool base = engine == Engine::Base;
    const char* worker = worker_of(engine);
    FakeClock::gate(true);
    FakeClock::holdThread(worker, true);
    FakeClock::holdThread("base_work_delay", true);
    probe_locks(engine);
    ASSERT_TRUE(initialize(engine));
    ASSERT_TRUE(wait_calls(engine, "getModelStatus", 1));
    ASSERT_TRUE(waitUntil([&] { return FakeClock::sleepsEntered() >= 1 && FakeClock::usleepsOf(worker) >= 1; }));
    EXPECT_EQ(0, Library::instance().calls(engine, "getModelStatus")[0].locks & kEngineLock);
    Library::instance().reset();

    // Worker: an origin-log event, a black one, one that ends.
    Library::instance().queueVerdict(engine, Verdict{1, 2, 1, "LEARN_PEROID"});
    Library::instance().queueVerdict(engine, Verdict{0, 2, 0, "FILTER_PEROID"});
    Library::instance().queueVerdict(engine, Verdict{0, 2, 1, "FILTER_PEROID"});
    for (unsigned long long tag = 1; tag <= 3; ++tag) queue_event(engine, tag);
    FakeClock::passThread(worker, 3);
    ASSERT_TRUE(waitUntil([&] { return FakeClock::usleepsOf(worker) >= 4; }));
    ASSERT_EQ(3, Library::instance().count(engine, "processEvent"));
    // Timing: every countdown fires by pass 1200.
    Library::instance().setDefaultText(engine, "getChangedModel", "web");
    FakeClock::allowSleeps(1200);
    ASSERT_TRUE(waitUntil([] { return FakeClock::sleepsEntered() >= 1201; }));
    // Commands from the work thread.
    _USR_INPUT input;
    input.oprType = USR_OPR_QUERY;
    input.modelName = "web";
    base ? BaseEngine::GetInstance()->parseInput(&input) : RaspEngine::GetInstance()->parseInput(&input);
    base ? BaseEngine::GetInstance()->dealAlarmEvent("[]") : RaspEngine::GetInstance()->dealAlarmEvent("[]");

    std::set<std::string> seen;
    for (const Call& call : Library::instance().calls(engine, "")) {
        seen.insert(call.op);
        EXPECT_EQ(kEngineLock, call.locks) << call.op;
    }
    const std::set<std::string> expected = {"processEvent", "saveOriginLog",   "getBlackLog",  "saveModel",
                                            "elapseTime",   "getChangedModel", "getModelData", "getModelStatus"};
    EXPECT_EQ(expected, seen);
}

TEST_P(LockTest, AWorkerPassTakesOneEvent) {
    const Engine engine = GetParam();
    FakeClock::gate(true);
    FakeClock::holdThread(worker_of(engine), true);
    ASSERT_TRUE(initialize(engine));
    ASSERT_TRUE(waitUntil([&] { return FakeClock::usleepsOf(worker_of(engine)) >= 1; }));
    for (unsigned long long tag = 1; tag <= 3; ++tag) queue_event(engine, tag);
    for (int pass = 1; pass <= 2; ++pass) {
        FakeClock::passThread(worker_of(engine), 1);
        ASSERT_TRUE(waitUntil([&] { return FakeClock::usleepsOf(worker_of(engine)) >= pass + 1; }));
        EXPECT_EQ(pass, Library::instance().count(engine, "processEvent"));
        EXPECT_EQ(static_cast<size_t>(3 - pass), engine == Engine::Base ? base_queue_size() : rasp_queue_size());
    }
}

INSTANTIATE_TEST_SUITE_P(Engines, LockTest, ::testing::Values(Engine::Base, Engine::Rasp),
                         [](const ::testing::TestParamInfo<Engine>& info) {
                             return info.param == Engine::Base ? "Base" : "Rasp";
                         });

// The delay thread moves one record a pass, past the producers' bound.
TEST_F(EngineTest, ADelayPassMovesOneRecordEvenOntoAFullQueue) {
    FakeClock::gate(true);
    FakeClock::holdThread("base_work", true);
    FakeClock::holdThread("base_work_delay", true);
    ASSERT_TRUE(initialize(Engine::Base));
    ASSERT_TRUE(waitUntil([] { return FakeClock::usleepsOf("base_work_delay") >= 1; }));
    for (unsigned long long tag = 0; tag < kEventQueueLimit; ++tag) queue_base_event(*baseRecord(6, tag));
    orv_mutex_lock(&g_baseDataLock);
    for (unsigned long long tag = 1; tag <= 2; ++tag) {
        g_baseDelayData.emplace_back(*baseRecord(6, 1000 + tag), FakeClock::now() - 100);
    }
    orv_mutex_unlock(&g_baseDataLock);
    FakeClock::passThread("base_work_delay", 1);
    ASSERT_TRUE(waitUntil([] { return FakeClock::usleepsOf("base_work_delay") >= 2; }));
    EXPECT_EQ(kEventQueueLimit + 1, base_queue_size());
    EXPECT_EQ(1u, base_delay_size());
    orv_mutex_lock(&g_baseDataLock);
    EXPECT_EQ(1001u, g_baseData.back().event_time);
    orv_mutex_unlock(&g_baseDataLock);
}

// A feedback for a stopped engine is dropped with words of its own, not the
// start failure's.
TEST_F(EngineTest, FeedbackForAStoppedEngineSaysSo) {
    LogCapture log;
    EXPECT_TRUE(BaseEngine::GetInstance()->dealAlarmEvent("[{}]"));
    EXPECT_TRUE(RaspEngine::GetInstance()->dealAlarmEvent("[{}]"));
    EXPECT_EQ(2, log.count("alarm feedback dropped: engine not running", 1)) << log.dump();
    EXPECT_FALSE(log.contains("m_baseEngine is null", 1));
    EXPECT_FALSE(log.contains("m_raspEngine is null", 1));
}
