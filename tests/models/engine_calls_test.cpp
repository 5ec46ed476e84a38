// Model commands through the real engines down to the recording model
// library: the calls reach the library object the engine holds, and the
// engine reports the model's state afterwards.
#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <memory>

#include "base.h"
#include "dirutils.h"
#include "doubles/agent_doubles.h"
#include "fake_model_library.h"
#include "rasp.h"
#include "whitelist_api.h"
#include "whitelist_upload.h"

namespace {

using fake_model::Engine;

class EngineCallsTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/wl_models_engine_XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        m_root = pattern;
        std::filesystem::create_directories(m_root + "/var/base");
        dirutils_set_install_dir((m_root + "/lib").c_str());
        fake_model::Library::instance().reset();
        models_double::reset_agent();
        g_model_array->clear();
        m_base.reset(BaseFactory().getBaseInterface());
        m_rasp.reset(RaspFactory().getRaspInterface());
        base_engine->m_baseEngine = m_base.get();
        rasp_engine->m_raspEngine = m_rasp.get();
    }
    void TearDown() override {
        base_engine->m_baseEngine = nullptr;
        rasp_engine->m_raspEngine = nullptr;
        std::error_code ignored;
        std::filesystem::remove_all(m_root, ignored);
    }
    static std::unique_ptr<cJSON, void (*)(cJSON*)> json(const char* text) {
        return {cJSON_Parse(text), cJSON_Delete};
    }
    std::vector<int> upload_types() const {
        std::vector<int> types;
        for (const auto& upload : models_double::uploads()) types.push_back(upload.type);
        std::sort(types.begin(), types.end());
        return types;
    }

    std::string m_root;
    std::unique_ptr<BaseInterface> m_base;
    std::unique_ptr<RaspInterface> m_rasp;
};

TEST_F(EngineCallsTest, StartReachesTheBaseLibraryAndReportsTheLearnStatus) {
    auto& library = fake_model::Library::instance();
    library.setDefaultText(Engine::Base, "getModelStatus", R"({"web":"LEARN_PEROID"})");
    auto root = json(R"({"opr_code":1,"data":{"list":[{"model_name":"web","port":[80]}]}})");
    EXPECT_EQ(whitelist_base_task_start(root.get()), 0);
    auto inits = library.calls(Engine::Base, "initModel");
    ASSERT_EQ(inits.size(), 1u);
    EXPECT_EQ(inits[0].modelName, "web");
    EXPECT_EQ(library.count(Engine::Base, "getModelStatus"), 1);
    EXPECT_EQ(upload_types(), (std::vector<int>{WL_REPORT_LEARN_STATUS}));
    EXPECT_EQ(library.count(Engine::Rasp, "initModel"), 0);
}

TEST_F(EngineCallsTest, RaspQueryReachesTheRaspLibraryAndUploadsTheModel) {
    auto& library = fake_model::Library::instance();
    library.setDefaultText(Engine::Rasp, "getModelStatus", R"({"shop":"FILTER_PEROID"})");
    library.setDefaultText(Engine::Rasp, "getModelData", R"({"shop":{}})");
    auto root = json(R"({"opr_code":102,"data":{"list":["shop"]}})");
    EXPECT_EQ(whitelist_rasp_task_interact(2, root.get()), 0);
    auto interacts = library.calls(Engine::Rasp, "interactModel");
    ASSERT_EQ(interacts.size(), 1u);
    EXPECT_EQ(interacts[0].oprType, USR_OPR_QUERY);
    EXPECT_EQ(upload_types(), (std::vector<int>{WL_REPORT_RASP_MODEL, WL_REPORT_RASP_LEARN_STATUS}));
    EXPECT_EQ(library.count(Engine::Base, "interactModel"), 0);
}

}  // namespace
