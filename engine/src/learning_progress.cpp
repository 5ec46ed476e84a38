#include "learning_progress.h"

namespace baseeng {

namespace {
const unsigned long long kMinutesPerHour = 60;
}  // namespace

void LearningProgress::noteNewFeature(unsigned long long learnedSeconds) {
    unsigned long long minute = learnedSeconds / 60;
    if (!m_minutes.empty() && m_minutes.back().first == minute) {
        ++m_minutes.back().second;
    } else {
        m_minutes.emplace_back(minute, 1);
    }
    while (m_minutes.front().first + kMinutesPerHour <= minute) {
        m_minutes.pop_front();
    }
    m_lastNewAt = learnedSeconds;
    m_any = true;
}

unsigned long long LearningProgress::newInLastHour(unsigned long long learnedSeconds) const {
    unsigned long long minute = learnedSeconds / 60;
    unsigned long long count = 0;
    for (const auto& entry : m_minutes) {
        if (entry.first + kMinutesPerHour > minute) {
            count += entry.second;
        }
    }
    return count;
}

bool LearningProgress::stable(unsigned long long learnedSeconds, unsigned long long periodSeconds) const {
    unsigned long long quarter = periodSeconds / 4;
    if (learnedSeconds < quarter) {
        return false;
    }
    // A feature stamped t came in somewhere in the step after t: strictly later.
    return !m_any || learnedSeconds - m_lastNewAt > quarter;
}

void LearningProgress::reset() { *this = LearningProgress(); }

void LearningProgress::write(JsonWriter& writer) const {
    writer.StartObject();
    putBool(writer, "any_new", m_any);
    putUint(writer, "last_new_at", m_lastNewAt);
    writer.Key("minutes");
    writer.StartArray();
    for (const auto& entry : m_minutes) {
        writer.StartArray();
        writer.Uint64(entry.first);
        writer.Uint64(entry.second);
        writer.EndArray();
    }
    writer.EndArray();
    writer.EndObject();
}

void LearningProgress::read(const rapidjson::Value& object) {
    reset();
    if (!object.IsObject()) {
        return;
    }
    auto any = object.FindMember("any_new");
    auto last = object.FindMember("last_new_at");
    if (any != object.MemberEnd() && any->value.IsBool() && last != object.MemberEnd() && last->value.IsUint64()) {
        m_any = any->value.GetBool();
        m_lastNewAt = last->value.GetUint64();
    }
    auto minutes = object.FindMember("minutes");
    if (minutes == object.MemberEnd() || !minutes->value.IsArray()) {
        return;
    }
    for (const auto& entry : minutes->value.GetArray()) {
        if (entry.IsArray() && entry.Size() == 2 && entry[0].IsUint64() && entry[1].IsUint64() &&
            (m_minutes.empty() || m_minutes.back().first < entry[0].GetUint64())) {
            m_minutes.emplace_back(entry[0].GetUint64(), entry[1].GetUint64());
        }
    }
}

}  // namespace baseeng
