#include "line_pid.h"

#include <cstring>

#include "rapidjson/reader.h"

namespace orv_rasp {

namespace {

// Streams the parse and keeps only what the check needs; iterative, so a
// deep line costs heap, not stack, and is refused early.
class ClaimHandler : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, ClaimHandler> {
public:
    bool StartObject() { return open(true); }
    bool StartArray() { return open(false); }
    bool EndObject(rapidjson::SizeType) { return close(); }
    bool EndArray(rapidjson::SizeType) { return close(); }

    bool Key(const char* text, rapidjson::SizeType length, bool) {
        if (m_depth == 1 && length == 3 && std::memcmp(text, "pid", 3) == 0) {
            m_pidNext = true;
            ++pidCount;
        }
        return true;
    }

    bool Int(int value) { return number(value >= 0, static_cast<std::uint64_t>(value)); }
    bool Int64(int64_t value) { return number(value >= 0, static_cast<std::uint64_t>(value)); }
    bool Uint(unsigned value) { return number(true, value); }
    bool Uint64(uint64_t value) { return number(true, value); }
    // Every other scalar: null, booleans, reals, strings.
    bool Default() { return number(false, 0); }

    bool tooDeep = false;
    bool rootIsObject = false;
    int pidCount = 0;
    bool pidBad = false;
    std::uint64_t pid = 0;

private:
    bool open(bool object) {
        if (m_depth == 0) rootIsObject = object;
        if (m_pidNext && m_depth == 1) pidBad = true;
        m_pidNext = false;
        if (++m_depth > kMaxLineDepth) {
            tooDeep = true;
            return false;
        }
        return true;
    }
    bool close() {
        --m_depth;
        return true;
    }
    bool number(bool usable, std::uint64_t value) {
        if (m_pidNext && m_depth == 1) {
            if (usable) {
                pid = value;
            } else {
                pidBad = true;
            }
        }
        m_pidNext = false;
        return true;
    }

    int m_depth = 0;
    bool m_pidNext = false;
};

}  // namespace

LineClaim inspect_line(const char* text) {
    ClaimHandler handler;
    rapidjson::Reader reader;
    rapidjson::StringStream stream(text);
    const bool parsed = !reader.Parse<rapidjson::kParseIterativeFlag>(stream, handler).IsError();
    LineClaim claim;
    if (handler.tooDeep) {
        claim.shape = LineShape::TooDeep;
    } else if (!parsed || !handler.rootIsObject) {
        claim.shape = LineShape::NotJson;
    } else if (handler.pidCount == 0) {
        claim.shape = LineShape::NoPid;
    } else if (handler.pidCount > 1) {
        claim.shape = LineShape::TwoPids;
    } else if (handler.pidBad) {
        claim.shape = LineShape::BadPid;
    } else {
        claim.shape = LineShape::Ok;
        claim.pid = handler.pid;
    }
    return claim;
}

const char* describe(LineShape shape) {
    switch (shape) {
        case LineShape::Ok: return "ok";
        case LineShape::NotJson: return "not a JSON object";
        case LineShape::TooDeep: return "nested too deep";
        case LineShape::NoPid: return "no pid";
        case LineShape::BadPid: return "pid not an integer";
        case LineShape::TwoPids: return "pid given twice";
    }
    return "?";
}

}  // namespace orv_rasp
