// Link-time doubles of the timer library and the bus subscriber's attach, as
// the engines call them; the upload, the collector filter and model
// management come from tests/fakes (module_fakes.h). All record into the call
// log: "timer start", "timer close <n>" (the n-th started), "register init",
// "register uninit".
#ifndef WL_ENGINE_RECORDERS_H
#define WL_ENGINE_RECORDERS_H

#include <vector>

#include "call_log.h"
#include "module_fakes.h"

namespace recorders {

struct Timer {
    unsigned int period;
    void (*callback)(void);
};

// The call log, the fakes' records and the scripts back to their defaults.
void reset();

// Timer starts, in call order (true: a handle, false: null); after the
// script, starts succeed.
void scriptTimerStarts(const std::vector<bool>& results);
std::vector<Timer> timers();  // every start that succeeded, in order

void setRegisterInitResult(bool ok);
bool registerInitResult();

}  // namespace recorders

#endif
