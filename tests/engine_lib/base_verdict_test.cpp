// Host events: learning, the verdict and delay gate the module's report rules
// read, alarms fed back by the manager, and models switched off or not running.
#include <gtest/gtest.h>

#include "engine_test_support.h"

using namespace enginetest;

namespace {

const unsigned long long kPid = 4242;

std::unique_ptr<BaseInterface> startedEngine(unsigned short learnMinutes) {
    auto engine = makeBaseEngine();
    EXPECT_TRUE(engine->initModel(startCommand("shop", learnMinutes, "/usr/sbin/shopd", {kPid}).get()));
    return engine;
}

BaseEvent see(BaseInterface& engine, BaseEvent event) {
    engine.processEvent(*event);
    return event;
}

}  // namespace

TEST(BaseVerdictTest, EachKindIsLearnedThenDelayedOnceAndBlackUntilTheAlarmIsFedBack) {
    for (const EventKind& kind : kEventKinds) {
        SCOPED_TRACE(kind.label);
        auto engine = startedEngine(2);
        auto learning = see(*engine, hostEvent(kind.type, kPid, kind.learned));
        EXPECT_EQ(learning->origin_log_flag, 1);
        EXPECT_EQ(learning->match_verdict, 1);
        EXPECT_EQ(getText(learning->model_name), "shop");
        engine->elapseTime(60, 0);
        EXPECT_EQ(period(*see(*engine, hostEvent(kind.type, kPid, kind.learned))), "LEARN_PEROID");
        engine->elapseTime(60, 0);

        auto known = see(*engine, hostEvent(kind.type, kPid, kind.learned));
        EXPECT_EQ(period(*known), "FILTER_PEROID");
        EXPECT_EQ(known->origin_log_flag, 0);
        EXPECT_EQ(known->match_verdict, 1);
        EXPECT_EQ(known->delay_gate, 2) << "a decided event must not cycle through the delay list";

        auto unknown = see(*engine, hostEvent(kind.type, kPid, kind.unknown));
        if (kind.type != 1) {  // the module never delays a process creation
            EXPECT_EQ(unknown->match_verdict, 1) << "first pass: a second chance";
            EXPECT_EQ(unknown->delay_gate, 1);
            engine->processEvent(*unknown);  // the record comes back from the delay list
            EXPECT_EQ(unknown->delay_gate, 2);
        }
        ASSERT_EQ(unknown->match_verdict, 0);

        std::string alarm = engine->getBlackLog(*unknown, 1);
        EXPECT_NE(alarm.find("\"alarm_source\":1"), std::string::npos) << alarm;
        std::vector<_BASE_EVENTINFO> records;
        ASSERT_TRUE(Transformer().judgeAlarmEventType("[" + alarm + "]", records)) << alarm;
        ASSERT_EQ(records.size(), 1u) << alarm;
        EXPECT_EQ(engine->feedbackAlarm(records[0]), 0);
        auto again = see(*engine, hostEvent(kind.type, kPid, kind.unknown));
        EXPECT_EQ(again->match_verdict, 1) << alarm;
        EXPECT_EQ(again->delay_gate, 2);
    }
}

TEST(BaseVerdictTest, SwitchedOffOrNotRunningModelJudgesNothing) {
    auto stale = [] {  // a record whose period is left over from an earlier pass
        auto event = fileEvent(kPid, "/etc/passwd");
        setText(event->model_status, "FILTER_PEROID");
        return event;
    };
    auto engine = startedEngine(1);
    ASSERT_EQ(engine->interactModel(command(USR_OPR_SWITCH, "shop", 0, USR_SWITCH_OFF).get()), 0);
    engine->elapseTime(60, 0);
    auto off = see(*engine, stale());
    EXPECT_EQ(off->match_verdict, 1);
    EXPECT_EQ(off->origin_log_flag, 0);
    EXPECT_EQ(period(*off), "") << "neither period: no origin log and no delay";

    ASSERT_EQ(engine->interactModel(command(USR_OPR_SWITCH, "shop", 0, USR_SWITCH_ON).get()), 0);
    EXPECT_EQ(period(*see(*engine, fileEvent(kPid, "/etc/passwd"))), "LEARN_PEROID")
        << "no learning time passed while off";

    ASSERT_TRUE(engine->initModel(command(USR_OPR_SWITCH, "shop", 0, USR_SWITCH_NOT_RUNNING).get()));
    EXPECT_EQ(period(*see(*engine, stale())), "") << "its processes are forgotten";
    ASSERT_TRUE(engine->initModel(startCommand("shop", 1, "/usr/sbin/shopd", {5150}).get()));
    EXPECT_EQ(getText(see(*engine, fileEvent(5150, "/etc/passwd"))->model_name), "shop");
}
