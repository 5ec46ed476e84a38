// INI files kept in memory as ordered sections of ordered keys.
#include "ini_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "atomic_file.h"
#include "wl_unique_fd.h"

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

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

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
    wl::UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
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

// The reader trims blanks around names and values and ends a line at a line
// break, so only a text without either comes back as it was set.
bool readsBackAs(const char* text, bool needsText) {
    const size_t length = std::strlen(text);
    if (length == 0) return !needsText;
    if (std::strchr(text, '\n')) return false;
    return !isBlank(text[0]) && !isBlank(text[length - 1]);
}

IniDocument* from(ini_handle_t ini) { return static_cast<IniDocument*>(ini); }

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
            std::string line = text.substr(start, end - start);
            // Names and values are handed out as C strings: what follows a
            // NUL could never be read, and would hide the value's true end.
            const size_t nul = line.find('\0');
            if (nul != std::string::npos) line.resize(nul);
            parseLine(*doc, current, line);
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

extern "C" const char* ini_file_section_name(ini_handle_t ini, int index) {
    IniDocument* doc = from(ini);
    if (!doc || index < 0 || static_cast<size_t>(index) >= doc->sections.size()) return nullptr;
    return doc->sections[static_cast<size_t>(index)].name.c_str();
}

extern "C" int ini_file_set(ini_handle_t ini, const char* section, const char* key, const char* value) {
    IniDocument* doc = from(ini);
    if (!doc || !section || !key || !value || !readsBackAs(section, false) || !readsBackAs(key, true) ||
        !readsBackAs(value, false)) {
        errno = EINVAL;
        return -1;
    }
    // Each of these would change meaning when the file is read again.
    const std::string cleanSection = section, cleanKey = key;
    if (cleanSection.find(']') != std::string::npos || cleanKey.find('=') != std::string::npos || cleanKey[0] == ';' ||
        cleanKey[0] == '#' || cleanKey[0] == '[') {
        errno = EINVAL;
        return -1;
    }
    setValue(doc->sections[doc->indexOf(cleanSection)], cleanKey, value);
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
    // Catalogues name what the agent watches: root and the agent's group only.
    return file_write_atomic(path, text.data(), text.size(), 0640) == 0 ? 0 : -1;
}

extern "C" void ini_file_free(ini_handle_t ini) { std::unique_ptr<IniDocument> owned(from(ini)); }
