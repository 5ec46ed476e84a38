// Member access shared by the JSON conversions. A key is present when the
// value is an object holding a member of that exact name (the first one
// counts); anything else reads as absent, which the readers turn into 0 or "".
#ifndef WL_TRANSFORMER_MEMBERS_H
#define WL_TRANSFORMER_MEMBERS_H

#include <cstring>

#include <rapidjson/document.h>

#include "transformer.h"

inline const rapidjson::Value* jsonMember(const rapidjson::Value* object, const char* key) {
    if (object == nullptr || !object->IsObject()) return nullptr;
    const rapidjson::SizeType length = static_cast<rapidjson::SizeType>(std::strlen(key));
    for (auto it = object->MemberBegin(); it != object->MemberEnd(); ++it) {
        const rapidjson::Value& name = it->name;
        if (name.GetStringLength() == length && std::memcmp(name.GetString(), key, length) == 0) return &it->value;
    }
    return nullptr;
}

inline bool jsonHas(const rapidjson::Value* object, const char* key) { return jsonMember(object, key) != nullptr; }

// Writers of wide record fields from a member's text.
inline void putText(const rapidjson::Value* object, const char* key, wchar_t* target, int capacity) {
    stringToWchart(target, capacity, getJsonString(jsonMember(object, key)));
}

inline void putOptionalText(const rapidjson::Value* object, const char* key, wchar_t* target, int capacity) {
    if (const rapidjson::Value* value = jsonMember(object, key)) stringToWchart(target, capacity, getJsonString(value));
}

// The low 32 bits of a member read by getJsonInt.
inline uint32_t readU32(const rapidjson::Value* object, const char* key) {
    return static_cast<uint32_t>(getJsonInt(jsonMember(object, key)));
}

// Text of a member, for the narrow fields filled through getJsonValue.
inline std::string textOf(const rapidjson::Value* object, const char* key) {
    return getJsonString(jsonMember(object, key));
}

#endif
