#include "agent_config.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>

#include "ini_file.h"

namespace wlagent {

struct AgentConfig::Layer {
    std::string file;
    std::unique_ptr<void, decltype(&ini_file_free)> ini{nullptr, ini_file_free};
};

namespace {

bool exists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

std::vector<std::string> dropIns(const std::string& dir) {
    std::vector<std::string> names;
    struct CloseDir {
        void operator()(DIR* d) const { closedir(d); }
    };
    std::unique_ptr<DIR, CloseDir> d(opendir(dir.c_str()));
    if (!d) return names;
    while (dirent* entry = readdir(d.get())) {
        std::string name = entry->d_name;
        if (name.size() > 5 && name.compare(name.size() - 5, 5, ".conf") == 0 && name[0] != '.')
            names.push_back(dir + "/" + name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace

AgentConfig::AgentConfig() = default;
AgentConfig::~AgentConfig() = default;
AgentConfig::AgentConfig(AgentConfig&&) noexcept = default;
AgentConfig& AgentConfig::operator=(AgentConfig&&) noexcept = default;

AgentConfig AgentConfig::load(const std::string& path, std::vector<std::string>& problems) {
    AgentConfig config;
    config.m_path = path;
    std::vector<std::string> files;
    if (exists(path)) files.push_back(path);
    for (const std::string& dropIn : dropIns(path + ".d")) files.push_back(dropIn);
    for (const std::string& file : files) {
        auto layer = std::make_unique<Layer>();
        layer->file = file;
        layer->ini.reset(ini_file_load(file.c_str()));
        if (!layer->ini) {
            problems.push_back(file + " cannot be read");
            continue;
        }
        config.m_layers.push_back(std::move(layer));
    }
    return config;
}

const char* AgentConfig::get(const std::string& section, const std::string& key) const {
    for (auto layer = m_layers.rbegin(); layer != m_layers.rend(); ++layer) {
        if (const char* value = ini_file_get((*layer)->ini.get(), section.c_str(), key.c_str())) return value;
    }
    return nullptr;
}

std::vector<std::string> AgentConfig::files() const {
    std::vector<std::string> out;
    for (const auto& layer : m_layers) out.push_back(layer->file);
    return out;
}

bool AgentConfig::getBool(const std::string& section, const std::string& key, bool fallback,
                          std::vector<std::string>& problems) const {
    const char* v = get(section, key);
    if (!v) return fallback;
    std::string value = v;
    if (value == "true" || value == "1" || value == "yes" || value == "on") return true;
    if (value == "false" || value == "0" || value == "no" || value == "off") return false;
    problems.push_back("[" + section + "] " + key + " must be true or false, not '" + value + "'");
    return fallback;
}

long AgentConfig::getNumber(const std::string& section, const std::string& key, long low, long high, long fallback,
                            std::vector<std::string>& problems) const {
    const char* v = get(section, key);
    if (!v) return fallback;
    char* end = nullptr;
    long value = std::strtol(v, &end, 10);
    if (*v == '\0' || *end != '\0' || value < low || value > high) {
        problems.push_back("[" + section + "] " + key + " must be " + std::to_string(low) + " to " +
                           std::to_string(high) + ", not '" + v + "'");
        return fallback;
    }
    return value;
}

std::string AgentConfig::getText(const std::string& section, const std::string& key,
                                 const std::string& fallback) const {
    const char* v = get(section, key);
    return v ? v : fallback;
}

std::vector<std::string> splitConfigList(const std::string& text) {
    std::vector<std::string> items;
    std::size_t at = 0;
    while (at <= text.size()) {
        std::size_t comma = text.find(',', at);
        if (comma == std::string::npos) comma = text.size();
        std::string item = text.substr(at, comma - at);
        item.erase(0, item.find_first_not_of(" \t"));
        item.erase(item.find_last_not_of(" \t") + 1);
        if (!item.empty()) items.push_back(item);
        at = comma + 1;
    }
    return items;
}

}  // namespace wlagent
