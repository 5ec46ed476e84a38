// The catalogue file as the module reads it at start-up. What loads must
// survive a rewrite and a second load unchanged.
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "fuzz_module.h"
#include "model_records.h"
#include "whitelist_api.h"
#include "whitelist_api_catalogue.h"

namespace {

std::vector<unsigned> lowPorts(const base_init_st& model) {
    std::vector<unsigned> ports;
    for (unsigned long long port : model.port) ports.push_back(static_cast<unsigned>(port));
    return ports;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_module::setUp();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_module::reset();
    {
        std::ofstream file(fuzz_module::baseFile("base_model.cfg"), std::ios::binary | std::ios::trunc);
        file.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    }
    whitelist_base_load_model_data();
    const std::vector<base_init_st> loaded = *g_model_array;
    for (const base_init_st& model : loaded) FUZZ_CHECK(model.study_times > 0);

    whitelist_rewrite_catalogue(g_base_catalogue);
    g_model_array->clear();
    whitelist_base_load_model_data();
    const std::vector<base_init_st>& again = *g_model_array;
    FUZZ_CHECK(again.size() == loaded.size());
    for (size_t i = 0; i < loaded.size(); ++i) {
        FUZZ_CHECK(again[i].model_name == loaded[i].model_name);
        FUZZ_CHECK(again[i].app_name == loaded[i].app_name);
        FUZZ_CHECK(again[i].process_path == loaded[i].process_path);
        FUZZ_CHECK(again[i].study_times == loaded[i].study_times);
        FUZZ_CHECK(again[i].alarm == loaded[i].alarm);
        // Ports are written by their low 32 bits.
        FUZZ_CHECK(lowPorts(again[i]) == lowPorts(loaded[i]));
    }
    return 0;
}
