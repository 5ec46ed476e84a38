// Repeats of one alarm: the first goes out at once; those within the
// window after it are counted and go out together, when the window ends, as
// one alarm carrying the count. Nothing counted is ever dropped.
#ifndef BASEENG_ALARM_REPEATS_H
#define BASEENG_ALARM_REPEATS_H

#include <cstddef>
#include <deque>
#include <functional>
#include <string>
#include <unordered_map>

namespace baseeng {

class AlarmRepeats {
public:
    // 0: every alarm goes out at once.
    void setWindow(unsigned long long seconds) { m_windowSeconds = seconds; }

    // True: report this alarm now. False: it repeats one reported less than
    // a window ago and is counted; alarmText gives the summary's text, the
    // latest repeat's alarm.
    bool admit(const std::string& model, const std::string& feature, unsigned long long now,
               const std::function<std::string()>& alarmText);
    // Ends the windows that are over by now; those with repeats become due.
    void advance(unsigned long long now);

    std::size_t dueCount() const { return m_due.size(); }
    // The oldest due summary is offered to the record that will carry it out;
    // it stays due until that record's alarm text is taken.
    bool offer(const void* record);
    void withdraw(const void* record);
    bool claim(const void* record, std::string& text);

    // Repeats of the model's alarms counted and not yet gone out.
    unsigned long long pending(const std::string& model) const;

private:
    struct Window {
        std::string model;
        unsigned long long endsAt = 0;
        unsigned long long count = 0;
        std::string latest;
    };
    struct Summary {
        std::string model;
        unsigned long long count = 0;
        std::string text;
    };
    void close(Window& window);

    unsigned long long m_windowSeconds = 300;
    std::unordered_map<std::string, Window> m_open;  // by model and feature
    std::deque<Summary> m_due;
    const void* m_offeredTo = nullptr;
};

}  // namespace baseeng

#endif
