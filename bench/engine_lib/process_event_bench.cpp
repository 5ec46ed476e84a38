// Cost of one processEvent against a filtering model holding N features:
// a known file (the common case), an unknown one (first pass of the delay)
// and a known connection.
#include <memory>
#include <string>

#include <benchmark/benchmark.h>

#include "base_interface.h"

namespace {

const unsigned long long kPid = 100;

template <std::size_t N>
void setText(wchar_t (&field)[N], const std::string& text) {
    std::size_t n = text.size() < N - 1 ? text.size() : N - 1;
    for (std::size_t i = 0; i < n; ++i) field[i] = static_cast<wchar_t>(static_cast<signed char>(text[i]));
    field[n] = 0;
}

std::unique_ptr<_BASE_EVENTINFO> fileEvent(const std::string& path) {
    auto event = std::make_unique<_BASE_EVENTINFO>();
    event->event_type = 7;
    event->process_info.process_id = kPid;
    setText(event->process_info.process_path, "/usr/sbin/shopd");
    setText(event->detail.file.file_name, path);
    return event;
}

std::string learnedPath(long i) {
    return "/var/lib/shop/data/segment-" + std::to_string(i) + ".db";
}

// A model that learned `features` file paths, then left its learning period.
std::unique_ptr<BaseInterface> learnedEngine(long features) {
    std::unique_ptr<BaseInterface> engine(BaseFactory().getBaseInterface());
    _USR_INPUT input;
    input.oprType = USR_OPR_INIT;
    input.modelName = "shop";
    input.learnTime = 1;
    input.processMap["/usr/sbin/shopd"].insert(kPid);
    engine->initModel(&input);
    for (long i = 0; i < features; ++i) {
        auto event = fileEvent(learnedPath(i));
        engine->processEvent(*event);
    }
    engine->elapseTime(60, 0);
    return engine;
}

void BM_KnownFile(benchmark::State& state) {
    auto engine = learnedEngine(state.range(0));
    auto event = fileEvent(learnedPath(state.range(0) / 2));
    for (auto _ : state) {
        event->delay_gate = 0;
        engine->processEvent(*event);
        benchmark::DoNotOptimize(event->match_verdict);
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_UnknownFile(benchmark::State& state) {
    auto engine = learnedEngine(state.range(0));
    auto event = fileEvent("/etc/shadow");
    for (auto _ : state) {
        event->delay_gate = 0;
        engine->processEvent(*event);
        benchmark::DoNotOptimize(event->match_verdict);
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_KnownConnection(benchmark::State& state) {
    auto engine = learnedEngine(state.range(0));
    auto event = std::make_unique<_BASE_EVENTINFO>();
    event->event_type = 15;
    event->process_info.process_id = kPid;
    event->detail.connect.dst_port = 5432;
    setText(event->detail.connect.dst_ip, "10.0.0.7");
    setText(event->detail.connect.protocol, "tcp");
    for (auto _ : state) {
        event->delay_gate = 0;
        engine->processEvent(*event);
        benchmark::DoNotOptimize(event->match_verdict);
    }
    state.SetItemsProcessed(state.iterations());
}

}  // namespace

BENCHMARK(BM_KnownFile)->RangeMultiplier(10)->Range(10, 100000);
BENCHMARK(BM_UnknownFile)->RangeMultiplier(10)->Range(10, 100000);
BENCHMARK(BM_KnownConnection)->Arg(100000);

BENCHMARK_MAIN();
