// The asset lists behind the open-port report, as JSON from the asset
// library: the input holds the open ports, processes, applications and
// further applications, in that order, separated by NUL bytes.
#include <cstddef>
#include <cstdint>
#include <string>

#include <cjson/cJSON.h>

#include "agent_doubles.h"
#include "asset_collection.h"
#include "fuzz_module.h"
#include "whitelist_impl.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_module::setUp();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_module::reset();
    const std::string input(reinterpret_cast<const char*>(data), size);
    const int kinds[] = {ASSET_KIND_OPEN_PORT, ASSET_KIND_PROCESS, ASSET_KIND_APP, ASSET_KIND_APP_EXTRA};
    size_t start = 0;
    for (int kind : kinds) {
        if (start > input.size()) break;
        size_t end = input.find('\0', start);
        if (end == std::string::npos) end = input.size();
        models_double::set_asset(kind, input.substr(start, end - start));
        start = end + 1;
    }
    models_double::add_filter_port(22);
    upload_openport_process();
    // At most one report, and it is JSON the manager can read.
    FUZZ_CHECK(module_fakes::uploads().size() <= 1);
    for (const auto& upload : module_fakes::uploads()) {
        cJSON* parsed = cJSON_Parse(upload.text.c_str());
        FUZZ_CHECK(parsed != nullptr);
        cJSON_Delete(parsed);
    }
    return 0;
}
