// initModel and interactModel, and the texts the module uploads.
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include "engine_test_support.h"

using namespace enginetest;

namespace {

class ModelCommandsTest : public ::testing::Test {
protected:
    void SetUp() override {
        engine = makeBaseEngine();
        ASSERT_TRUE(engine->initModel(startCommand("shop", 1, "/usr/sbin/shopd", {10}).get()));
    }
    void see(const std::string& file, unsigned long long pid = 10) {
        auto event = fileEvent(pid, file);
        engine->processEvent(*event);
        last = std::move(event);
    }
    rapidjson::Document status(const std::string& name) {
        rapidjson::Document document;
        document.Parse(engine->getModelStatus(name).c_str());
        return document;
    }

    std::unique_ptr<BaseInterface> engine;
    std::unique_ptr<_BASE_EVENTINFO> last;
};

}  // namespace

TEST_F(ModelCommandsTest, InteractResultCodes) {
    struct Case {
        int oprType;
        const char* name;
        unsigned short switchValue;
        int expected;
    } cases[] = {
        {USR_OPR_RELEARN, "shop", 0, 0},      {USR_OPR_RELEARN, "none", 0, -1},
        {USR_OPR_QUERY, "shop", 0, 0},        {USR_OPR_QUERY, "none", 0, -1},
        {USR_OPR_STUDY_TIME, "shop", 0, 0},   {USR_OPR_STUDY_TIME, "none", 0, -1},
        {USR_OPR_SWITCH, "shop", 1, 0},       {USR_OPR_SWITCH, "shop", 7, -1},
        {USR_OPR_SWITCH, "none", 1, -1},      {5, "shop", 0, -1},
        {USR_OPR_DELETE, "none", 0, -2},      {USR_OPR_DELETE, "shop", 0, 0},
        {USR_OPR_DELETE, "shop", 0, -2},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(engine->interactModel(command(c.oprType, c.name, 1, c.switchValue).get()), c.expected)
            << "oprType " << c.oprType << " on " << c.name;
    }
    EXPECT_EQ(engine->interactModel(nullptr), -1);
    EXPECT_EQ(engine->getModelStatus("shop"), "ERROR") << "deleted";
}

TEST_F(ModelCommandsTest, InitRefusesWhatItCannotCreate) {
    EXPECT_FALSE(engine->initModel(nullptr));
    EXPECT_FALSE(engine->initModel(command(USR_OPR_INIT, "").get()));
    EXPECT_FALSE(engine->initModel(command(USR_OPR_QUERY, "other").get()));
    EXPECT_FALSE(engine->initModel(command(USR_OPR_SWITCH, "other", 1, 9).get()));
    EXPECT_EQ(engine->getModelStatus("other"), "ERROR") << "a refused init creates nothing";
    EXPECT_TRUE(engine->initModel(command(USR_OPR_SWITCH, "idle", 3, USR_SWITCH_NOT_RUNNING).get()));
    auto idle = status("idle");
    EXPECT_FALSE(idle["running"].GetBool());
    EXPECT_EQ(idle["learn_time"].GetUint(), 3u);
}

TEST_F(ModelCommandsTest, RelearnForgetsFeaturesAndRestartsTheClock) {
    see("/a");
    engine->elapseTime(60, 0);
    ASSERT_EQ(status("shop")["period"], "FILTER_PEROID");
    ASSERT_EQ(engine->interactModel(command(USR_OPR_RELEARN, "shop", 2).get()), 0);
    auto after = status("shop");
    EXPECT_EQ(after["period"], "LEARN_PEROID");
    EXPECT_EQ(after["feature_count"].GetUint(), 0u);
    EXPECT_EQ(after["learn_time"].GetUint(), 2u);
    engine->elapseTime(60, 0);
    engine->elapseTime(60, 0);
    see("/a");
    EXPECT_EQ(last->match_verdict, 1);
    EXPECT_EQ(last->delay_gate, 1) << "/a was forgotten by the relearn";
}

TEST_F(ModelCommandsTest, NewStudyTimeKeepsFeaturesAndMovesTheEnd) {
    see("/a");
    engine->elapseTime(60, 0);
    ASSERT_EQ(engine->interactModel(command(USR_OPR_STUDY_TIME, "shop", 3).get()), 0);
    auto longer = status("shop");
    EXPECT_EQ(longer["period"], "LEARN_PEROID");
    EXPECT_EQ(longer["learned_minutes"].GetUint(), 1u);
    EXPECT_EQ(longer["feature_count"].GetUint(), 1u);
    engine->elapseTime(60, 0);
    engine->elapseTime(60, 0);
    EXPECT_EQ(status("shop")["period"], "FILTER_PEROID");
}

TEST_F(ModelCommandsTest, StatusAndDataTexts) {
    auto empty = makeBaseEngine();
    EXPECT_EQ(empty->getModelStatus(""), "{}");
    EXPECT_EQ(empty->getModelData(""), "{}");
    EXPECT_EQ(engine->getModelStatus("nope"), "ERROR");
    EXPECT_EQ(engine->getModelData("nope"), "{}");

    ASSERT_TRUE(engine->initModel(startCommand("crm", 5, "/opt/crm/bin/crm", {20}).get()));
    see("/var/shop/cache");
    see("/etc/crm.conf", 20);
    rapidjson::Document all;
    all.Parse(engine->getModelStatus("").c_str());
    ASSERT_TRUE(all.IsObject());
    ASSERT_EQ(all["models"].Size(), 2u);
    EXPECT_EQ(all["models"][0]["model_name"], "crm");
    EXPECT_EQ(all["models"][1]["model_name"], "shop");

    rapidjson::Document data;
    data.Parse(engine->getModelData("crm").c_str());
    ASSERT_TRUE(data.IsObject());
    ASSERT_TRUE(data["features"]["file"].IsArray());
    EXPECT_EQ(data["features"]["file"][0], "/etc/crm.conf");
    EXPECT_EQ(data["pids"][0].GetUint64(), 20u);
    EXPECT_EQ(data["process_paths"][0], "/opt/crm/bin/crm");
}

TEST_F(ModelCommandsTest, ChangedModelsComeInTurnOnce) {
    ASSERT_TRUE(engine->initModel(startCommand("crm", 5, "/opt/crm/bin/crm", {20}).get()));
    EXPECT_EQ(engine->getChangedModel(), "crm");
    EXPECT_EQ(engine->getChangedModel(), "shop");
    EXPECT_EQ(engine->getChangedModel(), "");
    see("/a");
    see("/a");  // nothing new the second time
    EXPECT_EQ(engine->getChangedModel(), "shop");
    EXPECT_EQ(engine->getChangedModel(), "");
    see("/b", 20);
    see("/b");
    EXPECT_EQ(engine->getChangedModel(), "crm") << "round robin resumes after the last one named";
    EXPECT_EQ(engine->getChangedModel(), "shop");
}
