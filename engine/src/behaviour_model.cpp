#include "behaviour_model.h"

#include "feature_kinds.h"

#include <algorithm>
#include <map>
#include <vector>

namespace baseeng {

namespace {
const char kLearnPeriod[] = "LEARN_PEROID";
const char kFilterPeriod[] = "FILTER_PEROID";
// 2: subjects normalised; 1: literal texts.
const unsigned kFormat = 2;
}  // namespace

void addFeature(BehaviourModel& model, const std::string& feature) {
    std::size_t colon = feature.find(':');
    if (colon != std::string::npos && isFileKind(feature.data(), colon)) {
        std::size_t slash = feature.rfind('/');
        if (slash != std::string::npos && slash > colon + 1) {
            model.memory.addDirectory(feature.substr(colon + 1, slash - colon - 1));
        }
    }
    model.features.insert(feature);
}

void clearFeatures(BehaviourModel& model) {
    model.features.clear();
    model.memory.clearDirectories();
    model.droppedFeatures = 0;
    model.progress.reset();
}

std::string featureKey(const char* kind, const std::string& subject) {
    std::string key(kind);
    key.push_back(':');
    key.append(subject);
    return key;
}

const char* periodName(const BehaviourModel& model, unsigned unitSeconds) {
    return model.learning(unitSeconds) ? kLearnPeriod : kFilterPeriod;
}

void writeModelStatus(JsonWriter& writer, const BehaviourModel& model, unsigned unitSeconds,
                      unsigned long long pendingRepeats) {
    writer.StartObject();
    putString(writer, "model_name", model.name);
    putString(writer, "period", periodName(model, unitSeconds));
    putUint(writer, "learned_minutes", model.learnedSeconds / 60);
    putUint(writer, "learned_seconds", model.learnedSeconds);
    putUint(writer, "learn_time", model.learnTime);
    putUint(writer, "learn_unit_seconds", unitSeconds);
    putUint(writer, "switch", model.switchOn ? 1 : 0);
    putBool(writer, "running", model.running);
    putUint(writer, "feature_count", model.features.size());
    putUint(writer, "features_dropped", model.droppedFeatures);
    putUint(writer, "new_features_per_hour", model.progress.newInLastHour(model.learnedSeconds));
    if (model.progress.anyNew()) {
        putUint(writer, "last_new_feature_seconds", model.progress.lastNewAt());
    }
    putBool(writer, "stable", model.progress.stable(model.learnedSeconds, model.periodSeconds(unitSeconds)));
    putUint(writer, "alarm_repeats_pending", pendingRepeats);
    writer.EndObject();
}

void writeModelData(JsonWriter& writer, const BehaviourModel& model, unsigned unitSeconds) {
    writer.StartObject();
    putUint(writer, "format", kFormat);
    putString(writer, "model_name", model.name);
    putString(writer, "period", periodName(model, unitSeconds));
    putUint(writer, "learn_time", model.learnTime);
    putUint(writer, "learned_seconds", model.learnedSeconds);
    putUint(writer, "switch", model.switchOn ? 1 : 0);
    putBool(writer, "running", model.running);
    putUint(writer, "features_dropped", model.droppedFeatures);
    writer.Key("process_paths");
    writer.StartArray();
    for (const std::string& path : model.processPaths) {
        writer.String(path.data(), static_cast<rapidjson::SizeType>(path.size()));
    }
    writer.EndArray();
    writer.Key("pids");
    writer.StartArray();
    for (unsigned long long pid : model.pids) {
        writer.Uint64(pid);
    }
    writer.EndArray();
    writer.Key("address_names");
    model.memory.addressNames.write(writer);
    writer.Key("progress");
    model.progress.write(writer);

    // Grouped by kind and sorted, so that equal models give equal texts.
    std::map<std::string, std::vector<std::string>> byKind;
    for (const std::string& key : model.features) {
        std::size_t colon = key.find(':');
        byKind[key.substr(0, colon)].push_back(key.substr(colon + 1));
    }
    writer.Key("features");
    writer.StartObject();
    for (auto& kind : byKind) {
        std::sort(kind.second.begin(), kind.second.end());
        writer.Key(kind.first.data(), static_cast<rapidjson::SizeType>(kind.first.size()));
        writer.StartArray();
        for (const std::string& subject : kind.second) {
            writer.String(subject.data(), static_cast<rapidjson::SizeType>(subject.size()));
        }
        writer.EndArray();
    }
    writer.EndObject();
    writer.EndObject();
}

bool readModelData(const rapidjson::Value& data, std::size_t maxFeatures, BehaviourModel& model) {
    if (!data.IsObject()) {
        return false;
    }
    auto name = data.FindMember("model_name");
    auto learnTime = data.FindMember("learn_time");
    auto learned = data.FindMember("learned_seconds");
    if (name == data.MemberEnd() || !name->value.IsString() || name->value.GetStringLength() == 0 ||
        learnTime == data.MemberEnd() || !learnTime->value.IsUint() || learned == data.MemberEnd() ||
        !learned->value.IsUint64()) {
        return false;
    }
    model = BehaviourModel();
    model.name.assign(name->value.GetString(), name->value.GetStringLength());
    model.learnTime = learnTime->value.GetUint() & 0xffffu;
    model.learnedSeconds = learned->value.GetUint64();

    auto switchValue = data.FindMember("switch");
    if (switchValue != data.MemberEnd() && switchValue->value.IsUint()) {
        model.switchOn = switchValue->value.GetUint() != 0;
    }
    auto running = data.FindMember("running");
    if (running != data.MemberEnd() && running->value.IsBool()) {
        model.running = running->value.GetBool();
    }
    auto dropped = data.FindMember("features_dropped");
    if (dropped != data.MemberEnd() && dropped->value.IsUint64()) {
        model.droppedFeatures = dropped->value.GetUint64();
    }
    auto paths = data.FindMember("process_paths");
    if (paths != data.MemberEnd() && paths->value.IsArray()) {
        for (const auto& path : paths->value.GetArray()) {
            if (path.IsString()) {
                model.processPaths.emplace(path.GetString(), path.GetStringLength());
            }
        }
    }
    auto pids = data.FindMember("pids");
    if (pids != data.MemberEnd() && pids->value.IsArray()) {
        for (const auto& pid : pids->value.GetArray()) {
            if (pid.IsUint64()) {
                model.pids.insert(pid.GetUint64());
            }
        }
    }
    auto names = data.FindMember("address_names");
    if (names != data.MemberEnd()) {
        model.memory.addressNames.read(names->value);
    }
    auto progress = data.FindMember("progress");
    if (progress != data.MemberEnd()) {
        model.progress.read(progress->value);
    }
    auto format = data.FindMember("format");
    bool literal = format == data.MemberEnd() || !format->value.IsUint() || format->value.GetUint() < kFormat;
    auto features = data.FindMember("features");
    if (features != data.MemberEnd() && features->value.IsObject()) {
        for (const auto& kind : features->value.GetObject()) {
            if (!kind.value.IsArray()) {
                continue;
            }
            std::string kindName(kind.name.GetString(), kind.name.GetStringLength());
            if (kindName.empty() || kindName.find(':') != std::string::npos) {
                continue;
            }
            for (const auto& subject : kind.value.GetArray()) {
                if (!subject.IsString()) {
                    continue;
                }
                std::string text(subject.GetString(), subject.GetStringLength());
                std::string key = featureKey(kindName.c_str(), literal ? upgradedSubject(kindName, text) : text);
                if (model.features.count(key) != 0) {
                    continue;  // literal texts that now fold together
                }
                if (model.features.size() >= maxFeatures) {
                    ++model.droppedFeatures;
                    continue;
                }
                addFeature(model, key);
            }
        }
    }
    model.changed = false;
    return true;
}

}  // namespace baseeng
