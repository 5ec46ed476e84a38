// Text helpers between JSON values, narrow strings and the wide record fields.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "str_utils.h"
#include "transformer.h"

namespace {

// strtoul in base 10 as the 32-bit build computes it: a magnitude beyond
// 32 bits saturates, a leading minus wraps.
uint32_t strtoul32(const char* text) {
    const char* p = text;
    while (std::isspace(static_cast<unsigned char>(*p))) ++p;
    const bool negative = (*p == '-');
    errno = 0;
    unsigned long long value = std::strtoull(text, nullptr, 10);
    if (errno == ERANGE) return UINT32_MAX;
    const unsigned long long magnitude = negative ? (0ULL - value) : value;
    if (magnitude > UINT32_MAX) return UINT32_MAX;
    return negative ? static_cast<uint32_t>(0U - static_cast<uint32_t>(magnitude)) : static_cast<uint32_t>(magnitude);
}

}  // namespace

void getJsonValue(std::string& target, std::string text) {
    if (!text.empty()) target = std::move(text);
}

uint64_t getJsonInt(const rapidjson::Value* value) {
    if (value == nullptr) return 0;
    if (value->IsString()) {
        std::string text(value->GetString(), value->GetStringLength());
        const std::string::size_type colon = text.find_last_of(':');
        if (colon != std::string::npos) text = text.substr(colon + 1);
        return strtoul32(text.c_str());
    }
    if (value->IsUint64()) return value->GetUint64();
    return 0;
}

std::string getJsonString(const rapidjson::Value* value) {
    if (value == nullptr) return std::string();
    if (value->IsString()) return std::string(value->GetString());
    if (value->IsUint64()) {
        char buffer[256];
        std::memset(buffer, 0, sizeof(buffer));
        // The low 32 bits, signed, whatever the width of long.
        const long low = static_cast<int32_t>(static_cast<uint32_t>(value->GetUint64()));
        str_snprintf(buffer, sizeof(buffer), "%ld", low);
        return std::string(buffer);
    }
    return std::string();
}

std::string jsonToString(const rapidjson::Value& value) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    value.Accept(writer);
    return std::string(buffer.GetString());
}

std::string wcharToString(const wchar_t* text) {
    std::string narrow;
    if (text == nullptr) return narrow;
    for (; *text != 0; ++text) narrow.push_back(static_cast<char>(static_cast<uint32_t>(*text) & 0xFF));
    return narrow;
}

void stringToWchart(wchar_t* target, int capacity, std::string text) {
    if (target == nullptr) return;
    if (text.empty()) {
        target[0] = 0;
        return;
    }
    // Bounded like swprintf(target, min(capacity, length + 1), L"%ls", ...):
    // the wide text ends at its first zero, and when it does not fit the last
    // element of the field is left as it was, without a terminator.
    const long long limit = std::min<long long>(capacity, static_cast<long long>(text.size()) + 1);
    if (limit <= 0) return;
    const std::size_t room = static_cast<std::size_t>(limit) - 1;
    const std::size_t length = std::min(std::strlen(text.c_str()), text.size());
    const std::size_t stored = std::min(length, room);
    for (std::size_t i = 0; i < stored; ++i) {
        target[i] = static_cast<wchar_t>(static_cast<signed char>(text[i]));
    }
    if (length <= room) target[stored] = 0;
}

std::string spiltDnsIp(std::string text) {
    const std::string::size_type slash = text.find_first_of("//");
    if (slash != std::string::npos) text = text.substr(slash + 2);
    const std::string::size_type colon = text.find_last_of(':');
    if (colon != std::string::npos) text = text.substr(0, colon);
    return text;
}
