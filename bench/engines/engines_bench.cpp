// Idle cost: both engines running with empty queues and the real pauses,
// CPU time of the process over 10 seconds, scaled to a minute.
// Per-event cost: the host worker with its 100 ms pause taken out through the
// clock seam, batches of events through filter, library and decision.
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>

#include "base.h"
#include "dirutils.h"
#include "event_queues.h"
#include "fake_model_library.h"
#include "orv_log.h"
#include "rasp.h"
#include "wl_clock.h"

namespace {

double cpu_seconds() {
    struct rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec + (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// A temporary install root for the engines' directories.
class BenchRoot {
public:
    BenchRoot() {
        char pattern[] = "/tmp/wl_engines_bench_XXXXXX";
        m_root = mkdtemp(pattern) ? pattern : "/tmp";
        std::filesystem::create_directories(m_root + "/lib");
        dirutils_set_install_dir((m_root + "/lib").c_str());
        error_output_set_level(1);
    }
    ~BenchRoot() {
        std::error_code ignored;
        std::filesystem::remove_all(m_root, ignored);
    }

private:
    std::string m_root;
};

void no_usleep(unsigned int) {}
void real_sleep(unsigned int seconds) { ::sleep(seconds); }

void BM_EnginesIdleCpuPerMinute(benchmark::State& state) {
    BenchRoot root;
    wl_clock_reset();
    fake_model::Library::instance().reset();
    BaseEngine::GetInstance()->Initialize();
    RaspEngine::GetInstance()->Initialize();
    const double window = 10.0;
    for (auto _ : state) {
        double before = cpu_seconds();
        std::this_thread::sleep_for(std::chrono::duration<double>(window));
        double used = cpu_seconds() - before;
        state.counters["cpu_ms_per_minute"] = used * 1000.0 * 60.0 / window;
    }
    BaseEngine::GetInstance()->Uninitialize();
    RaspEngine::GetInstance()->Uninitialize();
}
BENCHMARK(BM_EnginesIdleCpuPerMinute)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

void BM_BaseWorkerPerEvent(benchmark::State& state) {
    BenchRoot root;
    g_wl_clock = {no_usleep, real_sleep, ::time};
    fake_model::Library& lib = fake_model::Library::instance();
    lib.reset();
    BaseEngine::GetInstance()->Initialize();
    const int batch = 100;
    _BASE_EVENTINFO event;
    memset(&event, 0, sizeof(event));
    event.event_type = 6;
    const int outcome = static_cast<int>(state.range(0));
    const double cpuBefore = cpu_seconds();
    for (auto _ : state) {
        state.PauseTiming();
        lib.reset();
        // 0: the event ends quietly; 1: it goes to the origin log.
        lib.setDefaultVerdict(fake_model::Engine::Base, outcome == 0 ? fake_model::Verdict{0, 2, 1, "FILTER_PEROID"}
                                                                     : fake_model::Verdict{1, 0, 1, "LEARN_PEROID"});
        state.ResumeTiming();
        orv_mutex_lock(&g_baseDataLock);
        for (int i = 0; i < batch; ++i) {
            g_baseData.push_back(event);
        }
        orv_mutex_unlock(&g_baseDataLock);
        for (;;) {
            orv_mutex_lock(&g_baseDataLock);
            bool empty = g_baseData.empty();
            orv_mutex_unlock(&g_baseDataLock);
            if (empty) {
                break;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
    }
    state.SetItemsProcessed(state.iterations() * batch);
    // Process CPU, mostly the worker's; the empty-queue polling of the
    // pause-less worker between batches is included.
    state.counters["cpu_us_per_event"] = (cpu_seconds() - cpuBefore) * 1e6 / (state.iterations() * batch);
    BaseEngine::GetInstance()->Uninitialize();
    wl_clock_reset();
}
BENCHMARK(BM_BaseWorkerPerEvent)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace
