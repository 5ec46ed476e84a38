#include "model_files.h"

#include <cerrno>
#include <cstring>
#include <set>

#include <sys/stat.h>

#include "atomic_file.h"
#include "engine_log.h"
#include "file_handles.h"

namespace baseeng {

namespace {

const char kModelSuffix[] = ".model.json";
const std::size_t kMaxStemBytes = 96;

bool endsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

bool isSafeByte(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
           c == '-';
}

unsigned fnv1a(const std::string& text) {
    unsigned hash = 2166136261u;
    for (unsigned char c : text) {
        hash = (hash ^ c) * 16777619u;
    }
    return hash;
}

// Models hold what applications did: root and the agent's group only.
bool writeFileAtomically(const std::string& path, const std::string& content) {
    return file_write_atomic(path.c_str(), content.data(), content.size(), 0640) == 0;
}

}  // namespace

bool readWholeFile(const std::string& path, std::string& content) {
    FileHandle file(std::fopen(path.c_str(), "rb"));
    if (!file) {
        return false;
    }
    content.clear();
    char chunk[65536];
    std::size_t got;
    while ((got = std::fread(chunk, 1, sizeof chunk, file.get())) > 0) {
        content.append(chunk, got);
    }
    return std::ferror(file.get()) == 0;
}

std::string fileStemOf(const std::string& modelName) {
    std::string stem;
    bool altered = modelName.empty();
    for (char c : modelName) {
        stem.push_back(isSafeByte(c) ? c : '_');
        altered = altered || !isSafeByte(c);
    }
    if (stem.size() > kMaxStemBytes) {
        stem.resize(kMaxStemBytes);
        altered = true;
    }
    if (altered) {
        // '~' never survives as a safe byte, so a hashed stem can't equal a plain one.
        char hash[16];
        std::snprintf(hash, sizeof hash, "~%08x", fnv1a(modelName));
        stem += hash;
    }
    return stem;
}

int writeModelFiles(const std::string& dir, const std::vector<std::pair<std::string, std::string>>& texts) {
    DirHandle listing(opendir(dir.c_str()));
    if (!listing) {
        ENGINE_LOG(ENGINE_LOG_ERROR, "model directory %s can't be opened: %s", dir.c_str(), std::strerror(errno));
        return -1;
    }
    std::set<std::string> wanted;
    int result = 0;
    for (const auto& text : texts) {
        std::string name = fileStemOf(text.first) + kModelSuffix;
        wanted.insert(name);
        if (!writeFileAtomically(dir + "/" + name, text.second)) {
            ENGINE_LOG(ENGINE_LOG_ERROR, "model %s can't be saved in %s: %s", text.first.c_str(), dir.c_str(),
                       std::strerror(errno));
            result = -1;
        }
    }
    // Files of deleted models would bring them back at the next load.
    while (struct dirent* entry = readdir(listing.get())) {
        std::string name = entry->d_name;
        if (endsWith(name, kModelSuffix) && wanted.count(name) == 0) {
            std::remove((dir + "/" + name).c_str());
        }
    }
    return result;
}

int readModelFiles(const std::string& dir, std::size_t maxFeatures, std::vector<BehaviourModel>& models) {
    DirHandle listing(opendir(dir.c_str()));
    if (!listing) {
        ENGINE_LOG(ENGINE_LOG_ERROR, "model directory %s can't be opened: %s", dir.c_str(), std::strerror(errno));
        return -1;
    }
    while (struct dirent* entry = readdir(listing.get())) {
        std::string name = entry->d_name;
        if (!endsWith(name, kModelSuffix)) {
            continue;
        }
        std::string path = dir + "/" + name;
        struct stat info;
        std::string content;
        if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode) || !readWholeFile(path, content)) {
            ENGINE_LOG(ENGINE_LOG_WARN, "model file %s can't be read; skipped", path.c_str());
            continue;
        }
        rapidjson::Document document;
        document.Parse(content.c_str(), content.size());
        BehaviourModel model;
        if (document.HasParseError() || !readModelData(document, maxFeatures, model)) {
            ENGINE_LOG(ENGINE_LOG_WARN, "model file %s is not a model; skipped", path.c_str());
            continue;
        }
        models.push_back(std::move(model));
    }
    return 0;
}

}  // namespace baseeng
