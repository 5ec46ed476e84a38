// INI files kept in memory as ordered sections of ordered keys.
#include "ini_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "unique_fd.h"

namespace {

struct IniSection {
    std::string name;
    std::vector<std::pair<std::string, std::string>> entries;
};

struct IniDocument {
    std::vector<IniSection> sections;

    IniSection* find(const std::string& name) {
        for (auto& section : sections) {
            if (section.name == name) return &section;
        }
        return nullptr;
    }

    size_t indexOf(const std::string& name) {
        for (size_t i = 0; i < sections.size(); ++i) {
            if (sections[i].name == name) return i;
        }
        sections.push_back(IniSection{name, {}});
        return sections.size() - 1;
    }
};

std::string trim(const std::string& text) {
    const char* blanks = " \t\r\n";
    size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos) return std::string();
    size_t last = text.find_last_not_of(blanks);
    return text.substr(first, last - first + 1);
}

void setValue(IniSection& section, const std::string& key, const std::string& value) {
    for (auto& entry : section.entries) {
        if (entry.first == key) {
            entry.second = value;
            return;
        }
    }
    section.entries.emplace_back(key, value);
}

constexpr size_t kNoSection = static_cast<size_t>(-1);

void parseLine(IniDocument& doc, size_t& current, const std::string& raw) {
    std::string line = trim(raw);
    if (line.empty() || line[0] == ';' || line[0] == '#') return;
    if (line[0] == '[') {
        size_t close = line.find(']');
        if (close == std::string::npos) return;  // not a header: ignore the line
        current = doc.indexOf(trim(line.substr(1, close - 1)));
        return;
    }
    size_t eq = line.find('=');
    if (eq == std::string::npos) return;
    std::string key = trim(line.substr(0, eq));
    if (key.empty()) return;
    // Keys before the first header belong to the unnamed section.
    if (current == kNoSection) current = doc.indexOf(std::string());
    setValue(doc.sections[current], key, trim(line.substr(eq + 1)));
}

// False for anything that can't be read through, a directory included.
bool readWhole(const char* path, std::string& text) {
    kembase::UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) return false;
    char chunk[4096];
    for (;;) {
        ssize_t n = read(fd.get(), chunk, sizeof chunk);
        if (n == 0) return true;
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        text.append(chunk, static_cast<size_t>(n));
    }
}

IniDocument* from(ini_handle_t ini) {
    return static_cast<IniDocument*>(ini);
}

}  // namespace

extern "C" ini_handle_t ini_file_load(const char* path) {
    auto doc = std::make_unique<IniDocument>();
    if (path) {
        std::string text;
        if (!readWhole(path, text)) return nullptr;
        size_t current = kNoSection;
        size_t start = 0;
        while (start < text.size()) {
            size_t end = text.find('\n', start);
            if (end == std::string::npos) end = text.size();
            parseLine(*doc, current, text.substr(start, end - start));
            start = end + 1;
        }
    }
    return doc.release();
}

extern "C" const char* ini_file_get(ini_handle_t ini, const char* section, const char* key) {
    IniDocument* doc = from(ini);
    if (!doc || !section || !key) return nullptr;
    IniSection* found = doc->find(section);
    if (!found) return nullptr;
    for (const auto& entry : found->entries) {
        if (entry.first == key) return entry.second.c_str();
    }
    return nullptr;
}

extern "C" int ini_file_set(ini_handle_t ini, const char* section, const char* key, const char* value) {
    IniDocument* doc = from(ini);
    if (!doc || !section || !key || !*key) return -1;
    std::string cleanKey = trim(key);
    if (cleanKey.empty() || cleanKey.find('=') != std::string::npos) return -1;
    std::string cleanSection = trim(section);
    std::string cleanValue = value ? trim(value) : std::string();
    // What could not be read back as written is refused.
    if (cleanSection.find_first_of("]\n") != std::string::npos) return -1;
    if (cleanKey[0] == ';' || cleanKey[0] == '#' || cleanKey[0] == '[' || cleanKey.find('\n') != std::string::npos) return -1;
    if (cleanValue.find('\n') != std::string::npos) return -1;
    setValue(doc->sections[doc->indexOf(cleanSection)], cleanKey, cleanValue);
    return 0;
}

extern "C" int ini_file_save(ini_handle_t ini, const char* path, int flags) {
    IniDocument* doc = from(ini);
    if (!doc || !path || !*path) return -1;
    std::string text;
    // Keys of the unnamed section must come before any header.
    if (IniSection* unnamed = doc->find(std::string())) {
        for (const auto& entry : unnamed->entries) text += entry.first + '=' + entry.second + '\n';
    }
    for (const auto& section : doc->sections) {
        if (section.name.empty()) continue;
        if (!text.empty()) text += '\n';
        text += '[' + section.name + "]\n";
        for (const auto& entry : section.entries) text += entry.first + '=' + entry.second + '\n';
    }
    // Write beside the target and rename, so a failed write keeps the old file.
    std::string temp = std::string(path) + ".tmp";
    {
        std::ofstream out(temp, std::ios::trunc);
        if (!out.is_open()) return -1;
        out << text;
        out.flush();
        if (!out) {
            remove(temp.c_str());
            return -1;
        }
    }
    if (rename(temp.c_str(), path) != 0) {
        remove(temp.c_str());
        return -1;
    }
    return 0;
}

extern "C" void ini_file_free(ini_handle_t ini) {
    std::unique_ptr<IniDocument> owned(from(ini));
}
