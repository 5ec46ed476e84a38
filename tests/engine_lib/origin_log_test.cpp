// Origin logs as the module's Transformer reads them back.
#include <filesystem>

#include <gtest/gtest.h>

#include "engine_test_support.h"

using namespace enginetest;

const unsigned long long kPid = 77;

TEST(OriginLogTest, EveryKindReadsBackAsTheSameEvent) {
    std::vector<EventKind> kinds(std::begin(kEventKinds), std::end(kEventKinds));
    kinds.push_back({"awkward_text", 6, {"/srv/\"q\"\\\xe4\xff name\n"}, {}});
    for (const EventKind& kind : kinds) {
        SCOPED_TRACE(kind.label);
        TempDir dir;
        auto engine = makeBaseEngine();
        ASSERT_TRUE(engine->initModel(startCommand("shop", 5, "/usr/bin/app", {kPid}).get()));
        auto sent = hostEvent(kind.type, kPid, kind.learned);
        engine->processEvent(*sent);
        ASSERT_EQ(engine->saveOriginLog(*sent, dir.path().c_str()), 0);
        std::vector<_BASE_EVENTINFO> back;
        std::string log = readFile(dir / "shop.origin.json");
        ASSERT_TRUE(Transformer().judgeEventType(log, back)) << log;
        ASSERT_EQ(back.size(), 1u) << log;
        // The reader stamps its own time and leaves the model to its caller.
        back[0].event_time = sent->event_time;
        setText(back[0].model_name, "shop");
        // The alarm text shows every field a record carries to the manager.
        EXPECT_EQ(engine->getBlackLog(back[0], 1), engine->getBlackLog(*sent, 1));
    }
}

TEST(OriginLogTest, FullFilesAreMovedAsideAndNothingIsLost) {
    TempDir dir;
    auto engine = makeBaseEngine();
    ASSERT_TRUE(engine->initModel(startCommand("shop", 5, "/usr/bin/app", {kPid}).get()));
    std::ofstream(dir.path() + "/baseConfig.ini") << "[engine]\norigin_log_max_bytes=4096\n";
    ASSERT_EQ(engine->setConfig((dir.path() + "/baseConfig.ini").c_str()), 0);
    for (int i = 0; i < 40; ++i) {
        auto event = fileEvent(kPid, "/var/shop/file" + std::to_string(i));
        engine->processEvent(*event);
        ASSERT_EQ(engine->saveOriginLog(*event, dir.path().c_str()), 0);
    }
    std::vector<_BASE_EVENTINFO> back;  // judgeEventType appends
    for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
        std::string name = entry.path().filename().string();
        if (name.find(".origin") == std::string::npos) continue;
        EXPECT_TRUE(Transformer().judgeEventType(readFile(dir / name), back)) << name;
        EXPECT_LT(readFile(dir / name).size(), 4096u + 2048u) << name;
    }
    EXPECT_EQ(back.size(), 40u) << "rotation loses nothing";
}
