// Alarms: getBlackLog's text goes to the manager, comes back in a feedback
// list, passes the module's alarm conversion and whitens the feature.
#include <functional>

#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include "engine_test_support.h"
#include "transformer.h"

using namespace enginetest;

namespace {

const unsigned long long kPid = 501;

struct BaseAlarmCase {
    const char* label;
    std::function<std::unique_ptr<_BASE_EVENTINFO>()> make;
};

std::vector<BaseAlarmCase> baseAlarmCases() {
    return {
        {"process", [] { return processCreation(kPid, "/usr/bin/nc"); }},
        {"file", [] { return fileEvent(kPid, "/etc/passwd", 7); }},
        {"rename", [] { return fileEvent(kPid, "/etc/hosts", 9); }},
        {"connect", [] { return connection(kPid, "203.0.113.9", 4444); }},
        {"connect_v6", [] { return connection(kPid, "fe80::1", 443); }},
        {"dns", [] { return dnsQuery(kPid, "evil.example"); }},
        {"listen", [] { return listening(kPid, 31337, "udp"); }},
    };
}

// The record that judges black: filtering model, second pass where needed.
std::unique_ptr<_BASE_EVENTINFO> blackEvent(BaseInterface& engine, const BaseAlarmCase& c) {
    auto event = c.make();
    engine.processEvent(*event);
    if (event->match_verdict != 0) engine.processEvent(*event);
    return event;
}

}  // namespace

TEST(BaseAlarmFeedbackTest, FedBackAlarmMakesTheSameEventWhite) {
    for (const BaseAlarmCase& c : baseAlarmCases()) {
        SCOPED_TRACE(c.label);
        auto engine = makeBaseEngine();
        ASSERT_TRUE(engine->initModel(startCommand("shop", 0, "/usr/bin/app", {kPid}).get()));
        auto black = blackEvent(*engine, c);
        ASSERT_EQ(black->match_verdict, 0);

        std::string alarm = engine->getBlackLog(*black, 1);
        rapidjson::Document parsed;
        parsed.Parse(alarm.c_str());
        ASSERT_TRUE(parsed.IsObject()) << alarm;
        EXPECT_EQ(parsed["model_name"], "shop");
        EXPECT_EQ(parsed["alarm_source"].GetInt(), 1) << "outer: host alarms go back to the base engine";

        std::vector<_BASE_EVENTINFO> records;
        ASSERT_TRUE(Transformer().judgeAlarmEventType("[" + alarm + "]", records)) << alarm;
        ASSERT_EQ(records.size(), 1u) << alarm;
        EXPECT_EQ(engine->feedbackAlarm(records[0]), 0);

        auto again = c.make();
        engine->processEvent(*again);
        EXPECT_EQ(again->match_verdict, 1) << alarm;
        EXPECT_EQ(again->delay_gate, 2);
    }
}

TEST(BaseAlarmFeedbackTest, FeedbackDuringTheSecondChanceClearsTheEvent) {
    auto engine = makeBaseEngine();
    ASSERT_TRUE(engine->initModel(startCommand("shop", 0, "/usr/bin/app", {kPid}).get()));
    auto pending = fileEvent(kPid, "/etc/passwd");
    engine->processEvent(*pending);
    ASSERT_EQ(pending->delay_gate, 1);
    auto earlier = fileEvent(kPid, "/etc/passwd");
    setText(earlier->model_name, "shop");
    ASSERT_EQ(engine->feedbackAlarm(*earlier), 0);
    engine->processEvent(*pending);
    EXPECT_EQ(pending->match_verdict, 1);
}

TEST(BaseAlarmFeedbackTest, FeedbackForNoModelIsRefused) {
    auto engine = makeBaseEngine();
    auto event = fileEvent(kPid, "/etc/passwd");
    setText(event->model_name, "gone");
    EXPECT_EQ(engine->feedbackAlarm(*event), -1);
    EXPECT_EQ(engine->getModelStatus(""), "{}");
}

TEST(RaspAlarmFeedbackTest, FedBackAlarmMakesTheSameActionWhite) {
    struct Case {
        unsigned short action;
        const char* subject;
    } cases[] = {{0, "evil.example"},   {1, "attacker.example"}, {2, "/bin/sh -c id"},
                 {3, "/var/www/x.jsp"}, {5, "/var/shop/db"},    {9, "DROP TABLE cart"}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.subject);
        auto engine = makeRaspEngine();
        ASSERT_TRUE(engine->initModel(startCommand("web", 0, "/usr/bin/java", {31}).get()));
        auto black = raspEvent(31, c.action, c.subject);
        engine->processEvent(*black);
        ASSERT_EQ(black->match_verdict, 0);

        std::string alarm = engine->getBlackLog(*black, 1);
        rapidjson::Document parsed;
        parsed.Parse(alarm.c_str());
        ASSERT_TRUE(parsed.IsObject()) << alarm;
        EXPECT_EQ(parsed["alarm_source"].GetInt(), 0) << "inner: back to the runtime-application engine";

        std::vector<_RASP_EVENTINFO> records;
        ASSERT_TRUE(Transformer().judgeAlarmEventType("[" + alarm + "]", records)) << alarm;
        ASSERT_EQ(records.size(), 1u) << alarm;
        EXPECT_EQ(records[0].model_name, "web");
        EXPECT_EQ(engine->feedbackAlarm(records[0]), 0);

        auto again = raspEvent(31, c.action, c.subject);
        engine->processEvent(*again);
        EXPECT_EQ(again->match_verdict, 1) << alarm;
    }
}
