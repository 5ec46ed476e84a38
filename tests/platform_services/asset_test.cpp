// The asset store: published kinds, kinds from files, and ages.
#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>

#include "asset_collection.h"
#include "asset_control.h"
#include "temp_dir.h"

namespace {

struct TreeDeleter {
    void operator()(cJSON* tree) const { cJSON_Delete(tree); }
};
using Tree = std::unique_ptr<cJSON, TreeDeleter>;

long long g_now = 0;

class ServicesAssetTest : public ::testing::Test {
protected:
    void SetUp() override { asset_control_reset(); }
    void TearDown() override {
        asset_control_reset();
        asset_control_set_clock(nullptr);
    }
    // The number of entries of the kind's "list"; -1 when unavailable.
    static int listSize(int kind, int max_age = 86400) {
        cJSON* raw = nullptr;
        int rc = get_asset_result_v2(kind, max_age, &raw, 0);
        Tree tree(raw);
        EXPECT_EQ(rc == 0, tree != nullptr);
        cJSON* list = tree ? cJSON_GetObjectItem(tree.get(), "list") : nullptr;
        return cJSON_IsArray(list) ? cJSON_GetArraySize(list) : -1;
    }

    TempInstallRoot m_dir{"agent"};
};

TEST_F(ServicesAssetTest, PublishedListComesFirstThenTheFile) {
    EXPECT_EQ(get_asset_info_state_v2(ASSET_KIND_PROCESS, 0), 0);
    EXPECT_EQ(listSize(ASSET_KIND_PROCESS), -1);
    std::filesystem::create_directories(m_dir.path() + "/var/asset");
    std::ofstream(m_dir.path() + "/var/asset/" + std::to_string(ASSET_KIND_PROCESS) + ".json")
        << "{\"list\":[{\"process_id\":\"1\"},{\"process_id\":\"2\"},{\"process_id\":\"3\"}]}";
    EXPECT_NE(get_asset_info_state_v2(ASSET_KIND_PROCESS, 0), 0);
    EXPECT_EQ(listSize(ASSET_KIND_PROCESS), 3);

    ASSERT_EQ(asset_publish_v2(ASSET_KIND_PROCESS, "{\"list\":[{\"process_id\":\"9\"}]}"), 0);
    EXPECT_EQ(listSize(ASSET_KIND_PROCESS), 1);
    EXPECT_EQ(get_asset_info_state_v2(ASSET_KIND_OPEN_PORT, 0), 0) << "kinds are separate";
    EXPECT_EQ(asset_publish_v2(ASSET_KIND_PROCESS, "{\"list\":["), -1);
    EXPECT_EQ(listSize(ASSET_KIND_PROCESS), 1) << "a refused text loses nothing";
    ASSERT_EQ(asset_publish_v2(ASSET_KIND_PROCESS, nullptr), 0);
    EXPECT_EQ(listSize(ASSET_KIND_PROCESS), 3);
}

TEST_F(ServicesAssetTest, AgeLimitOfPublishedKinds) {
    g_now = 1700000000;
    asset_control_set_clock([] { return g_now; });
    ASSERT_EQ(asset_publish_v2(ASSET_KIND_OPEN_PORT, "{\"list\":[]}"), 0);
    struct Case {
        long long elapsed;
        int max_age;
        bool available;
    };
    const Case cases[] = {
        {86400, 86400, true},
        {86401, 86400, false},
        {86401, 0, true},
        {86401, -1, true},
    };
    for (const Case& c : cases) {
        g_now = 1700000000 + c.elapsed;
        EXPECT_EQ(listSize(ASSET_KIND_OPEN_PORT, c.max_age) == 0, c.available)
            << "elapsed " << c.elapsed << " max_age " << c.max_age;
    }
    EXPECT_NE(get_asset_info_state_v2(ASSET_KIND_OPEN_PORT, 0), 0) << "an old list is still collected";
}

}  // namespace
