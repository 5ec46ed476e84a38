// BaseInterface over a ModelBook: host events.
#ifndef BASEENG_BASE_MODEL_ENGINE_H
#define BASEENG_BASE_MODEL_ENGINE_H

#include "engine_common.h"

namespace baseeng {

class BaseModelEngine : public EngineCommon<BaseInterface> {
public:
    int processEvent(_BASE_EVENTINFO& event) override;
    std::string getBlackLog(_BASE_EVENTINFO& event, int flag) override;
    int saveOriginLog(_BASE_EVENTINFO& event, const char* logDir) override;
    int feedbackAlarm(_BASE_EVENTINFO& event) override;

private:
    // Fills the result fields; true when the module would do nothing more
    // with the event (white, decided, not for the origin log).
    bool judge(_BASE_EVENTINFO& event, const Sighting& sighting);
};

}  // namespace baseeng

#endif
