// What a telemetry line says about itself before anyone relies on it: is
// it one JSON object, not nested too deep for the module's recursive
// parser, and which process does its top-level "pid" name.
#ifndef ORV_RASP_LINE_PID_H
#define ORV_RASP_LINE_PID_H

#include <cstdint>
#include <string>

namespace orv_rasp {

constexpr int kMaxLineDepth = 256;

enum class LineShape {
    Ok,       // an object with exactly one top-level "pid", a non-negative integer
    NotJson,  // not one JSON value, or not an object
    TooDeep,  // nested beyond kMaxLineDepth
    NoPid,
    BadPid,   // not a non-negative integer (a string, a real, an object...)
    TwoPids,  // readers disagree on which one counts
};

struct LineClaim {
    LineShape shape = LineShape::NotJson;
    std::uint64_t pid = 0;
};

// The text up to its first NUL, as the module will read it.
LineClaim inspect_line(const char* text);

const char* describe(LineShape shape);

}  // namespace orv_rasp

#endif
