// How a model's learning goes: when it last met something new, and how
// much it met in the last hour of learning time. An application whose
// behaviour is covered stops producing new features.
#ifndef BASEENG_LEARNING_PROGRESS_H
#define BASEENG_LEARNING_PROGRESS_H

#include <deque>
#include <utility>

#include <rapidjson/document.h>

#include "json_text.h"

namespace baseeng {

class LearningProgress {
public:
    // A feature was learned at this learning time (seconds).
    void noteNewFeature(unsigned long long learnedSeconds);
    // New features in the hour of learning time up to learnedSeconds.
    unsigned long long newInLastHour(unsigned long long learnedSeconds) const;
    // No new feature in the last quarter of the learning period, and at
    // least that quarter has passed.
    bool stable(unsigned long long learnedSeconds, unsigned long long periodSeconds) const;
    bool anyNew() const { return m_any; }
    unsigned long long lastNewAt() const { return m_lastNewAt; }
    void reset();

    void write(JsonWriter& writer) const;
    void read(const rapidjson::Value& object);

private:
    std::deque<std::pair<unsigned long long, unsigned long long>> m_minutes;  // (minute, new features)
    unsigned long long m_lastNewAt = 0;
    bool m_any = false;
};

}  // namespace baseeng

#endif
