// One behaviour model: its learning clock, its switch, the processes whose
// events it judges and the features it has learned.
#ifndef BASEENG_BEHAVIOUR_MODEL_H
#define BASEENG_BEHAVIOUR_MODEL_H

#include <set>
#include <string>
#include <unordered_set>

#include <rapidjson/document.h>

#include "json_text.h"

namespace baseeng {

struct BehaviourModel {
    std::string name;
    unsigned learnTime = 0;  // in units of learnUnitSeconds
    unsigned long long learnedSeconds = 0;
    bool switchOn = true;
    bool running = true;
    std::set<std::string> processPaths;  // the application's executables
    std::set<unsigned long long> pids;   // processes whose events are the model's
    std::unordered_set<std::string> features;  // "kind:subject"
    unsigned long long droppedFeatures = 0;    // not learned: the model was full
    bool changed = true;                       // data differs from what was last published

    bool learning(unsigned unitSeconds) const {
        return learnedSeconds < static_cast<unsigned long long>(learnTime) * unitSeconds;
    }
    bool active() const { return switchOn && running; }
};

// "kind:subject"; kinds never hold a colon.
std::string featureKey(const char* kind, const std::string& subject);

const char* periodName(const BehaviourModel& model, unsigned unitSeconds);

void writeModelStatus(JsonWriter& writer, const BehaviourModel& model, unsigned unitSeconds);
void writeModelData(JsonWriter& writer, const BehaviourModel& model, unsigned unitSeconds);

// Reads the form of writeModelData back. At most maxFeatures are taken, the
// rest counted as dropped. False when the name or the learning clock is
// missing or of the wrong type.
bool readModelData(const rapidjson::Value& data, std::size_t maxFeatures, BehaviourModel& model);

}  // namespace baseeng

#endif
