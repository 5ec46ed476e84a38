#include "rasp_model_engine.h"

#include "rasp_event_view.h"

namespace baseeng {

namespace {
enum { kWhite = 1, kBlack = 0 };
}  // namespace

int RaspModelEngine::processEvent(_RASP_EVENTINFO& event) {
    std::string feature = raspFeature(event);
    // The probe's events carry no executable path: only process ids name a model.
    Sighting sighting = m_book.observe(event.pid, std::string(), feature);
    event.origin_log_flag = 0;
    event.match_verdict = kWhite;
    if (!sighting.matched) {
        event.model_status.clear();
        event.model_name.clear();
        return 0;
    }
    event.model_name = sighting.modelName;
    if (!sighting.active || feature.empty()) {
        event.model_status.clear();
        return 0;
    }
    if (sighting.learning) {
        event.model_status = WL_LEARN_PERIOD;
        event.origin_log_flag = 1;
        return 0;
    }
    // No delay list on this path: an unknown action is black at once.
    event.model_status = WL_FILTER_PERIOD;
    event.match_verdict = sighting.known ? kWhite : kBlack;
    return 0;
}

std::string RaspModelEngine::getBlackLog(_RASP_EVENTINFO& event, int) {
    return raspAlarmJson(event);
}

int RaspModelEngine::saveOriginLog(_RASP_EVENTINFO& event, const char* logDir) {
    return m_originLog.append(logDir, event.model_name, raspOriginElement(event),
                              m_book.settings().originLogMaxBytes);
}

int RaspModelEngine::feedbackAlarm(_RASP_EVENTINFO& event) {
    return m_book.feedback(event.model_name, raspFeature(event));
}

}  // namespace baseeng
