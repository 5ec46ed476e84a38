#include "model_catalogue.h"

#include <cstdlib>

#include "ini_file.h"

namespace wlagent {
namespace {

constexpr long kMaxSections = 100000;

struct IniCloser {
    ini_handle_t handle;
    ~IniCloser() {
        if (handle) ini_file_free(handle);
    }
};

}  // namespace

std::vector<CatalogueEntry> readCatalogueFile(const std::string& path, const std::string& head,
                                              const std::string& engine) {
    std::vector<CatalogueEntry> entries;
    IniCloser ini{ini_file_load(path.c_str())};
    if (!ini.handle) return entries;
    const char* countText = ini_file_get(ini.handle, head.c_str(), "count");
    long count = countText ? static_cast<long>(std::strtoll(countText, nullptr, 0)) : 0;
    for (long i = 0; i < count && i < kMaxSections; ++i) {
        std::string section = "model_" + std::to_string(i);
        const char* name = ini_file_get(ini.handle, section.c_str(), "model_name");
        const char* app = ini_file_get(ini.handle, section.c_str(), "app_name");
        const char* path = ini_file_get(ini.handle, section.c_str(), "process_path");
        const char* study = ini_file_get(ini.handle, section.c_str(), "study_time");
        const char* alarm = ini_file_get(ini.handle, section.c_str(), "alarm");
        const char* ports = ini_file_get(ini.handle, section.c_str(), "port");
        if (!name || !app || !path || !study || !ports) continue;
        long studyTime = static_cast<long>(static_cast<int>(std::strtoull(study, nullptr, 0)));
        if (studyTime <= 0) continue;
        CatalogueEntry entry;
        entry.engine = engine;
        entry.name = name;
        entry.app = app;
        entry.path = path;
        entry.ports = ports;
        entry.studyTime = studyTime;
        entry.alarm = alarm && std::strtoull(alarm, nullptr, 0) != 0;
        entries.push_back(entry);
    }
    return entries;
}

std::vector<CatalogueEntry> readCatalogue(const std::string& root) {
    std::vector<CatalogueEntry> all = readCatalogueFile(root + "/var/base/base_model.cfg", "baseengine", "host");
    std::vector<CatalogueEntry> app = readCatalogueFile(root + "/var/base/rasp_model.cfg", "raspengine", "app");
    all.insert(all.end(), app.begin(), app.end());
    return all;
}

}  // namespace wlagent
