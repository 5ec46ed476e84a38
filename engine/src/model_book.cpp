#include "model_book.h"

#include "engine_log.h"
#include "model_files.h"

namespace baseeng {

namespace {

void collectPids(const path_pid_map& map, std::set<unsigned long long>& pids) {
    for (const auto& entry : map) {
        pids.insert(entry.second.begin(), entry.second.end());
    }
}

// Applies switchValue 0 (off), 1 (on) or 2 (application not running).
bool applySwitch(BehaviourModel& model, unsigned short switchValue) {
    switch (switchValue) {
        case USR_SWITCH_OFF: model.switchOn = false; break;
        case USR_SWITCH_ON: model.switchOn = true; break;
        case USR_SWITCH_NOT_RUNNING:
            model.running = false;
            model.pids.clear();
            break;
        default: return false;
    }
    model.changed = true;
    return true;
}

}  // namespace

void ModelBook::configure(const EngineSettings& settings) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_settings = settings;
    m_repeats.setWindow(settings.alarmRepeatWindowSeconds);
}

EngineSettings ModelBook::settings() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_settings;
}

bool ModelBook::init(const _USR_INPUT& input) {
    if (input.modelName.empty()) {
        return false;
    }
    if (input.oprType != USR_OPR_INIT && input.oprType != USR_OPR_SWITCH) {
        return false;
    }
    if (input.oprType == USR_OPR_SWITCH && input.switchValue > USR_SWITCH_NOT_RUNNING) {
        return false;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    auto found = m_models.find(input.modelName);
    if (found == m_models.end()) {
        found = m_models.emplace(input.modelName, BehaviourModel()).first;
        found->second.name = input.modelName;
        ENGINE_LOG(ENGINE_LOG_INFO, "model %s created, learn time %u", input.modelName.c_str(),
                   static_cast<unsigned>(input.learnTime));
    }
    BehaviourModel& model = found->second;
    model.learnTime = input.learnTime;
    model.changed = true;
    if (input.oprType == USR_OPR_SWITCH) {
        return applySwitch(model, input.switchValue);
    }
    model.running = true;
    model.processPaths.clear();
    for (const auto& entry : input.processMap) {
        model.processPaths.insert(entry.first);
    }
    model.pids.clear();
    collectPids(input.processMap, model.pids);
    collectPids(input.childProcessMap, model.pids);
    collectPids(input.childProcessMapDup, model.pids);
    return true;
}

int ModelBook::interact(const _USR_INPUT& input) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto found = m_models.find(input.modelName);
    if (input.oprType == USR_OPR_DELETE) {
        if (found == m_models.end()) {
            return BOOK_NO_SUCH_MODEL_TO_DELETE;
        }
        m_models.erase(found);
        ENGINE_LOG(ENGINE_LOG_INFO, "model %s deleted", input.modelName.c_str());
        return BOOK_OK;
    }
    if (found == m_models.end()) {
        return BOOK_FAILED;
    }
    BehaviourModel& model = found->second;
    switch (input.oprType) {
        case USR_OPR_RELEARN:
            clearFeatures(model);
            model.learnedSeconds = 0;
            model.learnTime = input.learnTime;
            model.changed = true;
            return BOOK_OK;
        case USR_OPR_QUERY: return BOOK_OK;
        case USR_OPR_STUDY_TIME:
            model.learnTime = input.learnTime;
            model.changed = true;
            return BOOK_OK;
        case USR_OPR_SWITCH: return applySwitch(model, input.switchValue) ? BOOK_OK : BOOK_FAILED;
        default: return BOOK_FAILED;
    }
}

BehaviourModel* ModelBook::findOwner(unsigned long long pid, const ActorPathOf& actorPathOf) {
    for (auto& entry : m_models) {
        if (entry.second.pids.count(pid) != 0) {
            return &entry.second;
        }
    }
    const std::string actorPath = actorPathOf ? actorPathOf() : std::string();
    if (actorPath.empty()) {
        return nullptr;
    }
    // Process ids are gone after a restart of the application or the agent;
    // the executable still names the model.
    for (auto& entry : m_models) {
        if (entry.second.processPaths.count(actorPath) != 0) {
            return &entry.second;
        }
    }
    return nullptr;
}

Sighting ModelBook::observe(unsigned long long pid, const ActorPathOf& actorPathOf, const FeatureOf& featureOf) {
    Sighting sighting;
    std::lock_guard<std::mutex> lock(m_mutex);
    BehaviourModel* model = findOwner(pid, actorPathOf);
    if (model == nullptr) {
        return sighting;
    }
    sighting.matched = true;
    sighting.modelName = model->name;
    sighting.active = model->active();
    sighting.learning = model->learning(m_settings.learnUnitSeconds);
    if (!sighting.active) {
        return sighting;
    }
    sighting.feature = featureOf(model->memory);
    const std::string& feature = sighting.feature;
    if (feature.empty()) {
        return sighting;
    }
    if (model->features.count(feature) != 0) {
        sighting.known = true;
    } else if (sighting.learning) {
        if (model->features.size() < m_settings.maxFeatures) {
            addFeature(*model, feature);
            model->progress.noteNewFeature(model->learnedSeconds);
            model->changed = true;
            sighting.known = true;
        } else {
            if (model->droppedFeatures == 0) {
                ENGINE_LOG(ENGINE_LOG_WARN, "model %s is full (%zu features): new features are not learned",
                           model->name.c_str(), m_settings.maxFeatures);
            }
            ++model->droppedFeatures;
        }
    }
    return sighting;
}

int ModelBook::feedback(const std::string& modelName, const FeatureOf& featureOf) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto found = m_models.find(modelName);
    if (found == m_models.end()) {
        return -1;
    }
    BehaviourModel& model = found->second;
    std::string feature = featureOf(model.memory);
    if (feature.empty()) {
        return -1;
    }
    if (model.features.count(feature) != 0) {
        return 0;
    }
    if (model.features.size() >= m_settings.maxFeatures) {
        ++model.droppedFeatures;
        return -1;
    }
    addFeature(model, feature);
    model.changed = true;
    return 0;
}

bool ModelBook::admitAlarm(const Sighting& sighting, const std::function<std::string()>& alarmText) {
    std::lock_guard<std::mutex> lock(m_mutex);
    bool report = m_repeats.admit(sighting.modelName, sighting.feature, m_clock, alarmText);
    m_dueSummaries.store(m_repeats.dueCount(), std::memory_order_relaxed);  // an ended window may have closed
    return report;
}

bool ModelBook::offerSummary(const void* record, bool carrier) {
    if (m_dueSummaries.load(std::memory_order_relaxed) == 0) {
        return false;  // the common case: no lock
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    if (carrier) {
        return m_repeats.offer(record);
    }
    m_repeats.withdraw(record);
    return false;
}

bool ModelBook::claimSummary(const void* record, std::string& text) {
    if (m_dueSummaries.load(std::memory_order_relaxed) == 0) {
        return false;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    bool claimed = m_repeats.claim(record, text);
    m_dueSummaries.store(m_repeats.dueCount(), std::memory_order_relaxed);
    return claimed;
}

void ModelBook::elapse(unsigned seconds) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_clock += seconds;
    m_repeats.advance(m_clock);
    m_dueSummaries.store(m_repeats.dueCount(), std::memory_order_relaxed);
    for (auto& entry : m_models) {
        BehaviourModel& model = entry.second;
        if (!model.active() || !model.learning(m_settings.learnUnitSeconds)) {
            continue;
        }
        model.learnedSeconds += seconds;
        if (!model.learning(m_settings.learnUnitSeconds)) {
            model.changed = true;
            ENGINE_LOG(ENGINE_LOG_INFO, "model %s finished learning with %zu features", model.name.c_str(),
                       model.features.size());
        }
    }
}

std::string ModelBook::describe(const std::string& name, const char* unknownName, ModelWriter write) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    rapidjson::StringBuffer buffer;
    JsonWriter writer(buffer);
    if (!name.empty()) {
        auto found = m_models.find(name);
        if (found == m_models.end()) {
            return unknownName;
        }
        write(writer, found->second);
        return textOf(buffer);
    }
    if (m_models.empty()) {
        return "{}";
    }
    writer.StartObject();
    writer.Key("models");
    writer.StartArray();
    for (const auto& entry : m_models) {
        write(writer, entry.second);
    }
    writer.EndArray();
    writer.EndObject();
    return textOf(buffer);
}

std::string ModelBook::status(const std::string& name) const {
    // describe holds the lock while it writes.
    return describe(name, "ERROR", [this](JsonWriter& writer, const BehaviourModel& model) {
        writeModelStatus(writer, model, m_settings.learnUnitSeconds, m_repeats.pending(model.name));
    });
}

std::string ModelBook::data(const std::string& name) const {
    return describe(name, "{}", [this](JsonWriter& writer, const BehaviourModel& model) {
        writeModelData(writer, model, m_settings.learnUnitSeconds);
    });
}

std::string ModelBook::nextChanged() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_models.empty()) {
        return std::string();
    }
    auto it = m_models.upper_bound(m_changedCursor);
    for (std::size_t visited = 0; visited < m_models.size(); ++visited, ++it) {
        if (it == m_models.end()) {
            it = m_models.begin();
        }
        if (it->second.changed) {
            it->second.changed = false;
            m_changedCursor = it->first;
            return it->first;
        }
    }
    return std::string();
}

int ModelBook::save(const std::string& dir) const {
    std::vector<std::pair<std::string, std::string>> texts;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        texts.reserve(m_models.size());
        for (const auto& entry : m_models) {
            rapidjson::StringBuffer buffer;
            JsonWriter writer(buffer);
            writeModelData(writer, entry.second, m_settings.learnUnitSeconds);
            texts.emplace_back(entry.first, textOf(buffer));
        }
    }
    // The files are written outside the lock: commands need not wait for the disk.
    return writeModelFiles(dir, texts);
}

int ModelBook::load(const std::string& dir) {
    std::size_t maxFeatures = settings().maxFeatures;
    std::vector<BehaviourModel> loaded;
    if (readModelFiles(dir, maxFeatures, loaded) != 0) {
        return -1;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    for (BehaviourModel& model : loaded) {
        std::string name = model.name;
        m_models[name] = std::move(model);
    }
    return static_cast<int>(loaded.size());
}

}  // namespace baseeng
