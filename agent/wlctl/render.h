// wlctl's human output: the agent's JSON answers as text, coloured only when
// asked to (a terminal).
#ifndef WL_WLCTL_RENDER_H
#define WL_WLCTL_RENDER_H

#include <cjson/cJSON.h>

#include <ctime>
#include <string>

namespace wlctl {

struct Style {
    bool colour = false;
    std::string good(const std::string& text) const;
    std::string warn(const std::string& text) const;
    std::string bad(const std::string& text) const;
    std::string dim(const std::string& text) const;
    std::string bold(const std::string& text) const;
};

// "[#######.............]  35%"; a negative share is "unknown".
std::string progressBar(double share, int width);
// "3d 4h", "12m 5s", "40s".
std::string duration(double seconds);
// "--since": "30s", "10m", "2h", "7d" before now, Unix seconds, or a local
// "YYYY-MM-DD[ HH:MM[:SS]]". False when it is none of these.
bool parseSince(const std::string& text, std::time_t now, std::time_t& out);

std::string formatStatus(const cJSON* status, const Style& style);
std::string formatModels(const cJSON* models, const Style& style);
std::string formatModel(const cJSON* model, const Style& style);
// One line per alarm.
std::string formatAlarm(const cJSON* alarm, const Style& style);

}  // namespace wlctl

#endif
