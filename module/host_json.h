// Owning handles for cJSON trees and printed texts of the host functions.
#ifndef WL_HOST_JSON_H
#define WL_HOST_JSON_H

#include <memory>

#include <cjson/cJSON.h>

struct JsonTreeDeleter {
    void operator()(cJSON* tree) const { cJSON_Delete(tree); }
};
using JsonTree = std::unique_ptr<cJSON, JsonTreeDeleter>;

struct JsonTextDeleter {
    void operator()(char* text) const { cJSON_free(text); }
};
using JsonText = std::unique_ptr<char, JsonTextDeleter>;

#endif
