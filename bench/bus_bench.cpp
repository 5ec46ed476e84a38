// transmit_action_data through the real bus to a queued record, synchronous
// and threaded, against clearing and copying the record; and the rate at
// which the bus takes a burst of events without losing any.
#include <benchmark/benchmark.h>

#include <dlfcn.h>

#include <atomic>
#include <cstring>
#include <vector>

#include "dirutils.h"
#include "event_queues.h"
#include "mb_contract.h"
#include "register.h"
#include "whitelist.h"
#include "whitelist_event.h"
#include "whitelist_invoke.h"
#include "whitelist_mb.h"

extern "C" {
orv_event_t g_vr_event = nullptr;  // the host area isn't linked here
}

namespace {

constexpr int kBatch = 50;  // below the engines' queue limit of 100

// Opens the bus library for its test hook; the plug-ins open it themselves.
struct BusHook {
    BusHook() {
        handle = dlopen(WL_BENCH_PLUGIN_DIR "/libtulmb.1.so", RTLD_NOW);
        if (handle != nullptr) {
            setSynchronous = reinterpret_cast<void (*)(int)>(dlsym(handle, "tulmb_set_synchronous"));
            entry = reinterpret_cast<DllGetClassObject_fn>(dlsym(handle, "DllGetClassObject"));
        }
    }
    ~BusHook() {
        if (handle != nullptr) {
            dlclose(handle);
        }
    }
    void* handle = nullptr;
    void (*setSynchronous)(int) = nullptr;
    DllGetClassObject_fn entry = nullptr;
};

BusHook& hook() {
    static BusHook instance;
    return instance;
}

std::vector<unsigned char> processMessage() {
    std::vector<unsigned char> bytes(offsetof(action_collector_msg, payload) + sizeof(process_event_info), 0);
    action_collector_msg* msg = reinterpret_cast<action_collector_msg*>(bytes.data());
    msg->type = 1027;
    msg->size = sizeof(process_event_info);
    process_event_info* record =
        reinterpret_cast<process_event_info*>(bytes.data() + offsetof(action_collector_msg, payload));
    std::strcpy(record->event_name, "PROCESS_CREATION");
    record->process_id = 4242;
    std::strcpy(record->process_path, "/usr/sbin/nginx");
    std::strcpy(record->process_cmd_line, "nginx -g daemon off;");
    return bytes;
}

std::size_t drainBase() {
    orv_mutex_lock(&g_baseDataLock);
    const std::size_t size = g_baseData.size();
    g_baseData.clear();
    orv_mutex_unlock(&g_baseDataLock);
    return size;
}

std::size_t queuedBase() {
    orv_mutex_lock(&g_baseDataLock);
    const std::size_t size = g_baseData.size();
    orv_mutex_unlock(&g_baseDataLock);
    return size;
}

// The floor: what every queued host event costs at least, in the same
// batches as below (so the allocator's page faults count here too).
void BM_ClearAndCopyRecord(benchmark::State& state) {
    std::vector<_BASE_EVENTINFO> source(1);
    std::list<_BASE_EVENTINFO> queue;
    for (auto _ : state) {
        for (int i = 0; i < kBatch; ++i) {
            std::memset(source.data(), 0, sizeof(_BASE_EVENTINFO));
            queue.push_back(source[0]);
            benchmark::DoNotOptimize(queue.back().event_type);
        }
        state.PauseTiming();
        queue.clear();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}
BENCHMARK(BM_ClearAndCopyRecord)->UseRealTime();

void BM_TransmitActionData(benchmark::State& state) {
    const bool synchronous = state.range(0) != 0;
    if (hook().setSynchronous == nullptr) {
        state.SkipWithError("bus library not built");
        return;
    }
    hook().setSynchronous(synchronous ? 1 : 0);
    dirutils_set_install_dir(WL_BENCH_STAGE_LIB);
    if (whitelist_msgbus_init() != 1 || !Register::GetInstance()->registerInit()) {
        state.SkipWithError("attach failed");
        return;
    }
    const std::vector<unsigned char> message = processMessage();
    const action_collector_msg* msg = reinterpret_cast<const action_collector_msg*>(message.data());
    for (auto _ : state) {
        for (int i = 0; i < kBatch; ++i) {
            transmit_action_data(msg);
        }
        while (queuedBase() < static_cast<std::size_t>(kBatch)) {
        }
        state.PauseTiming();
        drainBase();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
    Register::GetInstance()->registerUninit();
    whitelist_msgbus_uninit();
    hook().setSynchronous(0);
}
BENCHMARK(BM_TransmitActionData)->ArgName("sync")->Arg(1)->Arg(0)->UseRealTime();

// Counts what reaches it and releases it at once.
class CountingPlugin : public MbFrame::IPlugin {
public:
    int QueryInterface(const _GUID&, void**) override { return MB_E_PLUGIN_NOINTERFACE; }
    int AddRef() override { return 1; }
    int Release() override { return 1; }
    int GetUniqueID(unsigned char (*id)[16]) const override {
        std::memset(*id, 0x77, 16);
        return 0;
    }
    int GetVersion(unsigned int* version) const override {
        *version = 1;
        return 0;
    }
    int OnAdvised(MbFrame::IPluginSetting* setting, MbFrame::IDispatch* dispatch) override {
        m_dispatch = dispatch;
        static const event_subscription events[] = {{19, 1}};
        return setting->RegisterEvents(events, 1);
    }
    int OnUnadvised(_UNADVISE_REASON) override { return 0; }
    int OnEvent(MbFrame::IEvent* event, _RESPONSE_STATUS*) override {
        m_received.fetch_add(1, std::memory_order_relaxed);
        event->Release();
        return 0;
    }
    MbFrame::IDispatch* m_dispatch = nullptr;
    std::atomic<long> m_received{0};
};

// Bursts of range(0) events, published as fast as Invoke returns, through the
// threaded bus; "lost" counts refusals (the queue holds 4096).
void BM_PublishBurst(benchmark::State& state) {
    if (hook().entry == nullptr) {
        state.SkipWithError("bus library not built");
        return;
    }
    hook().setSynchronous(0);
    void* object = nullptr;
    if (hook().entry(CLSID_NULL, *MbFrame::IRtmFrame::IRtmFrame_ID, &object) != 0) {
        state.SkipWithError("no frame");
        return;
    }
    MbFrame::IRtmFrame* frame = static_cast<MbFrame::IRtmFrame*>(object);
    CountingPlugin plugin;
    frame->Advise(&plugin, 1);
    const long burst = state.range(0);
    long lost = 0;
    long expected = 0;
    for (auto _ : state) {
        for (long i = 0; i < burst; ++i) {
            _RESPONSE_APP_REQUEST_INFO* native = nullptr;
            WhitelistEvent* event = WhitelistEvent::New(native);
            mb_set_event_id(*native, 19);
            if (plugin.m_dispatch->Invoke(event) < 0) {
                ++lost;
            } else {
                ++expected;
            }
            event->Release();
        }
        while (plugin.m_received.load() < expected) {
        }
    }
    state.SetItemsProcessed(state.iterations() * burst);
    state.counters["lost_per_burst"] =
        benchmark::Counter(static_cast<double>(lost), benchmark::Counter::kAvgIterations);
    unsigned char id[16];
    plugin.GetUniqueID(&id);
    frame->Unadvise(id);
    frame->Release();
}
BENCHMARK(BM_PublishBurst)->Arg(1024)->Arg(4096)->Arg(8192)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
