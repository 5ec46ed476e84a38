// Small helpers over rapidjson's writer, shared by every JSON text the
// library hands out or stores.
#ifndef BASEENG_JSON_TEXT_H
#define BASEENG_JSON_TEXT_H

#include <cstdint>
#include <string>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

namespace baseeng {

using JsonWriter = rapidjson::Writer<rapidjson::StringBuffer>;

inline void putString(JsonWriter& writer, const char* key, const std::string& value) {
    writer.Key(key);
    writer.String(value.data(), static_cast<rapidjson::SizeType>(value.size()));
}

inline void putUint(JsonWriter& writer, const char* key, uint64_t value) {
    writer.Key(key);
    writer.Uint64(value);
}

inline void putBool(JsonWriter& writer, const char* key, bool value) {
    writer.Key(key);
    writer.Bool(value);
}

inline std::string textOf(const rapidjson::StringBuffer& buffer) {
    return std::string(buffer.GetString(), buffer.GetSize());
}

}  // namespace baseeng

#endif
