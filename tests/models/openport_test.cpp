// The open-port process report: which kind-5 entries are kept and what they
// gain from the process and application lists.
#include <filesystem>

#include "models_fixture.h"
#include "whitelist_impl.h"
#include "whitelist_upload.h"

namespace {

class OpenPortTest : public ModelsTest {
protected:
    void SetUp() override {
        ModelsTest::SetUp();
        std::filesystem::create_directories(path("vr_agent"));
        models_double::set_asset(3, R"({"list":[{"process_id":"100","type":""},{"process_id":"100","type":"service"},
            {"process_id":"100","type":"late"},{"process_id":"300","type":"daemon"}]})");
        models_double::set_asset(7, R"({"list":[{"pid":[5,100],"name":"nginx"},{"pid":[200],"name":""}]})");
        models_double::set_asset(9, R"({"list":[{"pid":[100],"name":"other"},{"pid":[200],"name":"late"},
            {"pid":[300],"name":"redis"}]})");
    }
    void set_open_ports(const std::vector<std::string>& entries) {
        std::string list;
        for (const auto& entry : entries) list += (list.empty() ? "" : ",") + entry;
        models_double::set_asset(5, "{\"list\":[" + list + "]}");
    }
    static std::string entry(const std::string& port, const std::string& pid, const std::string& process_path,
                             const std::string& open = "0") {
        return R"({"open":)" + open + R"(,"port":")" + port + R"(","process_path":")" + process_path +
               R"(","process_id":")" + pid + R"(","proto":"tcp"})";
    }
    std::string report() {
        JsonPtr array(get_openport_process_json(), cJSON_Delete);
        if (!array) return "<null>";
        std::unique_ptr<char, void (*)(void*)> text(cJSON_PrintUnformatted(array.get()), free);
        return text.get();
    }
};

TEST_F(OpenPortTest, KeepsClosedListeningEntriesOfOtherProcesses) {
    models_double::add_filter_port(80);
    set_open_ports({entry("22", "5", "/usr/sbin/sshd", "1"), entry("0x50", "5", "/usr/sbin/nginx"),
                    entry("8081", "5", path("lib/bin/agent")), entry("8082", "5", path("vr_agent/bin/vr")),
                    entry("8083", "5", "/usr/sbin/nginx")});
    EXPECT_EQ(report(), R"([{"open":0,"port":"8083","process_path":"/usr/sbin/nginx","process_id":"5",)"
                        R"("proto":"tcp","app_name":"nginx"}])");
    EXPECT_TRUE(m_log.contains("match filter port list 80", 4));
    EXPECT_TRUE(m_log.contains("filter process " + path("lib/bin/agent"), 3));
}

TEST_F(OpenPortTest, MissingSiblingDirectoryStillFiltersOnlyItsOwnPaths) {
    std::filesystem::remove_all(path("vr_agent"));
    set_open_ports({entry("8082", "5", path("vr_agent/bin/vr")), entry("8083", "5", "/usr/sbin/nginx")});
    EXPECT_EQ(report(), R"([{"open":0,"port":"8083","process_path":"/usr/sbin/nginx","process_id":"5",)"
                        R"("proto":"tcp","app_name":"nginx"}])");
    EXPECT_TRUE(m_log.contains("filter process " + path("vr_agent/bin/vr"), 3));
}

TEST_F(OpenPortTest, OpenIsTakenAsAnInteger) {
    struct Row {
        const char* open;
        int kept;
    } rows[] = {{"0", 1}, {"0.5", 1}, {"-0.9", 1}, {"1", 0}, {"1.5", 0}, {"\"0\"", 0}};
    for (const auto& row : rows) {
        set_open_ports({entry("8083", "5", "/usr/sbin/nginx", row.open)});
        JsonPtr array(get_openport_process_json(), cJSON_Delete);
        EXPECT_EQ(cJSON_GetArraySize(array.get()), row.kept) << row.open;
    }
}

TEST_F(OpenPortTest, TypeAndApplicationNameAreAddedByProcessId) {
    set_open_ports({entry("1", "100", "/a"), entry("2", "200", "/b"), entry("3", "300", "/c")});
    JsonPtr array(get_openport_process_json(), cJSON_Delete);
    ASSERT_EQ(cJSON_GetArraySize(array.get()), 3);
    auto member = [&](int index, const char* key) -> std::string {
        const cJSON* item = cJSON_GetObjectItem(cJSON_GetArrayItem(array.get(), index), key);
        return cJSON_IsString(item) ? item->valuestring : "<absent>";
    };
    struct Row {
        int index;
        const char* type;
        const char* app_name;
    } rows[] = {
        {0, "service", "nginx"},      // first usable type; kind 7 before kind 9
        {1, "<absent>", "<absent>"},  // unusable name in kind 7 ends the search
        {2, "daemon", "redis"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(member(row.index, "type"), row.type) << row.index;
        EXPECT_EQ(member(row.index, "app_name"), row.app_name) << row.index;
    }
}

// The timer's whole road: one type-6 upload of the report, also of an empty
// one; nothing at all while an asset list is missing.
TEST_F(OpenPortTest, UploadSendsTheReportAsOpenProcUnlessAListIsMissing) {
    struct Row {
        const char* name;
        std::vector<std::string> ports;
        int missing_kind;
        std::vector<std::string> sent;
    } rows[] = {
        {"empty", {}, 0, {"[]"}},
        {"one entry",
         {entry("8083", "300", "/c")},
         0,
         {R"([{"open":0,"port":"8083","process_path":"/c","process_id":"300","proto":"tcp","type":"daemon",)"
          R"("app_name":"redis"}])"}},
        {"no app list", {entry("8083", "300", "/c")}, 9, {}},
    };
    for (const Row& row : rows) {
        TearDown();
        SetUp();
        if (row.missing_kind) models_double::set_asset(row.missing_kind, "not json");
        set_open_ports(row.ports);
        upload_openport_process();
        std::vector<std::string> sent;
        for (const auto& upload : module_fakes::uploads()) {
            EXPECT_EQ(upload.type, 6) << row.name;
            sent.push_back(upload.text);
        }
        EXPECT_EQ(sent, row.sent) << row.name;
        EXPECT_EQ(m_log.contains("get_openport_process_json fail", 2), row.sent.empty()) << row.name;
    }
}

}  // namespace
