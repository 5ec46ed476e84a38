// Everything at once for a few seconds: host events and telemetry from
// producer threads, commands and alarm feedback from a "work thread", the
// timing threads free-running, and a wall clock that moves so the delay list
// cycles. Meant for the tsan build: it must end without a report, a deadlock
// or a lost lock.
#include <atomic>
#include <functional>
#include <thread>

#include "base.h"
#include "engine_test_env.h"
#include "event_queues.h"
#include "rasp.h"

using fake_model::Engine;
using fake_model::Library;
using fake_model::Verdict;

TEST_F(EngineTest, EventsCommandsTimingAndFeedbackTogetherKeepTheLockRules) {
    FakeClock::setRealPause(std::chrono::microseconds(200));
    const Verdict verdicts[] = {
        {1, 0, 1, "LEARN_PEROID"}, {0, 0, 0, "FILTER_PEROID"}, {0, 1, 1, "FILTER_PEROID"}, {0, 2, 1, "FILTER_PEROID"}};
    for (int i = 0; i < 400; ++i) {
        Library::instance().queueVerdict(Engine::Base, verdicts[i % 4]);
        Library::instance().queueVerdict(Engine::Rasp, verdicts[(i + 1) % 4]);
    }
    Library::instance().setDefaultVerdict(Engine::Base, verdicts[2]);
    Library::instance().setDefaultText(Engine::Base, "getChangedModel", "web");
    Library::instance().setDefaultText(Engine::Rasp, "getModelStatus", "{\"s\":1}");
    ASSERT_TRUE(initialize(Engine::Base));
    ASSERT_TRUE(initialize(Engine::Rasp));

    std::atomic<bool> stop{false};
    unsigned long long tag = 0;
    int round = 0;
    // Each loop body runs on its own thread until the stop.
    const std::vector<std::function<void()>> bodies = {
        [&] {
            ++tag;
            queue_base_event(*baseRecord(tag % 2 ? 6 : 1, tag));
        },
        [] { queue_rasp_text("{\"data\":{\"data\":{\"action\":\"dns\",\"data\":\"example.org\"}}}"); },
        [] { FakeClock::setTime(FakeClock::now() + 1); },
        // The module's work thread: commands and alarm feedback.
        [&] {
            _USR_INPUT input;
            input.modelName = "web";
            input.oprType = round++ % 3 == 0 ? USR_OPR_QUERY : USR_OPR_SWITCH;
            BaseEngine::GetInstance()->parseInput(&input);
            RaspEngine::GetInstance()->parseInput(&input);
            BaseEngine::GetInstance()->dealAlarmEvent("[{\"event_id\":\"FILE_CREATION\",\"model_name\":\"web\"}]");
            RaspEngine::GetInstance()->dealAlarmEvent("[]");
        },
    };
    std::vector<std::thread> threads;
    for (const std::function<void()>& body : bodies) {
        threads.emplace_back([&stop, &body] {
            while (!stop.load()) {
                body();
                std::this_thread::sleep_for(std::chrono::microseconds(500));
            }
        });
    }
    std::this_thread::sleep_for(std::chrono::seconds(3));
    stop.store(true);
    for (std::thread& thread : threads) {
        thread.join();
    }
    BaseEngine::GetInstance()->Uninitialize();
    RaspEngine::GetInstance()->Uninitialize();

    Library& lib = Library::instance();
    EXPECT_GT(lib.count(Engine::Base, "processEvent"), 10);
    EXPECT_GT(lib.count(Engine::Rasp, "processEvent"), 10);
    EXPECT_GT(lib.count(Engine::Base, "feedbackAlarm"), 0);
    EXPECT_EQ(0, lib.liveObjects(Engine::Base));
    EXPECT_EQ(0, lib.liveObjects(Engine::Rasp));
    EXPECT_EQ(0u, base_queue_size());
    EXPECT_EQ(0u, base_delay_size());
}
