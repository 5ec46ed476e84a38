// Events aimed at one of the host's own addresses never reach a model.
#define WL_LOG_SOURCE "transformer"

#include "transformer.h"
#include "wl_log.h"

namespace {

bool isLocalAddress(const std::string& target, const std::set<std::string>& localIps) {
    for (const std::string& ip : localIps) {
        if (ip == target) {
            WL_LOG(LOG_LVL_INFO, "match local Ip success, event has been filter, dstIp: %s", target.c_str());
            return true;
        }
    }
    return false;
}

}  // namespace

bool Transformer::filterBaseEvent(_BASE_EVENTINFO& event, std::set<std::string>& localIps) {
    if (localIps.empty()) return false;
    if (event.event_type != WL_EVENT_NETWORK_CONNECTION) return false;
    return isLocalAddress(wcharToString(event.detail.connect.dst_ip), localIps);
}

bool Transformer::filterRaspEvent(_RASP_EVENTINFO& event, std::set<std::string>& localIps) {
    if (localIps.empty()) return false;
    if (event.action_type != WL_ACTION_ADDRESS) return false;
    // The probe's host name is what is compared, though the log says dstIp.
    return isLocalAddress(event.hostName, localIps);
}
