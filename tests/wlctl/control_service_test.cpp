// The control service's answers: models merged from reports and catalogue,
// learning progress, drops, and the replies to each request.
#include <gtest/gtest.h>

#include "control_service.h"
#include "json_util.h"

namespace {

using wlagent::CatalogueEntry;
using wlagent::ControlService;
using wlagent::ReportLedger;
using wlagent::StatusSources;

TEST(LearningProgress, FromTheModelStatus) {
    struct Case {
        const char* status;
        double want;
    } cases[] = {
        {"{\"period\":\"LEARN_PEROID\",\"learned_seconds\":1800,\"learn_time\":60,\"learn_unit_seconds\":60}", 0.5},
        {"{\"period\":\"LEARN_PEROID\",\"learned_seconds\":30,\"learn_time\":1,\"learn_unit_seconds\":120}", 0.25},
        {"{\"period\":\"LEARN_PEROID\",\"learned_seconds\":60,\"learn_time\":2}", 0.5},  // minutes by default
        {"{\"period\":\"LEARN_PEROID\",\"learned_seconds\":999,\"learn_time\":1,\"learn_unit_seconds\":60}", 1},
        {"{\"period\":\"FILTER_PEROID\",\"learned_seconds\":0,\"learn_time\":60}", 1},
        {"{\"period\":\"LEARN_PEROID\",\"learned_seconds\":0,\"learn_time\":0}", 1},
        {"{\"period\":\"LEARN_PEROID\"}", -1},
        {"null", -1},
    };
    for (const Case& c : cases) {
        wljson::Ptr status = wljson::parse(c.status);
        EXPECT_DOUBLE_EQ(wlagent::learningProgress(status.get()), c.want) << c.status;
    }
}

TEST(SumDrops, CountsEveryDropOrLossAtAnyDepth) {
    wljson::Ptr counters = wljson::parse(
        "{\"published\":9,\"dropped_full_events\":2,\"events\":{\"20\":{\"delivered\":5,\"dropped\":3},"
        "\"19\":{\"lost\":1}},\"overflow_closed\":4,\"name\":\"dropped\"}");
    EXPECT_EQ(wlagent::sumDrops(counters.get()), 10);
}

class Service : public ::testing::Test {
protected:
    Service() {
        sources.version = "9.9";
        sources.started = std::time(nullptr) - 5;
        sources.catalogue = [this] { return catalogue; };
        sources.busCounters = [] { return std::string("{\"dropped\":2}"); };
        sources.moduleCounters = [] {
            return std::string("{\"base_queued\":9,\"base_dropped_full\":7,\"rasp_dropped_full\":1,\"rasp_depth\":4}");
        };
        sources.collectorStatus = [](std::string& error) {
            error.clear();
            return std::string("{\"lost_kernel\":3,\"kinds\":{\"a\":{\"lost_queue\":1,\"lost_socket\":2}}}");
        };
        sources.forwarderStatus = [] {
            return std::string(
                "{\"sinks\":{\"file\":{\"failed\":4},\"http\":{\"failed\":1}},\"spool\":{\"dropped\":6}}");
        };
        sources.setModule = [this](bool on) {
            switched = on ? 1 : 0;
            return std::string(refuseSwitch ? "the main loop is stuck" : "");
        };
    }
    wljson::Ptr ask(const std::string& request) {
        ControlService service(sources, ledger);
        return wljson::parse(service.handle(request));
    }
    StatusSources sources;
    ReportLedger ledger;
    std::vector<CatalogueEntry> catalogue;
    int switched = -1;
    bool refuseSwitch = false;
};

TEST_F(Service, ModelsJoinReportsAndCatalogue) {
    ledger.record(
        "{\"seq_id\":\"1\",\"type\":\"learn_status\",\"learn_status\":{\"model_name\":\"web\","
        "\"period\":\"LEARN_PEROID\",\"learned_seconds\":15,\"learn_time\":1,\"feature_count\":4}}",
        1);
    CatalogueEntry web{"host", "web", "web", "/usr/sbin/nginx", "80,443", 1, true};
    CatalogueEntry api{"app", "api", "api", "/usr/bin/python3", "8000", 60, false};
    catalogue = {web, api};
    wljson::Ptr reply = ask("{\"cmd\":\"models\"}");
    ASSERT_TRUE(cJSON_IsTrue(wljson::get(reply.get(), "ok")));
    const cJSON* models = wljson::get(reply.get(), "models");
    ASSERT_EQ(cJSON_GetArraySize(models), 2);
    const cJSON* first = cJSON_GetArrayItem(models, 0);
    EXPECT_EQ(wljson::text(first, "name"), "web");
    EXPECT_EQ(wljson::text(first, "period"), "learning");
    EXPECT_DOUBLE_EQ(wljson::number(first, "progress"), 0.25);
    EXPECT_EQ(wljson::number(first, "features"), 4);
    EXPECT_TRUE(cJSON_IsTrue(wljson::get(first, "in_catalogue")));
    EXPECT_EQ(wljson::text(wljson::get(first, "definition"), "ports"), "80,443");
    const cJSON* second = cJSON_GetArrayItem(models, 1);
    EXPECT_EQ(wljson::text(second, "name"), "api");
    EXPECT_EQ(wljson::text(second, "period"), "unknown");
    EXPECT_TRUE(cJSON_IsNull(wljson::get(second, "progress")));
}

TEST_F(Service, StatusGathersEveryDrop) {
    ledger.recordLost("{\"type\":\"alarm\",\"alarm\":{}}");
    wljson::Ptr reply = ask("{\"cmd\":\"status\"}");
    const cJSON* status = wljson::get(reply.get(), "status");
    EXPECT_EQ(wljson::text(wljson::get(status, "agent"), "version"), "9.9");
    EXPECT_GE(wljson::number(wljson::get(status, "agent"), "uptime_seconds"), 5);
    const cJSON* drops = wljson::get(status, "drops");
    EXPECT_EQ(wljson::number(drops, "bus"), 2);
    EXPECT_EQ(wljson::number(drops, "module_queues"), 8);
    EXPECT_TRUE(wljson::get(drops, "telemetry") == nullptr);  // counters unknown: not claimed as 0
    EXPECT_TRUE(cJSON_IsNull(wljson::get(wljson::get(status, "engines"), "telemetry")));
    EXPECT_EQ(wljson::number(drops, "collector_kernel"), 3);
    EXPECT_EQ(wljson::number(drops, "collector_queue"), 1);
    EXPECT_EQ(wljson::number(drops, "collector_socket"), 2);
    EXPECT_EQ(wljson::number(drops, "reports_lost"), 1);
    EXPECT_EQ(wljson::number(drops, "spool_dropped"), 6);
    EXPECT_EQ(wljson::number(drops, "sink_failed"), 5);
}

TEST_F(Service, RepliesAndRefusals) {
    ledger.record(
        "{\"seq_id\":\"77\",\"type\":\"rasp_alarm\",\"rasp_alarm\":{\"model_name\":\"api\",\"action\":\"read\"}}", 1);
    struct Case {
        const char* request;
        bool ok;
        const char* code;
    } cases[] = {
        {"{\"cmd\":\"alarm\",\"id\":\"77\"}", true, ""},
        {"{\"cmd\":\"alarm\",\"id\":\"78\"}", false, "not_found"},
        {"{\"cmd\":\"model\",\"name\":\"api\"}", true, ""},
        {"{\"cmd\":\"model\",\"name\":\"api\",\"engine\":\"host\"}", false, "not_found"},
        {"{\"cmd\":\"alarms\",\"kind\":\"read\"}", true, ""},
        {"{\"cmd\":\"nope\"}", false, "bad_request"},
        {"{\"cmd\":\"module\",\"on\":true}", true, ""},
    };
    for (const Case& c : cases) {
        wljson::Ptr reply = ask(c.request);
        EXPECT_EQ(cJSON_IsTrue(wljson::get(reply.get(), "ok")), c.ok) << c.request;
        EXPECT_EQ(wljson::text(reply.get(), "code"), c.code) << c.request;
        if (!c.ok) {
            EXPECT_FALSE(wljson::text(reply.get(), "error").empty()) << c.request;
        }
    }
    EXPECT_EQ(switched, 1);
    refuseSwitch = true;
    wljson::Ptr reply = ask("{\"cmd\":\"module\",\"on\":false}");
    EXPECT_EQ(wljson::text(reply.get(), "code"), "failed");
    EXPECT_EQ(wljson::text(reply.get(), "error"), "the main loop is stuck");
}

}  // namespace
