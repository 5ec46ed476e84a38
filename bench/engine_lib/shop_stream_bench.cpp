// Cost per event of a web shop's normal traffic, either stream: a model
// learned twenty minutes of one day, then judges a fresh day (new ids, names,
// tokens, addresses), every kind of event in its usual share. Argument 0:
// processEvent alone; 1: as the module drives the library, with the second
// pass of a delayed host event and the alarm text of every black event.
#include <benchmark/benchmark.h>

#include "event_script.h"
#include "fixed_iterations.h"
#include "shop_traffic.h"

namespace {

using namespace enginetest;

const unsigned kLearnMinutes = 20;
const unsigned kRequestsPerMinute = 40;
const unsigned kDayRequests = 1000;

const std::vector<std::string>& linesOf(BaseInterface*, const ShopRequest& request) { return request.host; }
const std::vector<std::string>& linesOf(RaspInterface*, const ShopRequest& request) { return request.rasp; }
void rewind(_BASE_EVENTINFO& event) { event.delay_gate = 0; }
void rewind(_RASP_EVENTINFO&) {}

template <class Interface>
void BM_ShopStream(benchmark::State& state) {
    auto engine = startedEngine<Interface>(kLearnMinutes);
    ShopTraffic learning(1, 0);
    for (unsigned minute = 0; minute < kLearnMinutes; ++minute) {
        for (unsigned i = 0; i < kRequestsPerMinute; ++i) {
            ShopRequest request = learning.next();
            feed(*engine, linesOf(engine.get(), request));
        }
        engine->elapseTime(60, 0);
    }
    ShopTraffic day(2, 1);
    std::vector<decltype(eventOf(engine.get(), std::string()))> events;
    for (unsigned i = 0; i < kDayRequests; ++i) {
        ShopRequest request = day.next();
        for (const std::string& line : linesOf(engine.get(), request)) events.push_back(eventOf(engine.get(), line));
    }
    const bool asModule = state.range(0) != 0;
    std::size_t next = 0;
    std::size_t alarms = 0;
    for (auto _ : state) {
        auto& event = *events[next];
        next = next + 1 == events.size() ? 0 : next + 1;
        rewind(event);
        if (!asModule) {
            engine->processEvent(event);
        } else if (judgedBlack(*engine, event)) {
            ++alarms;
            benchmark::DoNotOptimize(engine->getBlackLog(event, 1));
        }
        benchmark::DoNotOptimize(event.match_verdict);
    }
    state.SetItemsProcessed(state.iterations());
    if (asModule) {
        state.counters["alarm_share"] = static_cast<double>(alarms) / static_cast<double>(state.iterations());
    }
}

void BM_ShopHostStream(benchmark::State& state) { BM_ShopStream<BaseInterface>(state); }
void BM_ShopRaspStream(benchmark::State& state) { BM_ShopStream<RaspInterface>(state); }

}  // namespace

BENCHMARK(BM_ShopHostStream)->Arg(0)->Arg(1)->Apply(enginebench::fixedIterations);
BENCHMARK(BM_ShopRaspStream)->Arg(0)->Arg(1)->Apply(enginebench::fixedIterations);
