// Small helpers over cJSON shared by the agent's status, ledger and metrics.
#ifndef WL_AGENT_JSON_UTIL_H
#define WL_AGENT_JSON_UTIL_H

#include <cjson/cJSON.h>

#include <cstdint>
#include <memory>
#include <string>

namespace wljson {

struct Deleter {
    void operator()(cJSON* item) const { cJSON_Delete(item); }
};
using Ptr = std::unique_ptr<cJSON, Deleter>;

inline Ptr parse(const std::string& text) { return Ptr(cJSON_ParseWithLength(text.data(), text.size())); }

inline std::string print(const cJSON* item) {
    if (!item) return "null";
    char* raw = cJSON_PrintUnformatted(item);
    if (!raw) return "null";
    std::string out(raw);
    cJSON_free(raw);
    return out;
}

inline const cJSON* get(const cJSON* object, const char* key) {
    return cJSON_IsObject(object) ? cJSON_GetObjectItemCaseSensitive(object, key) : nullptr;
}

inline std::string text(const cJSON* object, const char* key, const std::string& fallback = "") {
    const cJSON* item = get(object, key);
    if (cJSON_IsString(item) && item->valuestring) return item->valuestring;
    return fallback;
}

inline double number(const cJSON* object, const char* key, double fallback = 0) {
    const cJSON* item = get(object, key);
    return cJSON_IsNumber(item) ? item->valuedouble : fallback;
}

inline bool has(const cJSON* object, const char* key) { return get(object, key) != nullptr; }

// Counters stay far below 2^53, where a double is still exact.
inline cJSON* addU64(cJSON* object, const char* key, uint64_t value) {
    return cJSON_AddNumberToObject(object, key, static_cast<double>(value));
}

}  // namespace wljson

#endif
