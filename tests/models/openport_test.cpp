// The open-port process report: which kind-5 entries are kept and what they
// gain from the process and application lists.
#include <filesystem>

#include "models_fixture.h"
#include "whitelist_impl.h"
#include "whitelist_upload.h"

namespace {

const char* kProcesses = R"({"list":[
    "junk", {"process_id":"abc","type":"x"}, {"process_id":"100"},
    {"process_id":"100","type":""}, {"process_id":"100","type":"service"}, {"process_id":"100","type":"late"},
    {"process_id":"300","type":"daemon"}]})";
const char* kApps = R"({"list":[{"pid":[5,100],"name":"nginx"},{"pid":[200],"name":""},{"pid":"300","name":"x"}]})";
const char* kMoreApps = R"({"list":[{"pid":[100],"name":"other"},{"pid":[200],"name":"late"},
    {"pid":[300],"name":"redis"}]})";

class OpenPortTest : public ModelsTest {
protected:
    void SetUp() override {
        ModelsTest::SetUp();
        std::filesystem::create_directories(path("vr_agent"));
        models_double::set_asset(3, kProcesses);
        models_double::set_asset(7, kApps);
        models_double::set_asset(9, kMoreApps);
    }
    std::string entry(const std::string& port, const std::string& pid, const std::string& process_path,
                      const std::string& open = "0") {
        return R"({"open":)" + open + R"(,"port":")" + port + R"(","process_path":")" + process_path +
               R"(","process_id":")" + pid + R"(","proto":"tcp"})";
    }
    std::string report() {
        JsonPtr array(get_openport_process_json());
        if (!array) return "<null>";
        char* text = cJSON_PrintUnformatted(array.get());
        std::string result = text;
        free(text);
        return result;
    }
};

TEST_F(OpenPortTest, KeepsClosedListeningEntriesOfOtherProcesses) {
    models_double::add_filter_port(80);
    models_double::set_asset(
        5, "{\"list\":[\"junk\",{\"port\":\"1\"},{\"open\":\"0\"}," + entry("22", "5", "/usr/sbin/sshd", "1") + "," +
               entry("0x50", "5", "/usr/sbin/nginx") + "," + R"({"open":0,"port":"8080","process_id":"5"})" + "," +
               entry("8081", "5", path("lib/bin/agent")) + "," + entry("8082", "5", path("vr_agent/bin/vr")) + "," +
               entry("8083", "5", "/usr/sbin/nginx") + "]}");
    EXPECT_EQ(report(),
              R"([{"open":0,"port":"8083","process_path":"/usr/sbin/nginx","process_id":"5","proto":"tcp",)"
              R"("app_name":"nginx"}])");
    EXPECT_EQ(m_log.count("invalid json data", 2), 2) << m_log.dump();  // junk here and in the process list
    EXPECT_EQ(m_log.count("invalid item", 1), 2);
    EXPECT_TRUE(m_log.contains("match filter port list 80", 4));
    EXPECT_TRUE(m_log.contains("filter process " + path("lib/bin/agent"), 3));
    EXPECT_TRUE(m_log.contains("filter process " + path("vr_agent/bin/vr"), 3));
    EXPECT_TRUE(m_log.contains("process_path path is /usr/sbin/nginx", 4));
}

TEST_F(OpenPortTest, TypeAndApplicationNameAreAddedByProcessId) {
    models_double::set_asset(5, "{\"list\":[" + entry("1", "100", "/a") + "," + entry("2", "200", "/b") + "," +
                                    entry("3", "300", "/c") + "," + entry("4", "400", "/d") + "," +
                                    entry("5", "abc", "/e") + "]}");
    JsonPtr array(get_openport_process_json());
    ASSERT_TRUE(array);
    ASSERT_EQ(cJSON_GetArraySize(array.get()), 5);
    auto member = [&](int index, const char* key) -> std::string {
        const cJSON* item = cJSON_GetObjectItem(cJSON_GetArrayItem(array.get(), index), key);
        return cJSON_IsString(item) ? item->valuestring : "<absent>";
    };
    // The first usable type wins; kind 7 before kind 9.
    EXPECT_EQ(member(0, "type"), "service");
    EXPECT_EQ(member(0, "app_name"), "nginx");
    // Found in kind 7 with an unusable name: the search ends there.
    EXPECT_EQ(member(1, "type"), "<absent>");
    EXPECT_EQ(member(1, "app_name"), "<absent>");
    EXPECT_EQ(member(2, "type"), "daemon");
    EXPECT_EQ(member(2, "app_name"), "redis");
    EXPECT_EQ(member(3, "app_name"), "<absent>");
    EXPECT_EQ(member(4, "type"), "<absent>");
    EXPECT_EQ(m_log.count("get app name fail", 4), 1);
    EXPECT_EQ(m_log.count("invalid pid 0. str: abc", 2), 2);
    EXPECT_EQ(m_log.count("invalid pid 0. str: abc", 4), 4);  // once per walk of the process list
}

TEST_F(OpenPortTest, EmptyListIsUploadedAsAnEmptyArray) {
    models_double::set_asset(5, R"({"list":[]})");
    upload_openport_process();
    ASSERT_EQ(models_double::uploads().size(), 1u);
    EXPECT_EQ(models_double::uploads()[0].text, "[]");
    EXPECT_EQ(models_double::uploads()[0].type, WL_REPORT_OPEN_PROC);
    EXPECT_TRUE(m_log.contains("get_openport_process_json end", 4));
}

TEST_F(OpenPortTest, OneMissingListSendsNothing) {
    for (int kind : {5, 3, 7, 9}) {
        models_double::reset_agent();
        m_log.clear();
        for (int other : {5, 3, 7, 9})
            if (other != kind) models_double::set_asset(other, R"({"list":[]})");
        upload_openport_process();
        EXPECT_TRUE(models_double::uploads().empty()) << kind;
        EXPECT_TRUE(m_log.contains("get open port process fail", 3)) << kind;
        EXPECT_TRUE(m_log.contains("get asset info fail", 1)) << kind;
        EXPECT_TRUE(m_log.contains("get_openport_process_json fail", 2)) << kind;
        // All four are asked for all the same.
        EXPECT_EQ(models_double::asset_requests(9), 1) << kind;
    }
    models_double::set_asset(5, R"({"list":{}})");
    models_double::set_asset(9, R"({"list":[]})");
    EXPECT_EQ(report(), "<null>");
    EXPECT_TRUE(m_log.contains("json msg invalid.", 1));
}

TEST_F(OpenPortTest, FindAppNameNeedsAList) {
    JsonPtr tree = parse_json(R"({"apps":[]})");
    JsonPtr entry = parse_json("{}");
    EXPECT_EQ(whitelist_find_app_name(tree.get(), entry.get(), 1), -1);
    EXPECT_TRUE(m_log.contains("json msg invalid.", 1));
    JsonPtr apps = parse_json(kMoreApps);
    EXPECT_EQ(whitelist_find_app_name(apps.get(), entry.get(), 7), -1);
    EXPECT_EQ(whitelist_find_app_name(apps.get(), entry.get(), 300), 0);
    EXPECT_STREQ(cJSON_GetObjectItem(entry.get(), "app_name")->valuestring, "redis");
}

TEST(StrToNumber, AcceptsEveryBaseOfStrtoull) {
    struct Case {
        const char* text;
        unsigned long long value;
    } cases[] = {{"80", 80}, {"0x50", 80}, {"0120", 80}, {"abc", 0}, {"", 0}, {"12abc", 12},
                 {"-1", 0xffffffffffffffffull}, {"4294967376", 4294967376ull}};
    for (const auto& c : cases) EXPECT_EQ(str2number(c.text), c.value) << c.text;
    EXPECT_EQ(str2number(nullptr), 0u);
}

}  // namespace
