#include "models_fixture.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "dirutils.h"
#include "ini_file.h"
#include "whitelist_api.h"
#include "whitelist_api_state.h"

JsonPtr parse_json(const std::string& text) {
    JsonPtr json(cJSON_Parse(text.c_str()), cJSON_Delete);
    EXPECT_TRUE(json) << "bad test JSON: " << text;
    return json;
}

void ModelsTest::SetUp() {
    // Made again after a TearDown within the test.
    std::filesystem::create_directories(path("lib"));
    std::filesystem::create_directories(path("var/base"));
    g_model_array->clear();
    g_rasp_model_array->clear();
    g_model_pid->clear();
    g_base_open_process_called = false;
    g_rasp_open_process_called = false;
    models_double::reset_engines();
    models_double::reset_agent();
    m_log.clear();
}

void ModelsTest::TearDown() {
    std::error_code ignored;
    std::filesystem::remove_all(m_root, ignored);
}

void ModelsTest::write_file(const std::string& relative, const std::string& content) const {
    std::filesystem::create_directories(std::filesystem::path(path(relative)).parent_path());
    std::ofstream(path(relative)) << content;
}

std::string ini_value(const std::string& file, const std::string& section, const std::string& key) {
    std::unique_ptr<void, void (*)(void*)> ini(ini_file_load(file.c_str()), ini_file_free);
    if (!ini) return "<no file>";
    const char* value = ini_file_get(ini.get(), section.c_str(), key.c_str());
    return value ? value : "<absent>";
}

std::vector<std::string> model_names(const std::vector<base_init_st>& list) {
    std::vector<std::string> result;
    for (const auto& model : list) result.push_back(model.model_name);
    return result;
}

base_init_st make_model(const std::string& name, int study_times, std::set<unsigned long long> ports) {
    base_init_st model;
    model.model_name = name;
    model.app_name = name + "_app";
    model.process_path = "/usr/sbin/app";
    model.study_times = study_times;
    model.alarm = true;
    model.port = std::move(ports);
    return model;
}
