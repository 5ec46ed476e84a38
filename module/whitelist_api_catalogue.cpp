#define WL_LOG_SOURCE "whitelist_api"

#include "whitelist_api_catalogue.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "dirutils.h"
#include "ini_file.h"
#include "whitelist_api.h"
#include "whitelist_impl.h"
#include "wl_log.h"

const model_catalogue_st g_base_catalogue = {"@/../var/base/base_model.cfg", "baseengine", false, &g_model_array};
const model_catalogue_st g_rasp_catalogue = {"@/../var/base/rasp_model.cfg", "raspengine", true, &g_rasp_model_array};

namespace {

constexpr size_t kPathSize = 1024;

struct ini_deleter {
    void operator()(void* handle) const { ini_file_free(handle); }
};
typedef std::unique_ptr<void, ini_deleter> ini_ptr;

std::string catalogue_path(const model_catalogue_st& catalogue) {
    char path[kPathSize] = {0};
    dirutils_path_transform(catalogue.path, path, sizeof(path));
    return path;
}

std::string section_name(int index) {
    char section[64];
    snprintf(section, sizeof(section), "model_%d", index);
    return section;
}

// A line break in a log line would forge the next one.
std::string printable(const std::string& text) {
    std::string shown = text;
    for (char& c : shown) {
        if ((unsigned char)c < 0x20) c = '?';
    }
    return shown;
}

// False when a value can't be kept as it is (blanks at an end, a line
// break): the ini form would hand back another text after a restart.
bool write_model(void* ini, int index, const base_init_st& record, const char* path) {
    std::string section = section_name(index);
    char study_time[32];
    snprintf(study_time, sizeof(study_time), "%d", record.study_times);
    std::string ports;
    port_set_to_string(record.port, ports);
    const char* const values[][2] = {
        {"model_name", record.model_name.c_str()},     {"app_name", record.app_name.c_str()},
        {"process_path", record.process_path.c_str()}, {"study_time", study_time},
        {"alarm", record.alarm ? "1" : "0"},           {"port", ports.c_str()},
    };
    for (const auto& value : values) {
        if (ini_file_set(ini, section.c_str(), value[0], value[1]) != 0) {
            WL_LOG(LOG_LVL_ERROR, "model \"%s\" not kept in %s: its %s \"%s\" has blanks at an end or a line break",
                   printable(record.model_name).c_str(), path, value[0], printable(value[1]).c_str());
            return false;
        }
    }
    return true;
}

void save_catalogue(void* ini, const std::string& path) {
    if (ini_file_save(ini, path.c_str(), 1) != 0)
        WL_LOG(LOG_LVL_ERROR, "save %s failed: %s", path.c_str(), strerror(errno));
}

void set_count(void* ini, const char* head_section, int count) {
    char text[32];
    snprintf(text, sizeof(text), "%d", count);
    ini_file_set(ini, head_section, "count", text);
}

// One model section; false when a required key is missing or bad.
bool read_model(void* ini, const std::string& section, base_init_st& record, const char*& port_text) {
    const char* name = ini_file_get(ini, section.c_str(), "model_name");
    if (!name) return false;
    record.model_name = name;
    const char* app = ini_file_get(ini, section.c_str(), "app_name");
    if (!app) return false;
    record.app_name = app;
    const char* process_path = ini_file_get(ini, section.c_str(), "process_path");
    if (!process_path) return false;
    record.process_path = process_path;
    int study_time = (int)ini_file_get_number(ini, section.c_str(), "study_time");
    if (study_time <= 0) return false;
    record.study_times = study_time;
    record.alarm = ini_file_get_number(ini, section.c_str(), "alarm") != 0;
    port_text = ini_file_get(ini, section.c_str(), "port");
    if (!port_text) return false;
    char ports[kPathSize] = {0};
    strncpy(ports, port_text, sizeof(ports) - 1);
    record.port = parse_port_string(ports);
    return true;
}

}  // namespace

unsigned long long ini_file_get_number(void* handle, const char* section, const char* key) {
    const char* text = ini_file_get(handle, section, key);
    if (!text) return 0;
    return strtoull(text, nullptr, 0);
}

std::string port_set_to_string(const std::set<unsigned long long>& ports, std::string& text) {
    bool first = true;
    for (unsigned long long port : ports) {
        char buffer[1024];
        snprintf(buffer, sizeof(buffer), first ? "%d" : ",%d", (int)port);
        text += buffer;
        first = false;
    }
    return text;
}

std::set<unsigned long long> parse_port_string(char* text) {
    std::set<unsigned long long> ports;
    if (!text) {
        WL_LOG(LOG_LVL_ERROR, "port string is NULL");
        return ports;
    }
    char* saved = nullptr;
    for (char* token = strtok_r(text, ",", &saved); token; token = strtok_r(nullptr, ",", &saved)) {
        unsigned long long port = str2number(token);
        WL_LOG(LOG_LVL_DETAIL, "port %d", (int)port);
        ports.insert(port);
    }
    return ports;
}

// One past the highest model section the file holds: a damaged or planted
// count of billions must not keep start-up in a loop over absent sections.
static int model_section_end(void* ini) {
    int end = 0;
    for (int i = 0; const char* name = ini_file_section_name(ini, i); ++i) {
        if (strncmp(name, "model_", 6) != 0) continue;
        char* rest = nullptr;
        long value = strtol(name + 6, &rest, 10);
        // Only the names the writer makes: "model_007" is no model section.
        if (*rest != '\0' || value < 0 || value >= INT_MAX || section_name((int)value) != name) continue;
        if (value >= end) end = (int)value + 1;
    }
    return end;
}

void whitelist_load_catalogue(const model_catalogue_st& catalogue) {
    std::string path = catalogue_path(catalogue);
    ini_ptr ini(ini_file_load(path.c_str()));
    if (!ini) {
        WL_LOG(LOG_LVL_DETAIL, "load file %s fail", path.c_str());
        return;
    }
    int count = (int)ini_file_get_number(ini.get(), catalogue.head_section, "count");
    if (count <= 0 || !*catalogue.list) return;

    // One working record for all sections, as the writer fills them all.
    base_init_st record;
    int end = std::min(count, model_section_end(ini.get()));
    for (int index = 0; index < end; ++index) {
        std::string section = section_name(index);
        const char* port_text = nullptr;
        if (!read_model(ini.get(), section, record, port_text)) continue;
        WL_LOG(LOG_LVL_INFO,
               "load %smodel. model_name %s, app_name %s, process_path %s, study_times %d, alarm %s, port %s",
               catalogue.rasp ? "inner " : "", record.model_name.c_str(), record.app_name.c_str(),
               record.process_path.c_str(), record.study_times, record.alarm ? "true" : "false", port_text);
        (*catalogue.list)->push_back(record);
    }
}

void whitelist_append_catalogue(const model_catalogue_st& catalogue, const base_init_st& record) {
    std::string path = catalogue_path(catalogue);
    ini_ptr ini(ini_file_load(path.c_str()));
    int old_count = 0;
    if (ini) {
        old_count = (int)ini_file_get_number(ini.get(), catalogue.head_section, "count");
    } else {
        ini.reset(ini_file_load(nullptr));
    }
    // A model refused by the file stays in memory until the next restart.
    if (ini && write_model(ini.get(), old_count, record, path.c_str())) {
        set_count(ini.get(), catalogue.head_section, old_count + 1);
        save_catalogue(ini.get(), path);
    }
    if (*catalogue.list) (*catalogue.list)->push_back(record);
}

void whitelist_rewrite_catalogue(const model_catalogue_st& catalogue) {
    std::string path = catalogue_path(catalogue);
    ini_ptr ini(ini_file_load(nullptr));
    if (!ini || !*catalogue.list) return;
    const std::vector<base_init_st>& list = **catalogue.list;
    // Sections stay numbered without gaps: a refused model's section is
    // overwritten by the next one, or lies beyond the count.
    int written = 0;
    for (const base_init_st& record : list) {
        if (write_model(ini.get(), written, record, path.c_str())) ++written;
    }
    set_count(ini.get(), catalogue.head_section, written);
    save_catalogue(ini.get(), path);
}

extern "C" void whitelist_base_load_model_data(void) { whitelist_load_catalogue(g_base_catalogue); }

extern "C" void whitelist_rasp_load_model_data(void) { whitelist_load_catalogue(g_rasp_catalogue); }
