// Link-time doubles of what the engines call outside their own area: the
// upload, the timer library, the collector channel, the bus subscriber's
// attach, and the model-management functions. Each records its calls.
#ifndef WL_ENGINE_RECORDERS_H
#define WL_ENGINE_RECORDERS_H

#include <string>
#include <vector>

namespace recorders {

struct Upload {
    std::string text;
    int type;
};

struct Timer {
    unsigned int period;
    void (*callback)(void);
};

void reset();

// Uploads of one report type, or all of them with -1, in order.
std::vector<Upload> uploads(int type = -1);

// Timer starts, in call order (true: a handle, false: null); after the
// script, starts succeed.
void scriptTimerStarts(const std::vector<bool>& results);
std::vector<Timer> timers();  // every start that succeeded, in order

// Everything else, in order: "timer start", "timer close <n>" (n-th started),
// "register init", "register uninit", "subscribe <action> <id> <reserved>"
// and the model-management functions by name.
std::vector<std::string> journal();
int journalCount(const std::string& entry);
void note(const std::string& entry);

void setRegisterInitResult(bool ok);
bool registerInitResult();

}  // namespace recorders

#endif
