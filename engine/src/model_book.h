// All models of one library object, behind one mutex: the module calls
// initModel and interactModel without its own lock, beside everything else.
#ifndef BASEENG_MODEL_BOOK_H
#define BASEENG_MODEL_BOOK_H

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "alarm_repeats.h"
#include "base_interface.h"
#include "behaviour_model.h"
#include "engine_settings.h"
#include "model_records.h"

namespace baseeng {

// What the book knows about one event.
struct Sighting {
    bool matched = false;  // some model owns the acting process
    std::string modelName;
    bool active = false;  // switched on and its application running
    bool learning = false;
    bool known = false;   // the feature is in the model (possibly just learned)
    std::string feature;  // as the model sees it
};

// The feature of an event in the terms of the model that sees it; it may
// teach that model's memory (a DNS answer's addresses).
using FeatureOf = std::function<std::string(ModelMemory&)>;
// The executable of the acting process, asked for only when no model owns
// its process id; may be empty.
using ActorPathOf = std::function<std::string()>;

// Result codes of interact(): the module's contract.
enum { BOOK_OK = WL_INTERACT_OK, BOOK_FAILED = -1, BOOK_NO_SUCH_MODEL_TO_DELETE = WL_INTERACT_DELETE_ANYWAY };

class ModelBook {
public:
    ModelBook() { m_repeats.setWindow(m_settings.alarmRepeatWindowSeconds); }

    void configure(const EngineSettings& settings);
    EngineSettings settings() const;

    bool init(const _USR_INPUT& input);
    int interact(const _USR_INPUT& input);

    // The model owning pid, or else the one whose executable is actorPath.
    // While it learns, the feature is added. An empty feature is never known.
    Sighting observe(unsigned long long pid, const ActorPathOf& actorPathOf, const FeatureOf& featureOf);
    // Makes the feature white in the named model: 0, or -1 when the model or
    // the feature is missing or the model is full.
    int feedback(const std::string& modelName, const FeatureOf& featureOf);

    // Advances the clock of the models that learn, and the book's own clock.
    void elapse(unsigned seconds);

    // An unknown feature in filtering: true to report it now, false when it
    // repeats an alarm reported less than a window ago (then counted).
    bool admitAlarm(const Sighting& sighting, const std::function<std::string()>& alarmText);
    // A record the module will report if black: the oldest due summary of
    // repeats rides on it when it would otherwise go nowhere (carrier true).
    bool offerSummary(const void* record, bool carrier);
    // The summary offered to this record, if any.
    bool claimSummary(const void* record, std::string& text);

    std::string status(const std::string& name) const;
    std::string data(const std::string& name) const;
    // Round robin over the models whose data changed since last named.
    std::string nextChanged();

    int save(const std::string& dir) const;
    int load(const std::string& dir);

private:
    using ModelWriter = std::function<void(JsonWriter&, const BehaviourModel&)>;
    // One model by name (unknownName when there is none), or all of them.
    std::string describe(const std::string& name, const char* unknownName, ModelWriter write) const;
    BehaviourModel* findOwner(unsigned long long pid, const ActorPathOf& actorPathOf);

    mutable std::mutex m_mutex;
    EngineSettings m_settings;
    std::map<std::string, BehaviourModel> m_models;
    std::string m_changedCursor;
    unsigned long long m_clock = 0;  // seconds given by elapse
    AlarmRepeats m_repeats;
    std::atomic<std::size_t> m_dueSummaries{0};  // read without the lock on every event
};

}  // namespace baseeng

#endif
