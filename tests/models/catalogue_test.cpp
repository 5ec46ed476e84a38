// The catalogue files: what load keeps and skips, where append and rewrite
// put the models.
#include <memory>

#include "ini_file.h"
#include "models_fixture.h"
#include "whitelist_api.h"
#include "whitelist_api_catalogue.h"

namespace {

struct IniFree {
    void operator()(void* ini) const { ini_file_free(ini); }
};

std::string section(int index, const std::string& body) {
    return "[model_" + std::to_string(index) + "]\n" + body;
}

std::string model_keys(const std::string& name, const std::string& study_time = "10",
                       const std::string& alarm = "alarm=1\n", const std::string& port = "port=80,443\n") {
    return "model_name=" + name + "\napp_name=" + name + "_app\nprocess_path=/usr/bin/" + name +
           "\nstudy_time=" + study_time + "\n" + alarm + port;
}

std::vector<std::string> names(const std::vector<base_init_st>& list) {
    std::vector<std::string> result;
    for (const auto& model : list) result.push_back(model.model_name);
    return result;
}

class CatalogueTest : public ModelsTest {
protected:
    void write_base(const std::string& count, const std::string& sections) {
        write_file("var/base/base_model.cfg", "[baseengine]\ncount=" + count + "\n" + sections);
    }
    std::string get(const std::string& file, const std::string& section, const std::string& key) {
        std::unique_ptr<void, IniFree> ini(ini_file_load(file.c_str()));
        if (!ini) return "<no file>";
        const char* value = ini_file_get(ini.get(), section.c_str(), key.c_str());
        return value ? value : "<absent>";
    }
};

TEST_F(CatalogueTest, MissingFileLoadsNothingAndSaysSoInDetail) {
    whitelist_base_load_model_data();
    whitelist_rasp_load_model_data();
    EXPECT_TRUE(g_model_array->empty());
    EXPECT_TRUE(g_rasp_model_array->empty());
    EXPECT_EQ(m_log.count("load file " + base_catalogue() + " fail", 4), 1) << m_log.dump();
    EXPECT_EQ(m_log.count("load file " + rasp_catalogue() + " fail", 4), 1) << m_log.dump();
}

TEST_F(CatalogueTest, CountThatIsNotAbovZeroLoadsNothing) {
    for (const char* count : {"0", "-1", "abc", ""}) {
        g_model_array->clear();
        write_base(count, section(0, model_keys("web")));
        whitelist_base_load_model_data();
        EXPECT_TRUE(g_model_array->empty()) << "count=" << count;
    }
}

TEST_F(CatalogueTest, CountBeyondTheSectionsLoadsThoseThatExist) {
    write_base("4", section(0, model_keys("a")) + section(2, model_keys("c")));
    whitelist_base_load_model_data();
    EXPECT_EQ(names(*g_model_array), (std::vector<std::string>{"a", "c"}));
}

TEST_F(CatalogueTest, StudyTimeMustBeAPositiveNumberInAnyBase) {
    struct Case {
        const char* text;
        bool loads;
        int value;
    } cases[] = {{"0", false, 0}, {"-5", false, 0}, {"abc", false, 0}, {"0x10", true, 16}, {"010", true, 8},
                 {"70000", true, 70000}};
    for (const auto& c : cases) {
        g_model_array->clear();
        write_base("1", section(0, model_keys("web", c.text)));
        whitelist_base_load_model_data();
        ASSERT_EQ(g_model_array->size(), c.loads ? 1u : 0u) << c.text;
        if (c.loads) {
            EXPECT_EQ((*g_model_array)[0].study_times, c.value) << c.text;
        }
    }
}

TEST_F(CatalogueTest, AlarmIsAnyNonZeroNumberAndNeverSkipsTheSection) {
    struct Case {
        const char* line;
        bool alarm;
    } cases[] = {{"alarm=1\n", true}, {"alarm=2\n", true}, {"alarm=0\n", false},
                 {"alarm=yes\n", false}, {"", false}, {"alarm=0x0\n", false}};
    for (const auto& c : cases) {
        g_model_array->clear();
        write_base("1", section(0, model_keys("web", "10", c.line)));
        whitelist_base_load_model_data();
        ASSERT_EQ(g_model_array->size(), 1u) << c.line;
        EXPECT_EQ((*g_model_array)[0].alarm, c.alarm) << c.line;
    }
}

TEST_F(CatalogueTest, PortTextIsSplitAtCommasAndEmptyTokensVanish) {
    struct Case {
        const char* line;
        bool loads;
        std::set<unsigned long long> ports;
    } cases[] = {{"port=,80,,443\n", true, {80, 443}},
                 {"port=443,80,443\n", true, {80, 443}},
                 {"port=0x50\n", true, {80}},
                 {"port=http\n", true, {0}},
                 {"port=\n", true, {}},
                 {"", false, {}}};
    for (const auto& c : cases) {
        g_model_array->clear();
        write_base("1", section(0, model_keys("web", "10", "alarm=1\n", c.line)));
        whitelist_base_load_model_data();
        ASSERT_EQ(g_model_array->size(), c.loads ? 1u : 0u) << c.line;
        if (c.loads) {
            EXPECT_EQ((*g_model_array)[0].port, c.ports) << c.line;
        }
    }
}

TEST_F(CatalogueTest, SectionWithoutATextKeyIsSkipped) {
    for (const char* key : {"model_name=", "app_name=", "process_path="}) {
        g_model_array->clear();
        std::string body = model_keys("web");
        size_t at = body.find(key);
        body.erase(at, body.find('\n', at) - at + 1);
        write_base("2", section(0, body) + section(1, model_keys("ok")));
        whitelist_base_load_model_data();
        EXPECT_EQ(names(*g_model_array), (std::vector<std::string>{"ok"})) << key;
    }
}

TEST_F(CatalogueTest, LoadLogsEachModelWithItsEngineText) {
    write_base("1", section(0, model_keys("web", "10", "alarm=1\n", "port=,80,,443\n")));
    write_file("var/base/rasp_model.cfg", "[raspengine]\ncount=1\n" + section(0, model_keys("shop", "5", "")));
    whitelist_base_load_model_data();
    whitelist_rasp_load_model_data();
    EXPECT_TRUE(m_log.contains("load model. model_name web, app_name web_app, process_path /usr/bin/web, "
                               "study_times 10, alarm true, port ,80,,443",
                               3))
        << m_log.dump();
    EXPECT_TRUE(m_log.contains("load inner model. model_name shop, app_name shop_app, process_path /usr/bin/shop, "
                               "study_times 5, alarm false, port 80,443",
                               3))
        << m_log.dump();
    EXPECT_EQ(names(*g_rasp_model_array), (std::vector<std::string>{"shop"}));
}

TEST_F(CatalogueTest, LoadingTwiceDoublesTheList) {
    write_base("1", section(0, model_keys("web")));
    whitelist_base_load_model_data();
    whitelist_base_load_model_data();
    EXPECT_EQ(names(*g_model_array), (std::vector<std::string>{"web", "web"}));
}

TEST_F(CatalogueTest, AppendGoesBehindTheFilesCountNotTheMemoryList) {
    write_base("5", section(0, model_keys("old")));
    whitelist_rasp_save_model(make_model("first", 30, {80}));  // other engine, other file
    whitelist_append_catalogue(g_base_catalogue, make_model("web", 70000, {443, 80}));
    EXPECT_EQ(get(base_catalogue(), "baseengine", "count"), "6");
    EXPECT_EQ(get(base_catalogue(), "model_5", "model_name"), "web");
    EXPECT_EQ(get(base_catalogue(), "model_5", "app_name"), "web_app");
    EXPECT_EQ(get(base_catalogue(), "model_5", "process_path"), "/usr/sbin/app");
    EXPECT_EQ(get(base_catalogue(), "model_5", "study_time"), "70000");
    EXPECT_EQ(get(base_catalogue(), "model_5", "alarm"), "1");
    EXPECT_EQ(get(base_catalogue(), "model_5", "port"), "80,443");
    EXPECT_EQ(get(base_catalogue(), "model_0", "model_name"), "old");
    EXPECT_EQ(names(*g_model_array), (std::vector<std::string>{"web"}));
    EXPECT_EQ(get(rasp_catalogue(), "raspengine", "count"), "1");
    EXPECT_EQ(get(rasp_catalogue(), "model_0", "model_name"), "first");
    EXPECT_EQ(names(*g_rasp_model_array), (std::vector<std::string>{"first"}));
}

TEST_F(CatalogueTest, AppendWithoutAFileStartsAtOneWhateverMemoryHolds) {
    g_model_array->push_back(make_model("a", 1, {1}));
    g_model_array->push_back(make_model("b", 1, {1}));
    base_init_st model = make_model("web", -3, {});
    model.alarm = false;
    whitelist_append_catalogue(g_base_catalogue, model);
    EXPECT_EQ(get(base_catalogue(), "baseengine", "count"), "1");
    EXPECT_EQ(get(base_catalogue(), "model_0", "study_time"), "-3");
    EXPECT_EQ(get(base_catalogue(), "model_0", "alarm"), "0");
    EXPECT_EQ(get(base_catalogue(), "model_0", "port"), "");
    EXPECT_EQ(g_model_array->size(), 3u);
    // A non-positive study time is saved but doesn't come back.
    g_model_array->clear();
    whitelist_base_load_model_data();
    EXPECT_TRUE(g_model_array->empty());
}

TEST_F(CatalogueTest, RewriteNumbersTheMemoryListAfreshAndDropsTheRest) {
    write_base("3", section(0, model_keys("a")) + section(1, model_keys("b")) + section(2, model_keys("c")));
    g_model_array->push_back(make_model("x", 7, {22}));
    g_model_array->push_back(make_model("y", 8, {}));
    whitelist_rewrite_catalogue(g_base_catalogue);
    EXPECT_EQ(get(base_catalogue(), "baseengine", "count"), "2");
    EXPECT_EQ(get(base_catalogue(), "model_0", "model_name"), "x");
    EXPECT_EQ(get(base_catalogue(), "model_1", "model_name"), "y");
    EXPECT_EQ(get(base_catalogue(), "model_1", "port"), "");
    EXPECT_EQ(get(base_catalogue(), "model_2", "model_name"), "<absent>");
    // What was written reads back as it was.
    g_model_array->clear();
    whitelist_base_load_model_data();
    ASSERT_EQ(names(*g_model_array), (std::vector<std::string>{"x", "y"}));
    EXPECT_EQ((*g_model_array)[0].port, (std::set<unsigned long long>{22}));
    EXPECT_TRUE((*g_model_array)[1].port.empty());
    EXPECT_EQ((*g_model_array)[1].study_times, 8);
}

TEST(PortText, PrintsLow32BitsSignedAscendingAndAppends) {
    struct Case {
        std::set<unsigned long long> ports;
        std::string before;
        std::string after;
    } cases[] = {{{}, "", ""},
                 {{80}, "", "80"},
                 {{443, 80, 8080}, "", "80,443,8080"},
                 {{0xffffffffull}, "", "-1"},
                 {{0x100000050ull}, "", "80"},
                 {{22}, "port=", "port=22"}};
    for (const auto& c : cases) {
        std::string text = c.before;
        EXPECT_EQ(port_set_to_string(c.ports, text), c.after);
        EXPECT_EQ(text, c.after);
    }
}

TEST(PortText, NullTextIsAnEmptySetWithAnError) {
    LogCapture log;
    EXPECT_TRUE(parse_port_string(nullptr).empty());
    EXPECT_TRUE(log.contains("port string is NULL", 1));
    char text[] = "22,0x50,010";
    EXPECT_EQ(parse_port_string(text), (std::set<unsigned long long>{8, 22, 80}));
    EXPECT_TRUE(log.contains("port 80", 4));
}

TEST(IniNumber, MissingKeyAndNonNumbersAreZero) {
    std::unique_ptr<void, IniFree> ini(ini_file_load(nullptr));
    ini_file_set(ini.get(), "s", "hex", "0x1F");
    ini_file_set(ini.get(), "s", "oct", "017");
    ini_file_set(ini.get(), "s", "word", "abc");
    ini_file_set(ini.get(), "s", "big", "5000000000");
    EXPECT_EQ(ini_file_get_number(ini.get(), "s", "hex"), 31u);
    EXPECT_EQ(ini_file_get_number(ini.get(), "s", "oct"), 15u);
    EXPECT_EQ(ini_file_get_number(ini.get(), "s", "word"), 0u);
    EXPECT_EQ(ini_file_get_number(ini.get(), "s", "none"), 0u);
    EXPECT_EQ(ini_file_get_number(ini.get(), "s", "big"), 5000000000ull);
}

}  // namespace
