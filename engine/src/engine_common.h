// The operations that BaseInterface and RaspInterface share, written once
// over the interface they implement.
#ifndef BASEENG_ENGINE_COMMON_H
#define BASEENG_ENGINE_COMMON_H

#include <mutex>
#include <string>

#include "base_interface.h"
#include "model_book.h"

namespace baseeng {

// Reads the settings file into the book: -1 when it can't be read.
int configureFromFile(ModelBook& book, const char* path);

// Appends origin-log elements for one library object; logs a failing
// directory once until it works again.
class OriginLogWriter {
public:
    int append(const char* dir, const std::string& modelName, const std::string& element, std::size_t maxBytes);

private:
    std::mutex m_mutex;
    bool m_failing = false;
};

template <class Interface>
class EngineCommon : public Interface {
public:
    int setConfig(const char* configPath) override { return configureFromFile(m_book, configPath); }
    int loadModel(const char* modelDir) override { return modelDir == nullptr ? -1 : m_book.load(modelDir); }
    int saveModel(const char* modelDir) override { return modelDir == nullptr ? -1 : m_book.save(modelDir); }
    bool initModel(_USR_INPUT* input) override { return input != nullptr && m_book.init(*input); }
    int interactModel(_USR_INPUT* input) override { return input == nullptr ? -1 : m_book.interact(*input); }
    int elapseTime(int seconds, int) override {
        if (seconds <= 0) {
            return -1;
        }
        m_book.elapse(static_cast<unsigned>(seconds));
        return 0;
    }
    std::string getModelStatus(std::string modelName) override { return m_book.status(modelName); }
    std::string getModelData(std::string modelName) override { return m_book.data(modelName); }
    std::string getChangedModel() override { return m_book.nextChanged(); }

protected:
    ModelBook m_book;
    OriginLogWriter m_originLog;
};

}  // namespace baseeng

#endif
