// The catalogue files: what load keeps and skips, where append and rewrite
// put the models.
#include "models_fixture.h"
#include "whitelist_api.h"
#include "whitelist_api_catalogue.h"

namespace {

std::string section(int index, const std::string& name, const std::string& study_time = "10",
                    const std::string& alarm = "alarm=1\n", const std::string& port = "port=80\n") {
    return "[model_" + std::to_string(index) + "]\nmodel_name=" + name + "\napp_name=" + name +
           "_app\nprocess_path=/usr/bin/" + name + "\nstudy_time=" + study_time + "\n" + alarm + port;
}

class CatalogueTest : public ModelsTest {
protected:
    void write_base(const std::string& count, const std::string& sections) {
        write_file("var/base/base_model.cfg", "[baseengine]\ncount=" + count + "\n" + sections);
    }
};

TEST_F(CatalogueTest, LoadKeepsOnlyUsableSections) {
    struct Row {
        const char* count;
        const char* study_time;
        const char* alarm;
        const char* port;
        bool loads;
        int study_value = 0;
        bool alarm_value = false;
        std::set<unsigned long long> ports = {};
    } rows[] = {
        {"0", "10", "alarm=1\n", "port=80\n", false},
        {"-1", "10", "alarm=1\n", "port=80\n", false},
        {"abc", "10", "alarm=1\n", "port=80\n", false},
        {"1", "0", "alarm=1\n", "port=80\n", false},
        {"1", "10", "alarm=1\n", "", false},
        {"1", "0x10", "alarm=2\n", "port=,80,,443\n", true, 16, true, {80, 443}},
        {"1", "010", "alarm=yes\n", "port=80\n", true, 8, false, {80}},
        {"1", "10", "", "port=\n", true, 10, false, {}},
    };
    for (const auto& row : rows) {
        std::string what = std::string(row.count) + "/" + row.study_time + "/" + row.alarm + row.port;
        g_model_array->clear();
        write_base(row.count, section(0, "web", row.study_time, row.alarm, row.port));
        whitelist_base_load_model_data();
        ASSERT_EQ(g_model_array->size(), row.loads ? 1u : 0u) << what;
        if (!row.loads) continue;
        EXPECT_EQ((*g_model_array)[0].study_times, row.study_value) << what;
        EXPECT_EQ((*g_model_array)[0].alarm, row.alarm_value) << what;
        EXPECT_EQ((*g_model_array)[0].port, row.ports) << what;
    }
    EXPECT_TRUE(
        m_log.contains("load model. model_name web, app_name web_app, process_path /usr/bin/web, "
                       "study_times 16, alarm true, port ,80,,443",
                       3))
        << m_log.dump();
}

TEST_F(CatalogueTest, AppendGoesBehindTheFilesCountNotTheMemoryList) {
    write_base("5", section(0, "old"));
    g_model_array->push_back(make_model("mem", 1, {}));
    whitelist_append_catalogue(g_base_catalogue, make_model("web", 70000, {443, 80}));
    EXPECT_EQ(ini_value(base_catalogue(), "baseengine", "count"), "6");
    EXPECT_EQ(ini_value(base_catalogue(), "model_5", "model_name"), "web");
    EXPECT_EQ(ini_value(base_catalogue(), "model_5", "study_time"), "70000");
    EXPECT_EQ(ini_value(base_catalogue(), "model_5", "port"), "80,443");
    EXPECT_EQ(ini_value(base_catalogue(), "model_0", "model_name"), "old");
    EXPECT_EQ(model_names(*g_model_array), (std::vector<std::string>{"mem", "web"}));
}

TEST_F(CatalogueTest, RewriteNumbersTheMemoryListAfreshAndDropsTheRest) {
    write_base("3", section(0, "a") + section(1, "b") + section(2, "c"));
    g_model_array->push_back(make_model("x", 7, {22}));
    g_model_array->push_back(make_model("y", 8, {}));
    whitelist_rewrite_catalogue(g_base_catalogue);
    EXPECT_EQ(ini_value(base_catalogue(), "baseengine", "count"), "2");
    EXPECT_EQ(ini_value(base_catalogue(), "model_0", "model_name"), "x");
    EXPECT_EQ(ini_value(base_catalogue(), "model_1", "model_name"), "y");
    EXPECT_EQ(ini_value(base_catalogue(), "model_2", "model_name"), "<absent>");
}

// The ini form would hand back another name after a restart: such a model is
// not written, the file keeps what it had, and the log says which and why.
TEST_F(CatalogueTest, AValueTheFileCannotHoldIsRefusedAndLogged) {
    const std::string file = path("var/base/base_model.cfg");
    whitelist_append_catalogue(g_base_catalogue, make_model("web", 10, {80}));
    const struct {
        const char* what;
        base_init_st model;
    } cases[] = {
        {"leading blank", make_model(" web", 10, {80})},
        {"trailing blank", make_model("web ", 10, {80})},
        {"line break", make_model("web\n[baseengine]\ncount=9", 10, {80})},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        m_log.clear();
        whitelist_append_catalogue(g_base_catalogue, c.model);
        EXPECT_EQ(ini_value(file, "baseengine", "count"), "1");
        EXPECT_EQ(ini_value(file, "model_1", "model_name"), "<absent>");
        EXPECT_TRUE(m_log.contains("\" not kept in ", 1) && m_log.contains("base_model.cfg: its model_name", 1))
            << m_log.dump();
    }
    EXPECT_EQ(g_model_array->size(), 4u) << "memory keeps them until the next restart";

    // A rewrite numbers the models it can keep without a gap.
    m_log.clear();
    whitelist_rewrite_catalogue(g_base_catalogue);
    EXPECT_EQ(ini_value(file, "baseengine", "count"), "1");
    EXPECT_EQ(ini_value(file, "model_0", "model_name"), "web");
    EXPECT_EQ(m_log.count("not kept in"), 3);
    g_model_array->clear();
    whitelist_base_load_model_data();
    EXPECT_EQ(model_names(*g_model_array), std::vector<std::string>{"web"});
}

TEST_F(CatalogueTest, MissingSectionsAreSkippedAndASecondLoadDoublesTheList) {
    write_base("4", section(0, "a") + section(2, "c"));
    whitelist_base_load_model_data();
    EXPECT_EQ(model_names(*g_model_array), (std::vector<std::string>{"a", "c"}));
    whitelist_base_load_model_data();
    EXPECT_EQ(model_names(*g_model_array), (std::vector<std::string>{"a", "c", "a", "c"}));

    // A count of billions ends at the last section there is ("model_07" is
    // not one the writer makes), so a damaged file cannot stall start-up.
    g_model_array->clear();
    write_base("2000000000", section(0, "a") + section(9, "j") + "[model_07]\nmodel_name=x\n");
    whitelist_base_load_model_data();
    EXPECT_EQ(model_names(*g_model_array), (std::vector<std::string>{"a", "j"}));
}

}  // namespace
