#include "base_model_engine.h"

#include "base_event_view.h"
#include "wide_text.h"

namespace baseeng {

namespace {

enum { kWhite = 1, kBlack = 0 };
// delay_gate at which the module stops giving an event another pass.
const uint16_t kDecided = 2;
const uint16_t kProcessCreation = WL_EVENT_PROCESS_CREATION;

}  // namespace

int BaseModelEngine::processEvent(_BASE_EVENTINFO& event) {
    Sighting sighting = m_book.observe(
        actingProcessId(event), [&event] { return actingProcessPath(event); },
        [&event](ModelMemory& memory) { return baseFeature(event, memory); });
    bool carrier = judge(event, sighting);
    // A summary of repeats goes out on an event that would go nowhere else.
    if (m_book.offerSummary(&event, carrier)) {
        event.match_verdict = kBlack;
    }
    return 0;
}

bool BaseModelEngine::judge(_BASE_EVENTINFO& event, const Sighting& sighting) {
    event.origin_log_flag = 0;
    event.match_verdict = kWhite;
    if (!sighting.matched) {
        event.model_status[0] = 0;
        event.model_name[0] = 0;
        return true;
    }
    writeWide(event.model_name, sighting.modelName);
    if (!sighting.active || sighting.feature.empty()) {
        // Nothing to judge: no period, so the module neither logs nor delays it.
        event.model_status[0] = 0;
        event.delay_gate = kDecided;
        return true;
    }
    if (sighting.learning) {
        writeWide(event.model_status, WL_LEARN_PERIOD);
        event.origin_log_flag = 1;
        return false;
    }
    writeWide(event.model_status, WL_FILTER_PERIOD);
    if (sighting.known) {
        event.delay_gate = kDecided;
        return true;
    }
    // An unknown feature gets one more pass about a second later, in case a
    // feedback or relearn makes it white meanwhile. Process creations are never
    // delayed by the module, so they are judged at once.
    if (event.event_type != kProcessCreation && event.delay_gate + 1 < kDecided) {
        event.delay_gate = static_cast<uint16_t>(event.delay_gate + 1);
        return false;
    }
    event.delay_gate = kDecided;
    if (m_book.admitAlarm(sighting, [&event] { return baseAlarmJson(event); })) {
        event.match_verdict = kBlack;
        return false;
    }
    return true;  // a counted repeat
}

std::string BaseModelEngine::getBlackLog(_BASE_EVENTINFO& event, int) {
    std::string summary;
    if (m_book.claimSummary(&event, summary)) {
        return summary;
    }
    return baseAlarmJson(event);
}

int BaseModelEngine::saveOriginLog(_BASE_EVENTINFO& event, const char* logDir) {
    return m_originLog.append(logDir, narrowText(event.model_name), baseOriginElement(event),
                              m_book.settings().originLogMaxBytes);
}

int BaseModelEngine::feedbackAlarm(_BASE_EVENTINFO& event) {
    return m_book.feedback(narrowText(event.model_name),
                           [&event](ModelMemory& memory) { return baseFeature(event, memory); });
}

}  // namespace baseeng
