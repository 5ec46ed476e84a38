// Everything at once for a few seconds: host events and telemetry from
// producer threads, commands and alarm feedback from a "work thread", the
// timing threads free-running, and a wall clock that moves so the delay list
// cycles. Meant for the tsan build: it must end without a report, a deadlock
// or a lost lock.
#include <atomic>
#include <random>
#include <thread>

#include "base.h"
#include "engine_test_env.h"
#include "event_queues.h"
#include "rasp.h"
#include "recorders.h"

using fake_model::Engine;
using fake_model::Library;
using fake_model::Verdict;

namespace {

void queue_bounded_base(const _BASE_EVENTINFO& event) {
    orv_mutex_lock(&g_baseDataLock);
    if (g_baseData.size() < kEventQueueLimit) {
        g_baseData.push_back(event);
    }
    orv_mutex_unlock(&g_baseDataLock);
}

void queue_bounded_rasp(const std::string& text) {
    orv_mutex_lock(&g_raspDataLock);
    if (g_raspData.size() < kEventQueueLimit) {
        g_raspData.push_back(text);
    }
    orv_mutex_unlock(&g_raspDataLock);
}

}  // namespace

TEST_F(EngineTest, EventsCommandsTimingAndFeedbackTogetherKeepTheLockRules) {
    FakeClock::setRealPause(std::chrono::microseconds(200));
    const Verdict verdicts[] = {{1, 0, 1, "LEARN_PEROID"},
                                {0, 0, 0, "FILTER_PEROID"},
                                {0, 1, 1, "FILTER_PEROID"},
                                {0, 2, 1, "FILTER_PEROID"}};
    for (int i = 0; i < 400; ++i) {
        Library::instance().queueVerdict(Engine::Base, verdicts[i % 4]);
        Library::instance().queueVerdict(Engine::Rasp, verdicts[(i + 1) % 4]);
    }
    Library::instance().setDefaultVerdict(Engine::Base, verdicts[2]);
    Library::instance().setDefaultText(Engine::Base, "getChangedModel", "web");
    Library::instance().setDefaultText(Engine::Rasp, "getModelStatus", "{\"s\":1}");
    startBase();
    startRasp();

    std::atomic<bool> stop{false};
    std::thread hostProducer([&] {
        unsigned long long tag = 0;
        while (!stop.load()) {
            ++tag;
            queue_bounded_base(make_base_event(tag % 2 ? 6 : 1, tag));
            std::this_thread::sleep_for(std::chrono::microseconds(300));
        }
    });
    std::thread raspProducer([&] {
        while (!stop.load()) {
            queue_bounded_rasp("{\"data\":{\"data\":{\"action\":\"dns\",\"data\":\"example.org\"}}}");
            std::this_thread::sleep_for(std::chrono::microseconds(300));
        }
    });
    std::thread wallClock([&] {
        while (!stop.load()) {
            FakeClock::setTime(FakeClock::now() + 1);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    });
    // The module's work thread: commands with and without the engine lock,
    // and alarm feedback.
    std::thread work([&] {
        int round = 0;
        while (!stop.load()) {
            _USR_INPUT input;
            input.modelName = "web";
            input.oprType = round % 3 == 0 ? USR_OPR_QUERY : USR_OPR_SWITCH;
            BaseEngine::GetInstance()->m_baseEngine->initModel(&input);
            BaseEngine::GetInstance()->m_baseEngine->interactModel(&input);
            BaseEngine::GetInstance()->parseInput(&input);
            RaspEngine::GetInstance()->m_raspEngine->interactModel(&input);
            RaspEngine::GetInstance()->parseInput(&input);
            BaseEngine::GetInstance()->dealAlarmEvent("[{\"event_id\":\"FILE_CREATION\",\"model_name\":\"web\"}]");
            RaspEngine::GetInstance()->dealAlarmEvent("[]");
            ++round;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });

    std::this_thread::sleep_for(std::chrono::seconds(3));
    stop.store(true);
    hostProducer.join();
    raspProducer.join();
    wallClock.join();
    work.join();
    BaseEngine::GetInstance()->Uninitialize();
    RaspEngine::GetInstance()->Uninitialize();

    Library& lib = Library::instance();
    EXPECT_GT(lib.count(Engine::Base, "processEvent"), 10);
    EXPECT_GT(lib.count(Engine::Rasp, "processEvent"), 10);
    EXPECT_GT(lib.count(Engine::Base, "elapseTime"), 0);
    EXPECT_GT(lib.count(Engine::Rasp, "saveModel"), 0);
    EXPECT_GT(lib.count(Engine::Base, "feedbackAlarm"), 0);
    EXPECT_GT(lib.count(Engine::Base, "saveOriginLog"), 0);
    EXPECT_FALSE(recorders::uploadsOfType(2).empty());
    EXPECT_EQ(0, lib.liveObjects(Engine::Base));
    EXPECT_EQ(0, lib.liveObjects(Engine::Rasp));
    EXPECT_EQ(0u, base_queue_size());
    EXPECT_EQ(0u, base_delay_size());
}
