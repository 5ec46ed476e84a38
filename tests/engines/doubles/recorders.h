// Link-time doubles of what the engines call outside their own area: the
// upload, the timer library, the collector channel, the bus subscriber's
// attach, and the model-management functions. Each records its calls.
#ifndef WL_ENGINE_RECORDERS_H
#define WL_ENGINE_RECORDERS_H

#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace recorders {

struct Upload {
    std::string text;
    int type;
    std::thread::id thread;
};

struct Timer {
    void* handle;
    unsigned int period;
    void (*callback)(void);
    bool closed;
};

struct Subscribe {
    int action;
    int id;
    int reserved;
};

void reset();

std::vector<Upload> uploads();
std::vector<Upload> uploadsOfType(int type);
bool waitForUploads(int type, int n, std::chrono::milliseconds timeout = std::chrono::seconds(5));

// Timer starts: the results, in call order (true: a handle, false: null);
// after the script, starts succeed.
void scriptTimerStarts(const std::vector<bool>& results);
std::vector<Timer> timers();  // every start that succeeded, in order
int timerStartCalls();
int timerCloseCalls();

std::vector<Subscribe> subscribes();

void setRegisterInitResult(bool ok);
int registerInitCalls();
int registerUninitCalls();

// Names of the model-management calls, in order.
std::vector<std::string> modelCalls();

}  // namespace recorders

#endif
