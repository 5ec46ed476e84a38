// The asset store: published kinds, kinds from files, ages, copies.
#include <cjson/cJSON.h>
#include <gtest/gtest.h>
#include <sys/time.h>

#include <atomic>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>
#include <vector>

#include "asset_collection.h"
#include "asset_control.h"
#include "temp_install_dir.h"

namespace {

struct TreeDeleter {
    void operator()(cJSON* tree) const { cJSON_Delete(tree); }
};
using Tree = std::unique_ptr<cJSON, TreeDeleter>;

std::atomic<long long> g_now{1700000000};
long long test_clock() { return g_now.load(); }

class ServicesAssetTest : public ::testing::Test {
protected:
    void SetUp() override {
        asset_control_reset();
        asset_control_set_clock(nullptr);
    }
    void TearDown() override {
        asset_control_reset();
        asset_control_set_clock(nullptr);
    }
    static Tree get(int kind, int max_age = 86400) {
        cJSON* tree = nullptr;
        int rc = get_asset_result_v2(kind, max_age, &tree, 0);
        EXPECT_EQ(rc == 0, tree != nullptr);
        return Tree(tree);
    }
    // The number of entries of the tree's "list", -1 without one.
    static int listSize(const Tree& tree) {
        cJSON* list = tree ? cJSON_GetObjectItem(tree.get(), "list") : nullptr;
        return cJSON_IsArray(list) ? cJSON_GetArraySize(list) : -1;
    }
    std::string writeFile(int kind, const std::string& text) {
        std::string path = TempInstallDir::resolve("@/../var/asset/" + std::to_string(kind) + ".json");
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        std::ofstream(path) << text;
        return path;
    }

    TempInstallDir m_dir;
};

TEST_F(ServicesAssetTest, PublishedKindIsAvailableUntilCleared) {
    EXPECT_EQ(get_asset_info_state_v2(ASSET_KIND_OPEN_PORT, 0), 0);
    EXPECT_EQ(get(ASSET_KIND_OPEN_PORT), nullptr);
    ASSERT_EQ(asset_publish_v2(ASSET_KIND_OPEN_PORT, "{\"list\":[{\"port\":\"80\"},{\"port\":\"0x50\"}]}"), 0);
    EXPECT_NE(get_asset_info_state_v2(ASSET_KIND_OPEN_PORT, 0), 0);
    EXPECT_EQ(get_asset_info_state_v2(ASSET_KIND_PROCESS, 0), 0) << "kinds are separate";
    EXPECT_EQ(listSize(get(ASSET_KIND_OPEN_PORT)), 2);
    ASSERT_EQ(asset_publish_v2(ASSET_KIND_OPEN_PORT, nullptr), 0);
    EXPECT_EQ(get_asset_info_state_v2(ASSET_KIND_OPEN_PORT, 0), 0);
    EXPECT_EQ(get(ASSET_KIND_OPEN_PORT), nullptr);
}

TEST_F(ServicesAssetTest, TextThatIsNotJsonIsRefusedAndLosesNothing) {
    ASSERT_EQ(asset_publish_v2(ASSET_KIND_APP, "{\"list\":[1]}"), 0);
    EXPECT_EQ(asset_publish_v2(ASSET_KIND_APP, "{\"list\":["), -1);
    EXPECT_EQ(asset_publish_v2(ASSET_KIND_APP, ""), -1);
    EXPECT_EQ(listSize(get(ASSET_KIND_APP)), 1);
    EXPECT_EQ(get_asset_result_v2(ASSET_KIND_APP, 0, nullptr, 0), -1);
}

TEST_F(ServicesAssetTest, EachResultIsTheCallersOwnCopy) {
    ASSERT_EQ(asset_publish_v2(ASSET_KIND_APP_EXTRA, "{\"list\":[{\"name\":\"a\"}]}"), 0);
    Tree first = get(ASSET_KIND_APP_EXTRA);
    cJSON_AddItemToArray(cJSON_GetObjectItem(first.get(), "list"), cJSON_CreateNumber(1));
    EXPECT_EQ(listSize(first), 2);
    EXPECT_EQ(listSize(get(ASSET_KIND_APP_EXTRA)), 1);
}

TEST_F(ServicesAssetTest, FileServesAKindNothingWasPublishedFor) {
    writeFile(ASSET_KIND_PROCESS, "{\"list\":[{\"process_id\":\"1\"},{\"process_id\":\"2\"},{\"process_id\":\"3\"}]}");
    EXPECT_NE(get_asset_info_state_v2(ASSET_KIND_PROCESS, 0), 0);
    EXPECT_EQ(listSize(get(ASSET_KIND_PROCESS)), 3);
    ASSERT_EQ(asset_publish_v2(ASSET_KIND_PROCESS, "{\"list\":[]}"), 0);
    EXPECT_EQ(listSize(get(ASSET_KIND_PROCESS)), 0) << "a published list comes first";
    ASSERT_EQ(asset_publish_v2(ASSET_KIND_PROCESS, nullptr), 0);
    EXPECT_EQ(listSize(get(ASSET_KIND_PROCESS)), 3);
}

TEST_F(ServicesAssetTest, BrokenFileIsUnavailable) {
    writeFile(ASSET_KIND_PROCESS, "{\"list\":[");
    EXPECT_EQ(get_asset_info_state_v2(ASSET_KIND_PROCESS, 0), 0);
    EXPECT_EQ(get(ASSET_KIND_PROCESS), nullptr);
}

TEST_F(ServicesAssetTest, AgeLimitOfPublishedKinds) {
    asset_control_set_clock(test_clock);
    g_now = 1700000000;
    ASSERT_EQ(asset_publish_v2(ASSET_KIND_OPEN_PORT, "{\"list\":[]}"), 0);
    struct Case {
        long long elapsed;
        int max_age;
        bool available;
    };
    const Case cases[] = {
        {0, 86400, true},     {86400, 86400, true}, {86401, 86400, false},
        {86401, 0, true},     {86401, -1, true},    {10, 5, false},
    };
    for (const Case& c : cases) {
        g_now = 1700000000 + c.elapsed;
        EXPECT_EQ(get(ASSET_KIND_OPEN_PORT, c.max_age) != nullptr, c.available)
            << "elapsed " << c.elapsed << " max_age " << c.max_age;
    }
    EXPECT_NE(get_asset_info_state_v2(ASSET_KIND_OPEN_PORT, 0), 0) << "an old list is still collected";
}

TEST_F(ServicesAssetTest, AgeOfAFileIsItsModificationTime) {
    std::string path = writeFile(ASSET_KIND_APP, "{\"list\":[]}");
    timeval times[2];
    times[0].tv_sec = times[1].tv_sec = std::time(nullptr) - 1000;
    times[0].tv_usec = times[1].tv_usec = 0;
    ASSERT_EQ(utimes(path.c_str(), times), 0);
    EXPECT_EQ(get(ASSET_KIND_APP, 500), nullptr);
    EXPECT_NE(get(ASSET_KIND_APP, 5000), nullptr);
}

TEST_F(ServicesAssetTest, ConcurrentPublishersAndReaders) {
    std::atomic<bool> stop{false};
    std::atomic<int> bad{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 300; ++i) {
                asset_publish_v2(ASSET_KIND_OPEN_PORT, (i + t) % 5 ? "{\"list\":[1,2]}" : nullptr);
            }
        });
    }
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&] {
            while (!stop) {
                Tree tree = get(ASSET_KIND_OPEN_PORT);
                if (tree && listSize(tree) != 2) ++bad;
            }
        });
    }
    threads[0].join();
    threads[1].join();
    stop = true;
    threads[2].join();
    threads[3].join();
    EXPECT_EQ(bad, 0);
}

}  // namespace
