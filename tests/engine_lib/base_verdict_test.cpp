// Host events: which model sees them, learning, and the verdict fields the
// module's report rules read.
#include <functional>

#include <gtest/gtest.h>

#include "engine_test_support.h"

using namespace enginetest;

namespace {

const unsigned long long kPid = 4242;
const char kApp[] = "/usr/sbin/shopd";

class BaseVerdictTest : public ::testing::Test {
protected:
    void SetUp() override { engine = makeBaseEngine(); }

    void start(unsigned short learnMinutes, std::vector<unsigned long long> pids = {kPid}) {
        ASSERT_TRUE(engine->initModel(startCommand("shop", learnMinutes, kApp, pids).get()));
    }
    void minutes(int count) {
        for (int i = 0; i < count; ++i) engine->elapseTime(60, 0);
    }

    std::unique_ptr<BaseInterface> engine;
};

struct KindCase {
    const char* label;
    std::function<std::unique_ptr<_BASE_EVENTINFO>()> learned;
    std::function<std::unique_ptr<_BASE_EVENTINFO>()> unknown;
    bool judgedAtOnce;  // process creations are never delayed by the module
};

std::vector<KindCase> kindCases() {
    return {
        {"process", [] { return processCreation(kPid, "/bin/sh"); }, [] { return processCreation(kPid, "/bin/nc"); },
         true},
        {"file_create", [] { return fileEvent(kPid, "/var/shop/cache"); },
         [] { return fileEvent(kPid, "/etc/passwd"); }, false},
        {"file_delete", [] { return fileEvent(kPid, "/var/shop/tmp", 8); },
         [] { return fileEvent(kPid, "/var/shop/tmp2", 8); }, false},
        {"connect", [] { return connection(kPid, "10.0.0.7", 5432); },
         [] { return connection(kPid, "10.0.0.7", 22); }, false},
        {"connect_protocol", [] { return connection(kPid, "10.0.0.7", 53, "udp"); },
         [] { return connection(kPid, "10.0.0.7", 53, "tcp"); }, false},
        {"dns", [] { return dnsQuery(kPid, "db.shop.local"); }, [] { return dnsQuery(kPid, "evil.example"); },
         false},
        {"listen", [] { return listening(kPid, 8080); }, [] { return listening(kPid, 4444); }, false},
    };
}

}  // namespace

TEST_F(BaseVerdictTest, LearningEventIsMarkedForTheOriginLogAndWhite) {
    start(2);
    auto event = fileEvent(kPid, "/var/shop/cache");
    engine->processEvent(*event);
    EXPECT_EQ(event->origin_log_flag, 1);
    EXPECT_EQ(event->match_verdict, 1);
    EXPECT_EQ(period(*event), "LEARN_PEROID");
    EXPECT_EQ(modelName(*event), "shop");
}

TEST_F(BaseVerdictTest, LearningEndsWhenElapsedTimeReachesLearnTime) {
    start(2);
    minutes(1);
    auto event = fileEvent(kPid, "/a");
    engine->processEvent(*event);
    EXPECT_EQ(period(*event), "LEARN_PEROID");
    minutes(1);
    event = fileEvent(kPid, "/a");
    engine->processEvent(*event);
    EXPECT_EQ(period(*event), "FILTER_PEROID");
    EXPECT_EQ(event->origin_log_flag, 0);
    EXPECT_EQ(event->match_verdict, 1) << "learned in the first minute";
}

TEST_F(BaseVerdictTest, ZeroLearnTimeFiltersAtOnce) {
    start(0);
    auto event = fileEvent(kPid, "/a");
    engine->processEvent(*event);
    EXPECT_EQ(period(*event), "FILTER_PEROID");
    EXPECT_EQ(event->origin_log_flag, 0);
}

TEST_F(BaseVerdictTest, EachKindLearnsItsFeatureAndDelaysThenBlacksTheUnknown) {
    for (const KindCase& kind : kindCases()) {
        SCOPED_TRACE(kind.label);
        engine = makeBaseEngine();
        start(1);
        auto learning = kind.learned();
        engine->processEvent(*learning);
        ASSERT_EQ(period(*learning), "LEARN_PEROID");
        minutes(1);

        auto known = kind.learned();
        engine->processEvent(*known);
        EXPECT_EQ(known->match_verdict, 1);
        EXPECT_GE(known->delay_gate, 2) << "a decided event must not cycle through the delay list";
        EXPECT_EQ(period(*known), "FILTER_PEROID");

        auto unknown = kind.unknown();
        engine->processEvent(*unknown);
        if (kind.judgedAtOnce) {
            EXPECT_EQ(unknown->match_verdict, 0);
            continue;
        }
        EXPECT_EQ(unknown->match_verdict, 1) << "first pass: a second chance";
        EXPECT_EQ(unknown->delay_gate, 1);
        EXPECT_EQ(period(*unknown), "FILTER_PEROID");
        engine->processEvent(*unknown);  // the record comes back from the delay list
        EXPECT_EQ(unknown->match_verdict, 0);
        EXPECT_EQ(unknown->delay_gate, 2);
    }
}

TEST_F(BaseVerdictTest, EventOfNoModelIsWhiteWithoutPeriod) {
    start(0);
    auto event = fileEvent(kPid + 1, "/etc/shadow", 7);
    setText(event->model_status, "FILTER_PEROID");  // left over from an earlier pass
    engine->processEvent(*event);
    EXPECT_EQ(event->match_verdict, 1);
    EXPECT_EQ(period(*event), "");
    EXPECT_EQ(modelName(*event), "");
}

TEST_F(BaseVerdictTest, EmptyLibraryStillWritesTheVerdict) {
    auto event = blankEvent(0, 0, "");
    engine->processEvent(*event);
    EXPECT_EQ(event->match_verdict, 1) << "an all-zero verdict would make the event an alarm";
}

TEST_F(BaseVerdictTest, KindWithoutFeatureIsDecidedWhite) {
    start(0);
    auto event = blankEvent(3, kPid);
    engine->processEvent(*event);
    EXPECT_EQ(event->match_verdict, 1);
    EXPECT_EQ(event->delay_gate, 2);
    EXPECT_EQ(modelName(*event), "shop");
}

TEST_F(BaseVerdictTest, ChildProcessesAndExecutablePathBelongToTheModel) {
    auto input = startCommand("shop", 0, kApp, {kPid});
    input->childProcessMap["/bin/sh"].insert(777);
    ASSERT_TRUE(engine->initModel(input.get()));

    auto child = fileEvent(777, "/x");
    engine->processEvent(*child);
    EXPECT_EQ(modelName(*child), "shop");

    // A restarted application has a new id but the same executable.
    auto restarted = blankEvent(6, 9999, kApp);
    setText(restarted->detail.file.file_name, "/x");
    engine->processEvent(*restarted);
    EXPECT_EQ(modelName(*restarted), "shop");

    auto stranger = blankEvent(6, 9999, "/usr/bin/other");
    engine->processEvent(*stranger);
    EXPECT_EQ(modelName(*stranger), "");
}

TEST_F(BaseVerdictTest, SwitchedOffModelJudgesNothingAndItsClockStands) {
    start(1);
    ASSERT_EQ(engine->interactModel(command(USR_OPR_SWITCH, "shop", 0, USR_SWITCH_OFF).get()), 0);
    minutes(5);
    auto event = fileEvent(kPid, "/etc/passwd");
    engine->processEvent(*event);
    EXPECT_EQ(event->match_verdict, 1);
    EXPECT_EQ(event->origin_log_flag, 0);
    EXPECT_EQ(period(*event), "") << "neither period: no origin log and no delay";
    EXPECT_NE(engine->getModelStatus("shop").find("\"switch\":0"), std::string::npos);

    ASSERT_EQ(engine->interactModel(command(USR_OPR_SWITCH, "shop", 0, USR_SWITCH_ON).get()), 0);
    event = fileEvent(kPid, "/etc/passwd");
    engine->processEvent(*event);
    EXPECT_EQ(period(*event), "LEARN_PEROID") << "no learning time passed while off";
}

TEST_F(BaseVerdictTest, NotRunningModelForgetsItsProcessesUntilStartedAgain) {
    start(0);
    ASSERT_TRUE(engine->initModel(command(USR_OPR_SWITCH, "shop", 0, USR_SWITCH_NOT_RUNNING).get()));
    EXPECT_NE(engine->getModelStatus("shop").find("\"running\":false"), std::string::npos);
    auto byPath = fileEvent(kPid, "/etc/passwd");
    engine->processEvent(*byPath);
    EXPECT_EQ(byPath->match_verdict, 1);
    EXPECT_EQ(period(*byPath), "");

    start(0, {5150});
    EXPECT_NE(engine->getModelStatus("shop").find("\"running\":true"), std::string::npos);
    auto event = fileEvent(5150, "/etc/passwd");
    engine->processEvent(*event);
    EXPECT_EQ(period(*event), "FILTER_PEROID");
}

TEST_F(BaseVerdictTest, FeatureCapStopsLearningAndCountsWhatWasDropped) {
    TempDir dir;
    dir.write("baseConfig.ini", "[engine]\nmax_features = 2\n");
    ASSERT_EQ(engine->setConfig((dir.path() + "/baseConfig.ini").c_str()), 0);
    start(1);
    for (const char* file : {"/a", "/b", "/c"}) {
        auto event = fileEvent(kPid, file);
        engine->processEvent(*event);
        EXPECT_EQ(event->origin_log_flag, 1) << "the origin log still gets it";
    }
    std::string status = engine->getModelStatus("shop");
    EXPECT_NE(status.find("\"feature_count\":2"), std::string::npos) << status;
    EXPECT_NE(status.find("\"features_dropped\":1"), std::string::npos) << status;
    minutes(1);
    auto dropped = fileEvent(kPid, "/c");
    dropped->delay_gate = 1;
    engine->processEvent(*dropped);
    EXPECT_EQ(dropped->match_verdict, 0);
}
