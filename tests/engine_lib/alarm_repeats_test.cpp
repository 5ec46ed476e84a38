// Repeats of an alarm: the first goes out at once, the rest of its window
// go out together when the window ends, as one alarm with their count.
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <set>

#include "event_script.h"

using namespace enginetest;

namespace {

const char kUnknownSql[] = "mysql SELECT * FROM users";
const char kKnownSql[] = "mysql SELECT * FROM orders WHERE id=1";
const unsigned kWindowMinutes = 5;  // the default window: 300 seconds

rapidjson::Document parsed(const std::string& text) {
    rapidjson::Document doc;
    doc.Parse(text.c_str());
    return doc;
}

unsigned long long statusNumber(RaspInterface& engine, const char* key) {
    rapidjson::Document status = parsed(engine.getModelStatus("shop"));
    return status.HasMember(key) ? status[key].GetUint64() : ~0ull;
}

std::unique_ptr<RaspInterface> filteringRasp() {
    auto engine = startedEngine<RaspInterface>(1);
    feed(*engine, {kKnownSql});
    engine->elapseTime(60, 0);
    return engine;
}

void elapseMinutes(RaspInterface& engine, unsigned minutes) {
    for (unsigned i = 0; i < minutes; ++i) engine.elapseTime(60, 0);
}

// Sends an event through the library as the module does; the alarm text
// when it came out black, else empty.
template <class Interface, class Event>
std::string alarmOf(Interface& engine, Event& event) {
    return judgedBlack(engine, event) ? engine.getBlackLog(event, 1) : std::string();
}

}  // namespace

TEST(AlarmRepeatsTest, RepeatsWithinTheWindowGoOutOnceAsOneAlarmWithTheirCount) {
    auto engine = filteringRasp();
    auto first = raspLine(kUnknownSql);
    EXPECT_EQ(parsed(alarmOf(*engine, *first)).HasMember("repeat_count"), false) << "the first goes out at once";
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(alarmOf(*engine, *raspLine("mysql select *  from USERS")), "") << "a repeat within the window";
    }
    EXPECT_EQ(statusNumber(*engine, "alarm_repeats_pending"), 3u);
    EXPECT_NE(alarmOf(*engine, *raspLine("mysql DELETE FROM users")), "") << "another alarm is no repeat";

    elapseMinutes(*engine, kWindowMinutes - 1);
    EXPECT_EQ(alarmOf(*engine, *raspLine(kKnownSql)), "") << "the window is still open";
    engine->elapseTime(60, 0);
    std::string summary = alarmOf(*engine, *raspLine(kKnownSql));
    ASSERT_NE(summary, "") << "the next event that would go nowhere carries the summary";
    rapidjson::Document doc = parsed(summary);
    ASSERT_TRUE(doc.IsObject()) << summary;
    EXPECT_EQ(doc["repeat_count"].GetUint64(), 3u) << summary;
    EXPECT_EQ(doc["repeat_window_seconds"].GetUint64(), 300u) << summary;
    EXPECT_EQ(statusNumber(*engine, "alarm_repeats_pending"), 0u);
    EXPECT_EQ(alarmOf(*engine, *raspLine(kKnownSql)), "") << "a summary goes out once";

    // The summary is an alarm like any other: fed back, it teaches its feature.
    std::vector<_RASP_EVENTINFO> records;
    ASSERT_TRUE(Transformer().judgeAlarmEventType("[" + summary + "]", records)) << summary;
    ASSERT_EQ(records.size(), 1u) << summary;
    EXPECT_EQ(engine->feedbackAlarm(records[0]), 0);
    EXPECT_EQ(alarmOf(*engine, *raspLine(kUnknownSql)), "");
}

TEST(AlarmRepeatsTest, ASummaryRidesOnlyOnAnEventThatWouldGoNowhere) {
    auto engine = filteringRasp();
    for (const char* sql : {kUnknownSql, kUnknownSql, "mysql DROP TABLE users", "mysql DROP TABLE users"}) {
        alarmOf(*engine, *raspLine(sql));
    }
    elapseMinutes(*engine, kWindowMinutes);
    auto black = raspLine("mysql TRUNCATE users");
    std::string own = alarmOf(*engine, *black);
    EXPECT_EQ(parsed(own).HasMember("repeat_count"), false) << "a black event keeps its own alarm: " << own;

    ASSERT_TRUE(engine->initModel(startCommand("other", 60, "/usr/bin/other", {77}).get()));
    auto learning = raspLine(kUnknownSql, 77);
    EXPECT_EQ(alarmOf(*engine, *learning), "") << "an event for the origin log is no carrier";
    EXPECT_EQ(learning->origin_log_flag, 1);

    std::string firstSummary = alarmOf(*engine, *raspLine(kKnownSql));
    std::string secondSummary = alarmOf(*engine, *raspLine("mysql SELECT 1", 999));  // no model: goes nowhere
    std::set<std::string> features;
    for (const std::string& summary : {firstSummary, secondSummary}) {
        rapidjson::Document doc = parsed(summary);
        ASSERT_TRUE(doc.IsObject() && doc.HasMember("repeat_count")) << summary;
        EXPECT_EQ(doc["repeat_count"].GetUint64(), 1u);
        features.insert(doc["sql_command"].GetString());
    }
    EXPECT_EQ(features.size(), 2u) << "both windows reported, each once";
}

TEST(AlarmRepeatsTest, AfterTheWindowARepeatGoesOutAtOnceAgain) {
    auto engine = filteringRasp();
    EXPECT_NE(alarmOf(*engine, *raspLine(kUnknownSql)), "");
    elapseMinutes(*engine, kWindowMinutes);
    EXPECT_NE(alarmOf(*engine, *raspLine(kUnknownSql)), "") << "nothing counted: no summary, a new first alarm";
    EXPECT_EQ(alarmOf(*engine, *raspLine(kUnknownSql)), "");
}

TEST(AlarmRepeatsTest, HostRepeatsAreCountedAfterTheirSecondChance) {
    auto engine = startedEngine<BaseInterface>(1);
    feed(*engine, {"file /var/shop/upload/1.jpg", "process /bin/gzip gzip -9"});
    engine->elapseTime(60, 0);
    for (const char* line : {"file /etc/passwd", "process /usr/bin/nc nc -l"}) {
        SCOPED_TRACE(line);
        EXPECT_NE(alarmOf(*engine, *hostLine(line)), "");
        auto repeat = hostLine(line);
        EXPECT_EQ(alarmOf(*engine, *repeat), "");
        EXPECT_EQ(repeat->delay_gate, 2) << "counted, and never delayed again";
    }
    for (unsigned i = 0; i < kWindowMinutes; ++i) engine->elapseTime(60, 0);
    unsigned summaries = 0;
    for (int i = 0; i < 3; ++i) {
        std::string text = alarmOf(*engine, *hostLine("file /var/shop/upload/2.jpg"));
        if (text.empty()) continue;
        ++summaries;
        std::vector<_BASE_EVENTINFO> records;
        EXPECT_TRUE(Transformer().judgeAlarmEventType("[" + text + "]", records) && records.size() == 1) << text;
        EXPECT_EQ(parsed(text)["repeat_count"].GetUint64(), 1u) << text;
    }
    EXPECT_EQ(summaries, 2u);
}

TEST(AlarmRepeatsTest, AWindowOfZeroReportsEveryAlarmAtOnce) {
    TempDir dir;
    std::ofstream(dir.path() + "/baseConfig.ini") << "[engine]\nalarm_repeat_window_seconds = 0\n";
    auto engine = makeEngine<RaspInterface>();
    ASSERT_EQ(engine->setConfig((dir.path() + "/baseConfig.ini").c_str()), 0);
    ASSERT_TRUE(engine->initModel(startCommand("shop", 0, "/usr/sbin/shopd", {kScriptPid}).get()));
    for (int i = 0; i < 3; ++i) EXPECT_NE(alarmOf(*engine, *raspLine(kUnknownSql)), "");
}
