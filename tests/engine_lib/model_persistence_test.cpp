// saveModel / loadModel.
#include <gtest/gtest.h>

#include "engine_test_support.h"

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
