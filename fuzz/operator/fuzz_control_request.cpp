// Any bytes as a control socket request: parsed or refused with a sentence,
// never a crash, and a refused request leaves no half-read state behind.
#include <cstddef>
#include <cstdint>
#include <string>

#include "control_request.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    wlagent::ControlRequest request;
    std::string problem = wlagent::parseControlRequest(text, request);
    if (problem.empty() && request.kind == wlagent::ControlRequest::Kind::Alarm && request.id.empty()) __builtin_trap();
    return 0;
}
