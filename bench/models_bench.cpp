// The /proc walk that a start command and each tracking pass make once, a
// base tracking pass over N models, and the open-port report over N entries
// (quadratic enrichment by design).
#include <benchmark/benchmark.h>
#include <cjson/cJSON.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "dirutils.h"
#include "doubles/agent_doubles.h"
#include "doubles/model_library_double.h"
#include "orv_log.h"
#include "whitelist_api_state.h"
#include "whitelist_api.h"
#include "whitelist_impl.h"

namespace {

// "@" in a scratch tree with the sibling vr_agent directory present.
struct ScratchInstall {
    ScratchInstall() {
        char pattern[] = "/tmp/wl_models_bench_XXXXXX";
        root = mkdtemp(pattern);
        std::filesystem::create_directories(root + "/lib");
        std::filesystem::create_directories(root + "/vr_agent");
        dirutils_set_install_dir((root + "/lib").c_str());
        error_output_set_level(1);
    }
    ~ScratchInstall() {
        std::error_code ignored;
        std::filesystem::remove_all(root, ignored);
    }
    std::string root;
};

void BM_ScanProcessTree(benchmark::State& state) {
    size_t processes = 0;
    for (auto _ : state) {
        process_tree tree = whitelist_scan_process_tree();
        processes = 0;
        for (const auto& entry : tree) processes += entry.second.size();
        benchmark::DoNotOptimize(tree);
    }
    state.counters["processes"] = (double)processes;
}
BENCHMARK(BM_ScanProcessTree)->Unit(benchmark::kMillisecond);

// Every model listens through this process, so children are looked up too.
void BM_BaseTrackingPass(benchmark::State& state) {
    ScratchInstall install;
    const int models = (int)state.range(0);
    std::string list = R"({"list":[)";
    g_model_array->clear();
    for (int i = 0; i < models; ++i) {
        base_init_st model;
        model.model_name = "model" + std::to_string(i);
        model.process_path = "/srv/app";
        model.study_times = 60;
        model.port = {(unsigned long long)(1000 + i)};
        g_model_array->push_back(model);
        if (i) list += ",";
        list += R"({"port":")" + std::to_string(1000 + i) + R"(","process_id":")" + std::to_string(getpid()) + R"("})";
    }
    models_double::set_asset(5, list + "]}");
    g_base_open_process_called = true;
    for (auto _ : state) {
        models_double::reset_engines();
        whitelist_base_update_open_process();
    }
    g_model_array->clear();
    models_double::reset_agent();
}
BENCHMARK(BM_BaseTrackingPass)->Arg(1)->Arg(10)->Arg(50)->Unit(benchmark::kMillisecond);

void BM_OpenPortReport(benchmark::State& state) {
    ScratchInstall install;
    const int entries = (int)state.range(0);
    std::string ports = R"({"list":[)", processes = R"({"list":[)", apps = R"({"list":[)";
    for (int i = 0; i < entries; ++i) {
        const std::string pid = std::to_string(100 + i);
        const char* comma = i ? "," : "";
        ports += comma + std::string(R"({"open":0,"port":")") + std::to_string(2000 + i) +
                 R"(","process_path":"/usr/sbin/app","process_id":")" + pid + R"(","proto":"tcp"})";
        processes += comma + std::string(R"({"process_id":")") + pid + R"(","type":"service"})";
        apps += comma + std::string(R"({"pid":[)") + pid + R"(],"name":"app)" + pid + R"("})";
    }
    models_double::set_asset(5, ports + "]}");
    models_double::set_asset(3, processes + "]}");
    models_double::set_asset(7, apps + "]}");
    models_double::set_asset(9, R"({"list":[]})");
    for (auto _ : state) {
        cJSON* report = get_openport_process_json();
        benchmark::DoNotOptimize(report);
        cJSON_Delete(report);
    }
    models_double::reset_agent();
}
BENCHMARK(BM_OpenPortReport)->Arg(10)->Arg(100)->Arg(500)->Unit(benchmark::kMillisecond);

}  // namespace
