#include "envelope.h"

#include <cmath>
#include <memory>

#include <cjson/cJSON.h>

namespace wlforward {
namespace {

using Json = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

// A plain file name that is also safe in a header line: no separators, no
// control characters, not hidden.
bool safeName(const std::string& name) {
    if (name.empty() || name.size() >= 256 || name[0] == '.') return false;
    for (unsigned char c : name) {
        if (c < 0x20 || c == 0x7f || c == '/') return false;
    }
    return true;
}

}  // namespace

Route routeOf(const std::string& line) {
    Route route;
    Json root(cJSON_ParseWithLength(line.data(), line.size()), cJSON_Delete);
    if (!cJSON_IsObject(root.get())) return route;
    const cJSON* type = cJSON_GetObjectItemCaseSensitive(root.get(), "type");
    const cJSON* host = cJSON_GetObjectItemCaseSensitive(root.get(), "host_uuid");
    const cJSON* seq = cJSON_GetObjectItemCaseSensitive(root.get(), "seq_id");
    if (cJSON_IsString(type) && type->valuestring[0] != '\0') {
        route.type = type->valuestring;
        route.valid = true;
    }
    if (cJSON_IsString(host) && host->valuestring[0] != '\0') route.hostUuid = host->valuestring;
    if (cJSON_IsString(seq)) route.seqId = seq->valuestring;
    return route;
}

std::string subjectToken(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (out.size() == 64) break;
        bool keep = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
        out.push_back(keep ? c : '_');
    }
    return out.empty() ? "_" : out;
}

bool parseUploadEntry(const std::string& line, UploadEntry& out) {
    Json root(cJSON_ParseWithLength(line.data(), line.size()), cJSON_Delete);
    if (!cJSON_IsObject(root.get())) return false;
    const cJSON* kind = cJSON_GetObjectItemCaseSensitive(root.get(), "kind");
    const cJSON* file = cJSON_GetObjectItemCaseSensitive(root.get(), "file");
    const cJSON* name = cJSON_GetObjectItemCaseSensitive(root.get(), "name");
    const cJSON* bytes = cJSON_GetObjectItemCaseSensitive(root.get(), "bytes");
    const cJSON* host = cJSON_GetObjectItemCaseSensitive(root.get(), "host_uuid");
    if (!cJSON_IsNumber(kind) || !cJSON_IsString(file) || !cJSON_IsString(name)) return false;
    double k = kind->valuedouble;
    if (!(k >= 0 && k <= 1000000) || std::floor(k) != k) return false;
    UploadEntry e;
    e.kind = static_cast<int>(k);
    e.name = name->valuestring;
    e.file = file->valuestring;
    if (!safeName(e.name) || e.file != "kind" + std::to_string(e.kind) + "/" + e.name) return false;
    if (cJSON_IsNumber(bytes) && bytes->valuedouble >= 0 && bytes->valuedouble < 9007199254740992.0) {
        e.bytes = static_cast<uint64_t>(bytes->valuedouble);
    }
    if (cJSON_IsString(host)) e.hostUuid = host->valuestring;
    out = std::move(e);
    return true;
}

}  // namespace wlforward
