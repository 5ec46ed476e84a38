// The module calls initModel and interactModel without the engine's lock,
// and the first getModelStatus beside processEvent. Run under TSan too.
#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "engine_test_support.h"

using namespace enginetest;

TEST(EngineConcurrencyTest, CommandsBesideEventsAndReports) {
    auto engine = makeBaseEngine();
    ASSERT_TRUE(engine->initModel(startCommand("shop", 1, "/usr/bin/app", {1, 2, 3}).get()));
    TempDir dir;
    std::atomic<bool> stop{false};
    std::thread worker([&] {
        for (int i = 0; !stop.load(); ++i) {
            auto event = fileEvent(1 + i % 3, "/f" + std::to_string(i % 50));
            engine->processEvent(*event);
            if (event->origin_log_flag != 0) engine->saveOriginLog(*event, dir.path().c_str());
            if (event->match_verdict == 0) engine->getBlackLog(*event, 1);
        }
    });
    std::thread timer([&] {
        while (!stop.load()) {
            engine->getModelStatus("");
            engine->elapseTime(60, 0);
            engine->getModelData(engine->getChangedModel());
            engine->saveModel(dir.path().c_str());
        }
    });
    for (int round = 0; round < 1000; ++round) {
        std::string name = "m" + std::to_string(round % 5);
        engine->initModel(startCommand(name, 1, "/opt/" + name, {100u + round % 5}).get());
        engine->interactModel(command(USR_OPR_SWITCH, "shop", 0, round % 2).get());
        engine->interactModel(command(USR_OPR_RELEARN, "shop", 1).get());
        engine->interactModel(command(USR_OPR_DELETE, name).get());
    }
    stop = true;
    worker.join();
    timer.join();
    EXPECT_NE(engine->getModelStatus("shop"), "ERROR");
    EXPECT_EQ(engine->getModelStatus("m0"), "ERROR") << "every created model was deleted again";
}
