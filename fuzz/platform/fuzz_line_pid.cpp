// The telemetry socket's first look at a line: which process it claims to
// speak for. Checked against a full parse of the same text, so a line the
// check waves through is one the module would read with the same pid.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz_check.h"
#include "line_pid.h"
#include "rapidjson/document.h"

namespace {

bool hasDeepNesting(const std::string& text) {
    std::size_t opens = 0;
    for (char c : text) opens += c == '[' || c == '{';
    return opens > static_cast<std::size_t>(orv_rasp::kMaxLineDepth);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const orv_rasp::LineClaim claim = orv_rasp::inspect_line(text.c_str());
    FUZZ_CHECK(std::strcmp(orv_rasp::describe(claim.shape), "?") != 0);
    if (claim.shape == orv_rasp::LineShape::TooDeep) {
        FUZZ_CHECK(hasDeepNesting(text));
        return 0;
    }
    FUZZ_CHECK(claim.shape == orv_rasp::LineShape::Ok || claim.pid == 0);

    rapidjson::Document document;
    document.Parse<rapidjson::kParseIterativeFlag>(text.c_str());
    if (document.HasParseError() || !document.IsObject()) {
        FUZZ_CHECK(claim.shape == orv_rasp::LineShape::NotJson);
        return 0;
    }
    int pids = 0;
    const rapidjson::Value* pid = nullptr;
    for (const auto& member : document.GetObject()) {
        if (member.name.GetStringLength() == 3 && std::memcmp(member.name.GetString(), "pid", 3) == 0) {
            ++pids;
            pid = &member.value;
        }
    }
    if (pids == 0) {
        FUZZ_CHECK(claim.shape == orv_rasp::LineShape::NoPid);
    } else if (pids > 1) {
        FUZZ_CHECK(claim.shape == orv_rasp::LineShape::TwoPids);
    } else if (!pid->IsUint64()) {
        FUZZ_CHECK(claim.shape == orv_rasp::LineShape::BadPid);
    } else {
        FUZZ_CHECK(claim.shape == orv_rasp::LineShape::Ok && claim.pid == pid->GetUint64());
    }
    return 0;
}
