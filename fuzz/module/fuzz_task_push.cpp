// Manager commands through the task-push dispatcher into the model handlers.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_module.h"
#include "whitelist_impl.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_module::setUp();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_module::reset();
    // The task library hands over a terminated text.
    const std::string msg(reinterpret_cast<const char*>(data), size);
    unsigned int result = whitelist_task_push_fn(0, 0, msg.c_str(), static_cast<unsigned int>(msg.size()));
    FUZZ_CHECK(result == 0 || result == WL_ERR_FAILED || result == WL_ERR_INVALID_PARAM);
    FUZZ_CHECK((result == WL_ERR_INVALID_PARAM) == msg.empty());
    return 0;
}
