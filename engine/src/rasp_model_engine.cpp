#include "rasp_model_engine.h"

#include "rasp_event_view.h"

namespace baseeng {

namespace {
enum { kWhite = 1, kBlack = 0 };
}  // namespace

int RaspModelEngine::processEvent(_RASP_EVENTINFO& event) {
    // The probe's events carry no executable path: only process ids name a model.
    Sighting sighting =
        m_book.observe(event.pid, nullptr, [&event](ModelMemory& memory) { return raspFeature(event, memory); });
    bool carrier = judge(event, sighting);
    if (m_book.offerSummary(&event, carrier)) {
        event.match_verdict = kBlack;
    }
    return 0;
}

bool RaspModelEngine::judge(_RASP_EVENTINFO& event, const Sighting& sighting) {
    event.origin_log_flag = 0;
    event.match_verdict = kWhite;
    if (!sighting.matched) {
        event.model_status.clear();
        event.model_name.clear();
        return true;
    }
    event.model_name = sighting.modelName;
    if (!sighting.active || sighting.feature.empty()) {
        event.model_status.clear();
        return true;
    }
    if (sighting.learning) {
        event.model_status = WL_LEARN_PERIOD;
        event.origin_log_flag = 1;
        return false;
    }
    // No delay list on this path: an unknown action is black at once.
    event.model_status = WL_FILTER_PERIOD;
    if (sighting.known || !m_book.admitAlarm(sighting, [&event] { return raspAlarmJson(event); })) {
        return true;
    }
    event.match_verdict = kBlack;
    return false;
}

std::string RaspModelEngine::getBlackLog(_RASP_EVENTINFO& event, int) {
    std::string summary;
    if (m_book.claimSummary(&event, summary)) {
        return summary;
    }
    return raspAlarmJson(event);
}

int RaspModelEngine::saveOriginLog(_RASP_EVENTINFO& event, const char* logDir) {
    return m_originLog.append(logDir, event.model_name, raspOriginElement(event), m_book.settings().originLogMaxBytes);
}

int RaspModelEngine::feedbackAlarm(_RASP_EVENTINFO& event) {
    return m_book.feedback(event.model_name, [&event](ModelMemory& memory) { return raspFeature(event, memory); });
}

}  // namespace baseeng
