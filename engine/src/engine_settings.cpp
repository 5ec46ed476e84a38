#include "engine_settings.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>

#include <sys/stat.h>

namespace baseeng {
namespace {

std::string trimmed(const std::string& text) {
    const char* blanks = " \t\r\n";
    std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos) {
        return std::string();
    }
    std::size_t last = text.find_last_not_of(blanks);
    return text.substr(first, last - first + 1);
}

// Whole decimal number within [low, high], or false.
bool parseBounded(const std::string& text, unsigned long long low, unsigned long long high, unsigned long long& value) {
    if (text.empty() || text[0] == '-' || text[0] == '+') {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    unsigned long long parsed = std::strtoull(text.c_str(), &end, 10);
    if (errno != 0 || end == text.c_str() || *end != '\0' || parsed < low || parsed > high) {
        return false;
    }
    value = parsed;
    return true;
}

struct NumericKey {
    const char* name;
    unsigned long long low;
    unsigned long long high;
};

const NumericKey kKeys[] = {
    {"learn_unit_seconds", 1, 86400},
    {"max_features", 1, 10000000},
    {"origin_log_max_bytes", 4096, 1024ull * 1024 * 1024},
    {"alarm_repeat_window_seconds", 0, 86400},
};

void apply(const std::string& key, unsigned long long value, EngineSettings& settings) {
    if (key == "learn_unit_seconds") {
        settings.learnUnitSeconds = static_cast<unsigned>(value);
    } else if (key == "max_features") {
        settings.maxFeatures = static_cast<std::size_t>(value);
    } else if (key == "alarm_repeat_window_seconds") {
        settings.alarmRepeatWindowSeconds = static_cast<unsigned>(value);
    } else {
        settings.originLogMaxBytes = static_cast<std::size_t>(value);
    }
}

}  // namespace

bool readEngineSettings(const std::string& path, EngineSettings& settings, std::vector<std::string>& problems) {
    struct stat info;
    if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
        return false;
    }
    std::ifstream in(path);
    if (!in) {
        return false;
    }
    std::string section;
    std::string line;
    while (std::getline(in, line)) {
        std::string text = trimmed(line);
        if (text.empty() || text[0] == ';' || text[0] == '#') {
            continue;
        }
        if (text.front() == '[' && text.back() == ']') {
            section = trimmed(text.substr(1, text.size() - 2));
            continue;
        }
        std::size_t equals = text.find('=');
        if (section != "engine" || equals == std::string::npos) {
            continue;
        }
        std::string key = trimmed(text.substr(0, equals));
        std::string value = trimmed(text.substr(equals + 1));
        for (const NumericKey& known : kKeys) {
            if (key != known.name) {
                continue;
            }
            unsigned long long number = 0;
            if (parseBounded(value, known.low, known.high, number)) {
                apply(key, number, settings);
            } else {
                problems.push_back(key + "=" + value + " is not a number in [" + std::to_string(known.low) + ", " +
                                   std::to_string(known.high) + "]; default kept");
            }
        }
    }
    return !in.bad();
}

}  // namespace baseeng
