#include "syslog_format.h"

#include <cstdio>

namespace wlforward {
namespace {

// PRINTUSASCII (33..126), at most max characters; "-" when nothing is left.
std::string field(const std::string& text, size_t max) {
    std::string out;
    for (char c : text) {
        if (out.size() == max) break;
        if (c >= 33 && c <= 126) out.push_back(c);
    }
    return out.empty() ? "-" : out;
}

// PARAM-VALUE: '"', '\' and ']' escaped with '\'.
std::string paramValue(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '"' || c == '\\' || c == ']') out.push_back('\\');
        out.push_back(c);
    }
    return out;
}

}  // namespace

std::string formatSyslog(const SyslogHeader& h, const Route& route, const std::string& message) {
    bool alarm = route.type == "alarm" || route.type == "rasp_alarm";
    int pri = h.facility * 8 + (alarm ? 4 : 5);
    struct tm utc;
    gmtime_r(&h.time.tv_sec, &utc);
    char stamp[96];  // room for any int fields, so the text is never cut
    std::snprintf(stamp, sizeof stamp, "%04d-%02d-%02dT%02d:%02d:%02d.%06ldZ", utc.tm_year + 1900, utc.tm_mon + 1,
                  utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, static_cast<long>(h.time.tv_nsec / 1000 % 1000000));
    std::string out = "<" + std::to_string(pri) + ">1 " + stamp + " " + field(h.hostname, 255) + " " +
                      field(h.appName, 48) + " " + std::to_string(h.procId) + " " + field(route.type, 32) + " ";
    out += "[wl@32473 host_uuid=\"" + paramValue(route.hostUuid) + "\"";
    if (!route.seqId.empty()) out += " seq_id=\"" + paramValue(route.seqId) + "\"";
    out += "] \xEF\xBB\xBF";
    out += message;
    return out;
}

}  // namespace wlforward
