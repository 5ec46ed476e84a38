// saveModel / loadModel and setConfig.
#include <gtest/gtest.h>

#include "engine_test_support.h"

using namespace enginetest;

namespace {

std::vector<std::string> modelFiles(const TempDir& dir) {
    std::vector<std::string> names;
    for (const std::string& name : dir.files()) {
        if (name.size() > 11 && name.compare(name.size() - 11, 11, ".model.json") == 0) names.push_back(name);
    }
    return names;
}

}  // namespace

TEST(ModelPersistenceTest, SavedModelsLoadBackWithEverythingLearned) {
    TempDir dir;
    auto first = makeBaseEngine();
    ASSERT_TRUE(first->initModel(startCommand("shop", 3, "/usr/sbin/shopd", {10, 11}).get()));
    ASSERT_TRUE(first->initModel(startCommand("crm/eu \xc3\xa9", 0, "/opt/crm", {20}).get()));
    for (const char* file : {"/a", "/b"}) {
        auto event = fileEvent(10, file);
        first->processEvent(*event);
    }
    auto peer = connection(10, "10.0.0.7", 5432);
    first->processEvent(*peer);
    first->elapseTime(60, 0);
    ASSERT_EQ(first->interactModel(command(USR_OPR_SWITCH, "crm/eu \xc3\xa9", 0, USR_SWITCH_OFF).get()), 0);
    ASSERT_EQ(first->saveModel(dir.path().c_str()), 0);
    EXPECT_EQ(modelFiles(dir).size(), 2u);

    auto second = makeBaseEngine();
    ASSERT_NE(second->loadModel(dir.path().c_str()), -1);
    EXPECT_EQ(second->getModelData(""), first->getModelData(""));
    EXPECT_EQ(second->getModelStatus(""), first->getModelStatus(""));

    // The learning clock goes on where it stood: two more minutes end it.
    second->elapseTime(60, 0);
    second->elapseTime(60, 0);
    auto known = connection(10, "10.0.0.7", 5432);
    second->processEvent(*known);
    EXPECT_EQ(period(*known), "FILTER_PEROID");
    EXPECT_EQ(known->match_verdict, 1);
    EXPECT_EQ(known->delay_gate, 2);
}

TEST(ModelPersistenceTest, DirectoryStates) {
    TempDir dir;
    auto engine = makeBaseEngine();
    EXPECT_NE(engine->loadModel(dir.path().c_str()), -1) << "an empty directory is a success";
    EXPECT_EQ(engine->getModelStatus(""), "{}");
    std::string missing = dir.path() + "/absent";
    EXPECT_EQ(engine->loadModel(missing.c_str()), -1);
    EXPECT_EQ(engine->loadModel(nullptr), -1);
    ASSERT_TRUE(engine->initModel(startCommand("shop", 1, "/x", {1}).get()));
    EXPECT_EQ(engine->saveModel(missing.c_str()), -1);
}

TEST(ModelPersistenceTest, DamagedFilesAreSkippedAndTheRestLoads) {
    TempDir dir;
    auto engine = makeBaseEngine();
    ASSERT_TRUE(engine->initModel(startCommand("shop", 1, "/x", {1}).get()));
    ASSERT_EQ(engine->saveModel(dir.path().c_str()), 0);
    dir.write("truncated.model.json", "{\"model_name\":\"cut\",\"learn_ti");
    dir.write("wrong.model.json", "{\"model_name\":\"w\",\"learn_time\":\"ten\",\"learned_seconds\":0}");
    dir.write("notes.txt", "not a model");

    auto loaded = makeBaseEngine();
    ASSERT_NE(loaded->loadModel(dir.path().c_str()), -1);
    EXPECT_NE(loaded->getModelStatus("shop"), "ERROR");
    EXPECT_EQ(loaded->getModelStatus("cut"), "ERROR");
    EXPECT_EQ(loaded->getModelStatus("w"), "ERROR");
}

TEST(ModelPersistenceTest, DeletedModelLeavesTheDirectoryAtTheNextSave) {
    TempDir dir;
    auto engine = makeBaseEngine();
    ASSERT_TRUE(engine->initModel(startCommand("shop", 1, "/x", {1}).get()));
    ASSERT_TRUE(engine->initModel(startCommand("crm", 1, "/y", {2}).get()));
    ASSERT_EQ(engine->saveModel(dir.path().c_str()), 0);
    ASSERT_EQ(engine->interactModel(command(USR_OPR_DELETE, "crm").get()), 0);
    ASSERT_EQ(engine->saveModel(dir.path().c_str()), 0);
    EXPECT_EQ(modelFiles(dir), std::vector<std::string>{"shop.model.json"});
    auto loaded = makeBaseEngine();
    ASSERT_NE(loaded->loadModel(dir.path().c_str()), -1);
    EXPECT_EQ(loaded->getModelStatus("crm"), "ERROR");
}

TEST(ModelPersistenceTest, NamesThatAreNoFileNamesStayApart) {
    TempDir dir;
    auto engine = makeBaseEngine();
    const std::vector<std::string> names = {"a/b", "a_b", "a?b", "..", std::string(300, 'x')};
    for (const std::string& name : names) {
        ASSERT_TRUE(engine->initModel(startCommand(name, 1, "/x", {1}).get())) << name;
    }
    ASSERT_EQ(engine->saveModel(dir.path().c_str()), 0);
    EXPECT_EQ(modelFiles(dir).size(), 5u);
    auto loaded = makeBaseEngine();
    ASSERT_NE(loaded->loadModel(dir.path().c_str()), -1);
    EXPECT_EQ(loaded->getModelData(""), engine->getModelData(""));
}

TEST(EngineConfigTest, SettingsFile) {
    TempDir dir;
    auto engine = makeBaseEngine();
    EXPECT_EQ(engine->setConfig((dir.path() + "/missing.ini").c_str()), -1);
    EXPECT_EQ(engine->setConfig(dir.path().c_str()), -1) << "a directory is no settings file";

    // Keys of other sections and malformed values leave the defaults.
    dir.write("other.ini", "[agent]\nlearn_unit_seconds=1\n[engine]\nmax_features=-5\nlearn_unit_seconds = x\n");
    ASSERT_EQ(engine->setConfig((dir.path() + "/other.ini").c_str()), 0);
    ASSERT_TRUE(engine->initModel(startCommand("shop", 2, "/x", {1}).get()));
    engine->elapseTime(60, 0);
    auto event = fileEvent(1, "/a");
    engine->processEvent(*event);
    EXPECT_EQ(period(*event), "LEARN_PEROID") << "still minutes";

    dir.write("seconds.ini", "; learn in seconds\n[engine]\nlearn_unit_seconds=30\n");
    ASSERT_EQ(engine->setConfig((dir.path() + "/seconds.ini").c_str()), 0);
    event = fileEvent(1, "/a");
    engine->processEvent(*event);
    EXPECT_EQ(period(*event), "FILTER_PEROID") << "60 s learned against 2 x 30 s";
}
