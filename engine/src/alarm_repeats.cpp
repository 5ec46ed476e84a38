#include "alarm_repeats.h"

namespace baseeng {

namespace {

// Windows and summaries held at once. Past it an alarm goes out at once
// instead of being counted: more alarms, never fewer.
const std::size_t kMaxTracked = 4096;

std::string keyOf(const std::string& model, const std::string& feature) {
    std::string key;
    key.reserve(model.size() + feature.size() + 1);
    key += model;
    key.push_back('\n');  // never in a model name the module sends
    key += feature;
    return key;
}

// The latest repeat's alarm with the count of repeats, as further keys of
// the same object, so that the module reads it like any other alarm.
std::string summaryText(const std::string& alarm, unsigned long long count, unsigned long long windowSeconds) {
    std::size_t end = alarm.rfind('}');
    if (end == std::string::npos) {
        return alarm;
    }
    std::string text = alarm.substr(0, end);
    text += text.size() > 1 ? "," : "";
    text += "\"repeat_count\":" + std::to_string(count) +
            ",\"repeat_window_seconds\":" + std::to_string(windowSeconds) + "}";
    return text;
}

}  // namespace

void AlarmRepeats::close(Window& window) {
    if (window.count > 0) {
        m_due.push_back(Summary{window.model, window.count, summaryText(window.latest, window.count, m_windowSeconds)});
    }
}

bool AlarmRepeats::admit(const std::string& model, const std::string& feature, unsigned long long now,
                         const std::function<std::string()>& alarmText) {
    if (m_windowSeconds == 0) {
        return true;
    }
    std::string key = keyOf(model, feature);
    auto found = m_open.find(key);
    if (found != m_open.end()) {
        if (now < found->second.endsAt) {
            ++found->second.count;
            found->second.latest = alarmText();
            return false;
        }
        close(found->second);
        m_open.erase(found);
    }
    if (m_open.size() + m_due.size() < kMaxTracked) {
        Window window;
        window.model = model;
        window.endsAt = now + m_windowSeconds;
        m_open.emplace(std::move(key), std::move(window));
    }
    return true;
}

void AlarmRepeats::advance(unsigned long long now) {
    for (auto it = m_open.begin(); it != m_open.end();) {
        if (now >= it->second.endsAt) {
            close(it->second);
            it = m_open.erase(it);
        } else {
            ++it;
        }
    }
}

bool AlarmRepeats::offer(const void* record) {
    if (m_due.empty()) {
        return false;
    }
    m_offeredTo = record;
    return true;
}

void AlarmRepeats::withdraw(const void* record) {
    if (m_offeredTo == record) {
        m_offeredTo = nullptr;
    }
}

bool AlarmRepeats::claim(const void* record, std::string& text) {
    if (m_due.empty() || record == nullptr || m_offeredTo != record) {
        return false;
    }
    text = std::move(m_due.front().text);
    m_due.pop_front();
    m_offeredTo = nullptr;
    return true;
}

unsigned long long AlarmRepeats::pending(const std::string& model) const {
    unsigned long long count = 0;
    for (const auto& entry : m_open) {
        count += entry.second.model == model ? entry.second.count : 0;
    }
    for (const Summary& summary : m_due) {
        count += summary.model == model ? summary.count : 0;
    }
    return count;
}

}  // namespace baseeng
