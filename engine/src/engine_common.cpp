#include "engine_common.h"

#include "engine_log.h"
#include "model_files.h"
#include "origin_log_file.h"

namespace baseeng {

int configureFromFile(ModelBook& book, const char* path) {
    if (path == nullptr) {
        return -1;
    }
    EngineSettings settings = book.settings();
    std::vector<std::string> problems;
    if (!readEngineSettings(path, settings, problems)) {
        ENGINE_LOG(ENGINE_LOG_ERROR, "configuration %s can't be read", path);
        return -1;
    }
    for (const std::string& problem : problems) {
        ENGINE_LOG(ENGINE_LOG_WARN, "%s: %s", path, problem.c_str());
    }
    book.configure(settings);
    return 0;
}

int OriginLogWriter::append(const char* dir, const std::string& modelName, const std::string& element,
                            std::size_t maxBytes) {
    if (dir == nullptr || modelName.empty()) {
        return -1;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    int result = appendOriginLog(dir, fileStemOf(modelName), element, maxBytes);
    if (result != 0 && !m_failing) {
        ENGINE_LOG(ENGINE_LOG_ERROR, "origin log of model %s can't be written in %s", modelName.c_str(), dir);
    }
    m_failing = result != 0;
    return result;
}

}  // namespace baseeng
