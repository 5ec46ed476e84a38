// saveModel / loadModel.
#include <gtest/gtest.h>

#include "event_script.h"

using namespace enginetest;

TEST(ModelPersistenceTest, SavedModelsLoadBackWithEverythingLearnedAndDamagedFilesAreSkipped) {
    TempDir dir;
    auto first = makeBaseEngine();
    ASSERT_TRUE(first->initModel(startCommand("shop", 3, "/usr/sbin/shopd", {10, 11}).get()));
    // Names that are no file names must still get files of their own.
    for (const char* name : {"crm/eu \xc3\xa9", "crm_eu \xc3\xa9", ".."}) {
        ASSERT_TRUE(first->initModel(startCommand(name, 0, "/opt/crm", {20}).get())) << name;
    }
    for (const EventKind& kind : kEventKinds) first->processEvent(*hostEvent(kind.type, 10, kind.learned));
    first->elapseTime(60, 0);
    ASSERT_EQ(first->interactModel(command(USR_OPR_SWITCH, "crm/eu \xc3\xa9", 0, USR_SWITCH_OFF).get()), 0);
    ASSERT_EQ(first->saveModel(dir.path().c_str()), 0);
    std::ofstream(dir.path() + "/truncated.model.json") << "{\"model_name\":\"cut\",\"learn_ti";

    auto second = makeBaseEngine();
    ASSERT_NE(second->loadModel(dir.path().c_str()), -1);
    EXPECT_EQ(second->getModelData(""), first->getModelData(""));
    EXPECT_EQ(second->getModelStatus(""), first->getModelStatus(""));
    EXPECT_EQ(second->getModelStatus("cut"), "ERROR");
    EXPECT_EQ(second->loadModel((dir.path() + "/absent").c_str()), -1);

    // The learning clock goes on where it stood: two more minutes end it.
    second->elapseTime(60, 0);
    second->elapseTime(60, 0);
    EXPECT_NE(second->getModelStatus("shop").find("FILTER_PEROID"), std::string::npos);
}

TEST(ModelPersistenceTest, LiteralFeaturesOfAnEarlierFormatLoadNormalised) {
    TempDir dir;
    std::ofstream(dir.path() + "/shop.model.json")
        << R"({"format":1,"model_name":"shop","learn_time":1,"learned_seconds":60,"switch":1,"running":true,)"
        << R"("process_paths":["/usr/sbin/shopd"],"pids":[4242],"features":{)"
        << R"("file":["/var/shop/upload/1.jpg","/var/shop/upload/2.jpg"],"connect":["10.0.0.5|3306|tcp"],)"
        << R"("mysql":["SELECT * FROM t WHERE id=1","select * from t where id = 2"]}})";
    auto host = makeBaseEngine();
    ASSERT_EQ(host->loadModel(dir.path().c_str()), 1);
    EXPECT_NE(host->getModelStatus("shop").find("\"feature_count\":3"), std::string::npos)
        << "literal texts that fold together are one feature: " << host->getModelStatus("shop");
    for (const char* line : {"file /var/shop/upload/3.jpg", "connect 10.0.0.5 3306 tcp 4711"}) {
        EXPECT_FALSE(judgedBlack(*host, *hostLine(line))) << line;
    }
    std::unique_ptr<RaspInterface> rasp(RaspFactory().getRaspInterface());
    ASSERT_EQ(rasp->loadModel(dir.path().c_str()), 1);
    EXPECT_FALSE(judgedBlack(*rasp, *raspLine("mysql SELECT * FROM t WHERE id = 77")));
}

TEST(ModelPersistenceTest, LookedUpNamesAndLearningProgressSurviveARestart) {
    TempDir dir;
    auto first = startedEngine<BaseInterface>(4);
    feed(*first, {"dns api.pay.example 198.51.100.10", "connect 198.51.100.10 443 tcp 1"});
    first->elapseTime(60, 0);
    ASSERT_EQ(first->saveModel(dir.path().c_str()), 0);

    auto second = makeBaseEngine();
    ASSERT_EQ(second->loadModel(dir.path().c_str()), 1);
    EXPECT_EQ(second->getModelStatus("shop"), first->getModelStatus("shop"));
    for (int i = 0; i < 3; ++i) second->elapseTime(60, 0);
    // After the restart the application connects with the address it resolved before.
    EXPECT_FALSE(judgedBlack(*second, *hostLine("connect 198.51.100.10 443 tcp 2")));
}
