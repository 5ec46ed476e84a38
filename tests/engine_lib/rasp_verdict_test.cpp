// Runtime-application events: learned per action and subject, black at once
// when unknown, white again once the manager feeds the alarm back.
#include <gtest/gtest.h>

#include "engine_test_support.h"

using namespace enginetest;

TEST(RaspVerdictTest, EachActionIsLearnedThenMatchedAndAnUnknownOneFedBack) {
    const unsigned long long pid = 3100;
    const struct {
        unsigned short action;
        const char* learned;
        const char* unknown;
    } cases[] = {
        {0, "db.shop.local", "evil.example"},
        {1, "payments.local", "attacker.example"},
        {3, "/var/shop/upload/1.png", "/var/www/shell.jsp"},
        {5, "/var/shop/tmp/1", "/var/shop/upload/1.png"},  // learned as a write only
        {10, "SELECT 1", "EXEC xp_cmdshell 'dir'"},
    };
    std::unique_ptr<RaspInterface> engine(RaspFactory().getRaspInterface());
    ASSERT_TRUE(engine->initModel(startCommand("web", 1, "/usr/bin/java", {pid}).get()));
    for (const auto& c : cases) engine->processEvent(*raspEvent(pid, c.action, c.learned));
    engine->elapseTime(60, 0);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.unknown);
        auto known = raspEvent(pid, c.action, c.learned);
        engine->processEvent(*known);
        EXPECT_EQ(known->model_status, "FILTER_PEROID");
        EXPECT_EQ(known->match_verdict, 1);

        auto unknown = raspEvent(pid, c.action, c.unknown);
        engine->processEvent(*unknown);
        ASSERT_EQ(unknown->match_verdict, 0) << "no delay on this path";
        std::string alarm = engine->getBlackLog(*unknown, 1);
        EXPECT_NE(alarm.find("\"alarm_source\":0"), std::string::npos) << alarm;
        std::vector<_RASP_EVENTINFO> records;
        ASSERT_TRUE(Transformer().judgeAlarmEventType("[" + alarm + "]", records)) << alarm;
        ASSERT_EQ(records.size(), 1u) << alarm;
        EXPECT_EQ(engine->feedbackAlarm(records[0]), 0);
        engine->processEvent(*unknown);
        EXPECT_EQ(unknown->match_verdict, 1) << alarm;
    }
}
