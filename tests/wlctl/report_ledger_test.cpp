// The ledger: what it keeps of each report type, models and alarms, its
// bounds, and the replay of the spool files in age order.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "json_util.h"
#include "report_ledger.h"

namespace {

using wlagent::AlarmFilter;
using wlagent::LedgerLimits;
using wlagent::ReportLedger;

std::string envelope(const std::string& seq, const std::string& type, const std::string& payload,
                     const std::string& sendTime = "2024-05-17 10:00:00") {
    return "{\"send_time\":\"" + sendTime +
           "\",\"host_uuid\":\"u\",\"host_ip\":\"1.2.3.4\",\"ip_list\":\"\","
           "\"seq_id\":\"" +
           seq + "\",\"type\":\"" + type + "\",\"" + type + "\":" + payload + "}";
}

std::string hostAlarm(const std::string& model, const std::string& eventId, const std::string& extra = "") {
    return "{\"event_id\":\"" + eventId + "\",\"model_name\":\"" + model + "\",\"alarm_source\":1" + extra + "}";
}

std::string raspAlarm(const std::string& model, const std::string& action, const std::string& extra = "") {
    return "{\"action\":\"" + action + "\",\"model_name\":\"" + model + "\",\"alarm_source\":0" + extra + "}";
}

wljson::Ptr take(cJSON* item) { return wljson::Ptr(item); }

double count(const ReportLedger& ledger, const char* type, const char* key = "count") {
    wljson::Ptr reports = take(ledger.reportsJson());
    return wljson::number(wljson::get(wljson::get(reports.get(), "by_type"), type), key, -1);
}

TEST(ReportLedger, CountsEachTypeAndRefusesWhatIsNoEnvelope) {
    ReportLedger ledger;
    struct Case {
        std::string text;
        bool taken;
    } cases[] = {
        {envelope("1", "open_proc", "[]"), true},
        {envelope("2", "learn_status", "{\"model_name\":\"web\"}"), true},
        {envelope("3", "rasp_model", "{\"models\":[]}"), true},
        {envelope("4", "alarm", hostAlarm("web", "DNS_QUERY")), true},
        {"not json", false},
        {"{\"type\":\"alarm\"}", false},          // no payload under its type
        {envelope("5", "weather", "{}"), false},  // unknown type
        {"[1,2]", false},
    };
    for (const Case& c : cases) EXPECT_EQ(ledger.record(c.text, 100), c.taken) << c.text;
    EXPECT_EQ(count(ledger, "open_proc"), 1);
    EXPECT_EQ(count(ledger, "learn_status"), 1);
    EXPECT_EQ(count(ledger, "rasp_model"), 1);
    EXPECT_EQ(count(ledger, "alarm"), 1);
    EXPECT_EQ(count(ledger, "model"), 0);
    EXPECT_EQ(count(ledger, "alarm", "last"), 100);
    wljson::Ptr reports = take(ledger.reportsJson());
    EXPECT_EQ(wljson::number(reports.get(), "unreadable"), 4);
    EXPECT_EQ(ledger.highestSequence(), 4u);
}

TEST(ReportLedger, LostReportsAreCountedByType) {
    ReportLedger ledger;
    ledger.recordLost(envelope("1", "rasp_alarm", raspAlarm("shop", "execute")));
    ledger.recordLost("garbage");
    EXPECT_EQ(count(ledger, "rasp_alarm", "lost"), 1);
    EXPECT_EQ(count(ledger, "rasp_alarm"), 0);
    wljson::Ptr reports = take(ledger.reportsJson());
    EXPECT_EQ(wljson::number(reports.get(), "lost_unreadable"), 1);
}

TEST(ReportLedger, ModelsFromSingleAndAllModelPayloadsPerEngine) {
    ReportLedger ledger;
    ledger.record(envelope("1", "learn_status",
                           "{\"models\":[{\"model_name\":\"a\",\"feature_count\":1},"
                           "{\"model_name\":\"b\",\"feature_count\":2},7]}"),
                  10);
    ledger.record(envelope("2", "rasp_learn_status", "{\"model_name\":\"a\",\"feature_count\":9}"), 11);
    ledger.record(envelope("3", "learn_status", "{\"model_name\":\"a\",\"feature_count\":5}"), 12);
    ledger.record(envelope("4", "model", "{\"model_name\":\"a\",\"features\":{\"dns\":[\"x\"]}}"), 13);
    ledger.record(envelope("5", "learn_status", "{\"feature_count\":5}"), 14);  // no name: nothing to keep

    wljson::Ptr host = take(ledger.modelJson("host", "a"));
    ASSERT_TRUE(host);
    EXPECT_EQ(wljson::number(wljson::get(host.get(), "status"), "feature_count"), 5);  // the latest wins
    EXPECT_EQ(wljson::number(host.get(), "data_reports"), 1);
    EXPECT_TRUE(cJSON_IsArray(wljson::get(wljson::get(wljson::get(host.get(), "data"), "features"), "dns")));
    wljson::Ptr app = take(ledger.modelJson("app", "a"));
    ASSERT_TRUE(app);
    EXPECT_EQ(wljson::number(wljson::get(app.get(), "status"), "feature_count"), 9);
    EXPECT_FALSE(take(ledger.modelJson("app", "b")));
    wljson::Ptr any = take(ledger.modelJson("", "b"));
    ASSERT_TRUE(any);
    EXPECT_EQ(wljson::text(any.get(), "engine"), "host");
    EXPECT_EQ(cJSON_GetArraySize(take(ledger.modelsJson(false)).get()), 3);
}

TEST(ReportLedger, AlarmKindsAndSubjects) {
    struct Case {
        const char* type;
        std::string payload;
        const char* kind;
        const char* subject;
    } cases[] = {
        {"alarm", hostAlarm("m", "PROCESS_CREATION", ",\"process_cmd_line\":\"/bin/sh -c id\""), "process",
         "/bin/sh -c id"},
        {"alarm", hostAlarm("m", "FILE_DELETION", ",\"file_name\":\"/etc/x\""), "file-delete", "/etc/x"},
        {"alarm", hostAlarm("m", "NETWORK_CONNECTION", ",\"dst_ip\":\"10.0.0.1\",\"dst_port\":443"), "connect",
         "10.0.0.1 port 443"},
        {"alarm", hostAlarm("m", "DNS_QUERY", ",\"query_name\":\"evil.example\""), "dns", "evil.example"},
        {"alarm", hostAlarm("m", "HOST_PORT_LISTENING", ",\"address\":\"0.0.0.0\",\"port\":8080"), "listen",
         "0.0.0.0 port 8080"},
        {"alarm", hostAlarm("m", "99"), "99", ""},
        {"rasp_alarm", raspAlarm("m", "execute", ",\"process_cmd_line\":\"id\""), "execute", "id"},
        {"rasp_alarm", raspAlarm("m", "address", ",\"hostName\":\"db\",\"dst_port\":5432"), "address", "db:5432"},
        {"rasp_alarm", raspAlarm("m", "hsql", ",\"sql_command\":\"drop table t\""), "hsql", "drop table t"},
    };
    for (const Case& c : cases) {
        wljson::Ptr payload = wljson::parse(c.payload);
        EXPECT_EQ(wlagent::alarmKind(c.type, payload.get()), c.kind) << c.payload;
        EXPECT_EQ(wlagent::alarmSubject(payload.get()), c.subject) << c.payload;
    }
}

class AlarmLedger : public ::testing::Test {
protected:
    void SetUp() override {
        ledger.record(envelope("101", "alarm", hostAlarm("web", "PROCESS_CREATION")), 1000);
        ledger.record(envelope("102", "alarm", hostAlarm("web", "FILE_CREATION")), 2000);
        ledger.record(envelope("103", "rasp_alarm", raspAlarm("shop", "execute")), 3000);
        ledger.record(envelope("104", "alarm", hostAlarm("db", "DNS_QUERY")), 4000);
    }
    std::vector<std::string> ids(const AlarmFilter& filter) {
        wljson::Ptr out = take(ledger.alarmsJson(filter));
        std::vector<std::string> result;
        const cJSON* alarm = nullptr;
        cJSON_ArrayForEach(alarm, wljson::get(out.get(), "alarms")) result.push_back(wljson::text(alarm, "id"));
        return result;
    }
    ReportLedger ledger;
};

TEST_F(AlarmLedger, FiltersOldestFirst) {
    struct Case {
        AlarmFilter filter;
        std::vector<std::string> want;
    };
    auto filter = [](std::string model, std::string kind, std::time_t since, uint64_t after, size_t limit) {
        AlarmFilter f;
        f.model = model;
        f.kind = kind;
        f.since = since;
        f.after = after;
        f.limit = limit;
        return f;
    };
    Case cases[] = {
        {filter("", "", 0, 0, 1000), {"101", "102", "103", "104"}},
        {filter("web", "", 0, 0, 1000), {"101", "102"}},
        {filter("", "file", 0, 0, 1000), {"102"}},           // a family of kinds
        {filter("", "FILE_CREATION", 0, 0, 1000), {"102"}},  // the report's own word
        {filter("", "execute", 0, 0, 1000), {"103"}},
        {filter("", "", 2500, 0, 1000), {"103", "104"}},
        {filter("", "", 0, 2, 1000), {"103", "104"}},  // following from ordinal 2
        {filter("", "", 0, 0, 2), {"103", "104"}},     // the newest two
        {filter("nobody", "", 0, 0, 1000), {}},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(ids(c.filter), c.want) << c.filter.model << "/" << c.filter.kind << "/" << c.filter.since;
    }
    wljson::Ptr out = take(ledger.alarmsJson(AlarmFilter()));
    EXPECT_EQ(wljson::number(out.get(), "next"), 4);
}

TEST_F(AlarmLedger, FindsAnAlarmByIdWithItsText) {
    wljson::Ptr alarm = take(ledger.alarmJson("103"));
    ASSERT_TRUE(alarm);
    EXPECT_EQ(wljson::text(alarm.get(), "model"), "shop");
    EXPECT_EQ(wljson::text(wljson::get(alarm.get(), "alarm"), "action"), "execute");
    EXPECT_FALSE(take(ledger.alarmJson("999")));
    wljson::Ptr models = take(ledger.modelJson("host", "web"));
    EXPECT_EQ(wljson::number(models.get(), "alarms"), 2);
    EXPECT_EQ(wljson::number(models.get(), "last_alarm"), 2000);
}

TEST(ReportLedger, KeepsOnlyTheNewestAlarmsAndCountsTheRest) {
    LedgerLimits limits;
    limits.maxAlarms = 3;
    ReportLedger ledger(limits);
    for (int i = 1; i <= 5; ++i) ledger.record(envelope(std::to_string(i), "alarm", hostAlarm("m", "DNS_QUERY")), i);
    EXPECT_FALSE(take(ledger.alarmJson("2")));
    EXPECT_TRUE(take(ledger.alarmJson("3")));
    wljson::Ptr reports = take(ledger.reportsJson());
    EXPECT_EQ(wljson::number(reports.get(), "alarms_evicted"), 2);
    EXPECT_EQ(wljson::number(reports.get(), "alarms_kept"), 3);
    wljson::Ptr model = take(ledger.modelJson("host", "m"));
    EXPECT_EQ(wljson::number(model.get(), "alarms"), 5);  // the count stays whole
}

TEST(ReportLedger, ModelDataBeyondItsBudgetIsLetGoOldestFirst) {
    LedgerLimits limits;
    limits.maxModelDataBytes = 150;
    ReportLedger ledger(limits);
    std::string big = std::string(",\"features\":{\"file\":[\"") + std::string(60, 'x') + "\"]}}";
    ledger.record(envelope("1", "model", "{\"model_name\":\"old\"" + big), 1);
    ledger.record(envelope("2", "model", "{\"model_name\":\"new\"" + big), 2);
    ledger.record(envelope("3", "model", "{\"model_name\":\"newest\"" + big), 3);
    wljson::Ptr old = take(ledger.modelJson("host", "old"));
    EXPECT_TRUE(cJSON_IsTrue(wljson::get(old.get(), "data_evicted")));
    EXPECT_TRUE(cJSON_IsNull(wljson::get(old.get(), "data")));
    wljson::Ptr newest = take(ledger.modelJson("host", "newest"));
    EXPECT_TRUE(cJSON_IsObject(wljson::get(newest.get(), "data")));
}

TEST(ReportLedger, RefusesModelsBeyondItsBound) {
    LedgerLimits limits;
    limits.maxModels = 2;
    ReportLedger ledger(limits);
    for (const char* name : {"a", "b", "c"})
        ledger.record(envelope("1", "learn_status", std::string("{\"model_name\":\"") + name + "\"}"), 1);
    EXPECT_FALSE(take(ledger.modelJson("host", "c")));
    wljson::Ptr reports = take(ledger.reportsJson());
    EXPECT_EQ(wljson::number(reports.get(), "models_refused"), 1);
}

TEST(ReportLedger, TooLargeReportIsCountedNotRead) {
    LedgerLimits limits;
    limits.maxReportBytes = 64;
    ReportLedger ledger(limits);
    EXPECT_FALSE(ledger.record(
        envelope("1", "alarm", hostAlarm("m", "DNS_QUERY", ",\"x\":\"" + std::string(80, 'a') + "\"")), 1));
    wljson::Ptr reports = take(ledger.reportsJson());
    EXPECT_EQ(wljson::number(reports.get(), "too_large"), 1);
}

class SpoolDir : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/ledger-XXXXXX";
        ASSERT_TRUE(mkdtemp(pattern));
        dir = pattern;
    }
    void TearDown() override { std::system(("rm -rf " + dir).c_str()); }
    void write(const std::string& name, const std::string& text) { std::ofstream(dir + "/" + name) << text; }
    std::string dir;
};

TEST_F(SpoolDir, ReplaysRotatedFilesOldestFirst) {
    write("reports.jsonl.2", envelope("10", "learn_status", "{\"model_name\":\"w\",\"feature_count\":1}") + "\n");
    write("reports.jsonl.1",
          envelope("11", "learn_status", "{\"model_name\":\"w\",\"feature_count\":2}") + "\n" + "broken line\n\n");
    write("reports.jsonl", envelope("12", "alarm", hostAlarm("w", "DNS_QUERY"), "2024-05-17 10:00:05") + "\n" +
                               envelope("13", "learn_status", "{\"model_name\":\"w\",\"feature_count\":3}"));
    ReportLedger ledger;
    std::vector<std::string> problems;
    ledger.replaySpool(dir, problems);
    EXPECT_TRUE(problems.empty());
    wljson::Ptr model = take(ledger.modelJson("host", "w"));
    EXPECT_EQ(wljson::number(wljson::get(model.get(), "status"), "feature_count"), 3);
    EXPECT_EQ(ledger.highestSequence(), 13u);
    wljson::Ptr alarm = take(ledger.alarmJson("12"));
    ASSERT_TRUE(alarm);
    EXPECT_EQ(wljson::number(alarm.get(), "seen"), static_cast<double>(wlagent::parseSendTime("2024-05-17 10:00:05")));
    wljson::Ptr reports = take(ledger.reportsJson());
    EXPECT_EQ(wljson::number(reports.get(), "replayed"), 4);
    EXPECT_EQ(wljson::number(reports.get(), "unreadable"), 1);
}

TEST_F(SpoolDir, ReplayReadsOnlyTheNewestBytes) {
    std::string older = envelope("1", "alarm", hostAlarm("w", "DNS_QUERY")) + "\n";
    std::string newer = envelope("2", "alarm", hostAlarm("w", "DNS_QUERY")) + "\n";
    write("reports.jsonl.1", older + older);
    write("reports.jsonl", newer);
    LedgerLimits limits;
    limits.maxReplayBytes = newer.size() + older.size() + 10;  // cuts into the older file
    ReportLedger ledger(limits);
    std::vector<std::string> problems;
    ledger.replaySpool(dir, problems);
    wljson::Ptr reports = take(ledger.reportsJson());
    // The first older line is cut: its head skipped, its tail not read as a report.
    EXPECT_EQ(wljson::number(reports.get(), "replayed"), 2);
    EXPECT_EQ(wljson::number(reports.get(), "replay_skipped_bytes"), older.size() - 10);
    EXPECT_EQ(wljson::number(reports.get(), "unreadable"), 0);
    EXPECT_TRUE(take(ledger.alarmJson("2")));
}

TEST(ParseSendTime, AcceptsOnlyTheEnvelopeForm) {
    EXPECT_GT(wlagent::parseSendTime("2024-05-17 10:00:00"), 0);
    EXPECT_EQ(wlagent::parseSendTime("2024-05-17"), 0);
    EXPECT_EQ(wlagent::parseSendTime("2024-05-17 10:00:00 extra"), 0);
    EXPECT_EQ(wlagent::parseSendTime(""), 0);
}

}  // namespace
