// RaspInterface over a ModelBook: runtime-application events.
#ifndef BASEENG_RASP_MODEL_ENGINE_H
#define BASEENG_RASP_MODEL_ENGINE_H

#include "engine_common.h"

namespace baseeng {

class RaspModelEngine : public EngineCommon<RaspInterface> {
public:
    int processEvent(_RASP_EVENTINFO& event) override;
    std::string getBlackLog(_RASP_EVENTINFO& event, int flag) override;
    int saveOriginLog(_RASP_EVENTINFO& event, const char* logDir) override;
    int feedbackAlarm(_RASP_EVENTINFO& event) override;

private:
    // Fills the result fields; true when the module would do nothing more
    // with the event (white, not for the origin log).
    bool judge(_RASP_EVENTINFO& event, const Sighting& sighting);
};

}  // namespace baseeng

#endif
