// One behaviour model: its learning clock, its switch, the processes whose
// events it judges and the features it has learned.
#ifndef BASEENG_BEHAVIOUR_MODEL_H
#define BASEENG_BEHAVIOUR_MODEL_H

#include <cstdint>
#include <set>
#include <string>
#include <unordered_set>
#include <utility>

#include <rapidjson/document.h>

#include "address_names.h"
#include "feature_memo.h"
#include "json_text.h"
#include "learning_progress.h"
#include "normalise_command.h"
#include "text_hash.h"

namespace baseeng {

// What a model knows besides its features, which its features depend on.
class ModelMemory {
public:
    AddressNames addressNames;  // from the DNS answers its application got
    FeatureMemo memo;
    std::string scratch;  // room for one event's intermediate text, kept to spare an allocation each

    // The directories of its file features.
    const DirectorySet& fileDirectories() const { return m_fileDirectories; }
    void addDirectory(std::string directory) {
        if (m_fileDirectories.insert(std::move(directory)).second) {
            ++m_directoriesGeneration;
        }
    }
    void clearDirectories() {
        m_fileDirectories.clear();
        ++m_directoriesGeneration;
    }
    // Changes whenever the directories do: a folded command that read them is
    // remembered under it.
    std::uint64_t directoriesGeneration() const { return m_directoriesGeneration; }

private:
    DirectorySet m_fileDirectories;
    std::uint64_t m_directoriesGeneration = 0;
};

struct BehaviourModel {
    std::string name;
    unsigned learnTime = 0;  // in units of learnUnitSeconds
    unsigned long long learnedSeconds = 0;
    bool switchOn = true;
    bool running = true;
    std::set<std::string> processPaths;                  // the application's executables
    std::set<unsigned long long> pids;                   // processes whose events are the model's
    std::unordered_set<std::string, TextHash> features;  // "kind:subject", subjects normalised
    ModelMemory memory;
    LearningProgress progress;
    unsigned long long droppedFeatures = 0;  // not learned: the model was full
    bool changed = true;                     // data differs from what was last published

    bool learning(unsigned unitSeconds) const {
        return learnedSeconds < static_cast<unsigned long long>(learnTime) * unitSeconds;
    }
    bool active() const { return switchOn && running; }
    unsigned long long periodSeconds(unsigned unitSeconds) const {
        return static_cast<unsigned long long>(learnTime) * unitSeconds;
    }
};

// Adds a feature with what it tells the model's memory (a file's directory).
void addFeature(BehaviourModel& model, const std::string& feature);
// Forgets every feature and what was derived from them; looked-up names
// stay, they come from DNS answers, not from learning.
void clearFeatures(BehaviourModel& model);

// "kind:subject"; kinds never hold a colon.
std::string featureKey(const char* kind, const std::string& subject);

const char* periodName(const BehaviourModel& model, unsigned unitSeconds);

// pendingRepeats: repeats of the model's alarms counted and not yet out.
void writeModelStatus(JsonWriter& writer, const BehaviourModel& model, unsigned unitSeconds,
                      unsigned long long pendingRepeats);
void writeModelData(JsonWriter& writer, const BehaviourModel& model, unsigned unitSeconds);

// Reads the form of writeModelData back. At most maxFeatures are taken, the
// rest counted as dropped; the literal features of format 1 are normalised.
// False when the name or the learning clock is missing or of the wrong type.
bool readModelData(const rapidjson::Value& data, std::size_t maxFeatures, BehaviourModel& model);

}  // namespace baseeng

#endif
