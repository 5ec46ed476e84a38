// Cost of one processEvent against a filtering model holding N features:
// a known file (the common case), an unknown one (first pass of the delay),
// a known connection, a known process creation with arguments and a known
// runtime-application SQL statement. The "Known" cases repeat one text
// verbatim, as bound statements and fixed commands do; the "NewLiterals"
// cases give every event a text not seen for thousands of events, so each
// is folded from scratch.
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "base_interface.h"
#include "fixed_iterations.h"

namespace {

const unsigned long long kPid = 100;

template <std::size_t N>
void setText(wchar_t (&field)[N], const std::string& text) {
    std::size_t n = text.size() < N - 1 ? text.size() : N - 1;
    for (std::size_t i = 0; i < n; ++i) field[i] = static_cast<wchar_t>(static_cast<signed char>(text[i]));
    field[n] = 0;
}

std::unique_ptr<_BASE_EVENTINFO> hostEvent(uint16_t type) {
    auto event = std::make_unique<_BASE_EVENTINFO>();
    event->event_type = type;
    event->process_info.process_id = kPid;
    setText(event->process_info.process_path, "/usr/sbin/shopd");
    return event;
}

std::unique_ptr<_BASE_EVENTINFO> fileEvent(const std::string& path) {
    auto event = hostEvent(7);
    setText(event->detail.file.file_name, path);
    return event;
}

// Letters, not digits: a normalising model must still see N distinct features.
std::string word(long i) {
    std::string text;
    do {
        text.push_back(static_cast<char>('a' + i % 26));
        i /= 26;
    } while (i != 0);
    return text;
}

std::string learnedPath(long i) { return "/var/lib/shop/data/segment-" + word(i) + ".db"; }

_USR_INPUT startInput() {
    _USR_INPUT input;
    input.oprType = USR_OPR_INIT;
    input.modelName = "shop";
    input.learnTime = 1;
    input.processMap["/usr/sbin/shopd"].insert(kPid);
    return input;
}

// A model that learned the extra events, then `features` file paths (the
// last may pass the model's cap), then left its learning period.
template <class Interface, class Extra>
void learn(Interface& engine, long features, Extra extra) {
    _USR_INPUT input = startInput();
    engine.initModel(&input);
    extra();
    for (long i = 0; i < features; ++i) {
        auto event = fileEvent(learnedPath(i));
        engine.processEvent(*event);
    }
    engine.elapseTime(60, 0);
}

std::unique_ptr<BaseInterface> learnedEngine(long features) {
    std::unique_ptr<BaseInterface> engine(BaseFactory().getBaseInterface());
    learn(*engine, features, [] {});
    return engine;
}

// expectWhite: the case is a known event; an unknown one is judged on its
// first pass (delayed, not black).
template <class Event, class Interface>
void judgeRepeatedly(benchmark::State& state, Interface& engine, Event& event, bool expectWhite = true) {
    event.delay_gate = 0;
    engine.processEvent(event);
    if (event.match_verdict != 1 || (event.delay_gate == 2) != expectWhite) {
        state.SkipWithError("the event is not judged as the case says");
        return;
    }
    for (auto _ : state) {
        event.delay_gate = 0;
        engine.processEvent(event);
        benchmark::DoNotOptimize(event.match_verdict);
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_KnownFile(benchmark::State& state) {
    auto engine = learnedEngine(state.range(0));
    auto event = fileEvent(learnedPath(state.range(0) / 2));
    judgeRepeatedly(state, *engine, *event);
}

void BM_UnknownFile(benchmark::State& state) {
    auto engine = learnedEngine(state.range(0));
    auto event = fileEvent("/etc/shadow");
    judgeRepeatedly(state, *engine, *event, false);
}

void BM_KnownConnection(benchmark::State& state) {
    std::unique_ptr<BaseInterface> engine(BaseFactory().getBaseInterface());
    auto event = hostEvent(15);
    event->detail.connect.dst_port = 5432;
    event->detail.connect.src_port = 41234;
    setText(event->detail.connect.dst_ip, "10.0.0.7");
    setText(event->detail.connect.protocol, "tcp");
    learn(*engine, state.range(0), [&] { engine->processEvent(*event); });
    judgeRepeatedly(state, *engine, *event);
}

void BM_KnownProcess(benchmark::State& state) {
    std::unique_ptr<BaseInterface> engine(BaseFactory().getBaseInterface());
    auto event = hostEvent(1);
    setText(event->detail.process.process_path, "/usr/bin/convert");
    setText(event->detail.process.process_cmd_line,
            "/usr/bin/convert /var/lib/shop/upload/7f3c9a2e41d8.jpg -resize 320x240 -quality 85 "
            "/var/lib/shop/cache/thumb_7f3c9a2e41d8_320.jpg");
    learn(*engine, state.range(0), [&] { engine->processEvent(*event); });
    judgeRepeatedly(state, *engine, *event);
}

void BM_KnownRaspSql(benchmark::State& state) {
    std::unique_ptr<RaspInterface> engine(RaspFactory().getRaspInterface());
    _RASP_EVENTINFO event;
    event.pid = kPid;
    event.action_type = 7;
    event.url = "/shop/orders";
    event.sql_text =
        "SELECT o.id, o.total, o.created_at FROM orders o WHERE o.customer_id = 48213 AND o.status IN "
        "('paid', 'shipped') AND o.created_at > '2024-05-17 10:22:33' ORDER BY o.created_at DESC LIMIT 20 OFFSET 40";
    event.action_data = event.sql_text;
    _USR_INPUT input = startInput();
    engine->initModel(&input);
    engine->processEvent(event);
    for (long i = 0; i < state.range(0); ++i) {
        _RASP_EVENTINFO file;
        file.pid = kPid;
        file.action_type = 3;
        file.file_path = learnedPath(i);
        engine->processEvent(file);
    }
    engine->elapseTime(60, 0);
    engine->processEvent(event);
    if (event.match_verdict != 1) {
        state.SkipWithError("the statement is not known");
        return;
    }
    for (auto _ : state) {
        engine->processEvent(event);
        benchmark::DoNotOptimize(event.match_verdict);
    }
    state.SetItemsProcessed(state.iterations());
}

// Distinct texts, more than the library could keep folded.
const int kVariants = 4096;

std::string hexOf(long value, int digits) {
    static const char kHex[] = "0123456789abcdef";
    std::string text;
    for (int i = 0; i < digits; ++i, value /= 16) text.push_back(kHex[value % 16]);
    return text;
}

std::string convertLine(long variant) {
    std::string name = hexOf(variant * 7919 + 12345, 12);
    return "/usr/bin/convert /var/lib/shop/upload/" + name + ".jpg -resize 320x240 -quality " +
           std::to_string(70 + variant % 20) + " /var/lib/shop/cache/thumb_" + name + "_320.jpg";
}

std::string ordersStatement(long variant) {
    return "SELECT o.id, o.total, o.created_at FROM orders o WHERE o.customer_id = " + std::to_string(40000 + variant) +
           " AND o.status IN ('paid', 'shipped') AND o.created_at > '2024-05-" + std::to_string(10 + variant % 18) +
           " 10:22:33' ORDER BY o.created_at DESC LIMIT 20 OFFSET " + std::to_string(variant % 10 * 20);
}

void BM_NewLiteralsProcess(benchmark::State& state) {
    std::unique_ptr<BaseInterface> engine(BaseFactory().getBaseInterface());
    std::vector<std::unique_ptr<_BASE_EVENTINFO>> events;
    for (long i = 0; i < kVariants; ++i) {
        auto event = hostEvent(1);
        setText(event->detail.process.process_path, "/usr/bin/convert");
        setText(event->detail.process.process_cmd_line, convertLine(i));
        events.push_back(std::move(event));
    }
    // Every variant is learned, so that a model of literal texts knows them too.
    learn(*engine, state.range(0), [&] {
        for (auto& event : events) engine->processEvent(*event);
    });
    for (auto& event : events) {
        event->delay_gate = 0;
        engine->processEvent(*event);
        if (event->match_verdict != 1 || event->delay_gate != 2) {
            state.SkipWithError("a variant is not known");
            return;
        }
    }
    std::size_t next = 0;
    for (auto _ : state) {
        _BASE_EVENTINFO& event = *events[next];
        next = (next + 1) % events.size();
        event.delay_gate = 0;
        engine->processEvent(event);
        benchmark::DoNotOptimize(event.match_verdict);
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_NewLiteralsRaspSql(benchmark::State& state) {
    std::unique_ptr<RaspInterface> engine(RaspFactory().getRaspInterface());
    std::vector<_RASP_EVENTINFO> events(kVariants);
    for (long i = 0; i < kVariants; ++i) {
        events[i].pid = kPid;
        events[i].action_type = 7;
        events[i].url = "/shop/orders";
        events[i].sql_text = ordersStatement(i);
        events[i].action_data = events[i].sql_text;
    }
    _USR_INPUT input = startInput();
    engine->initModel(&input);
    for (auto& event : events) engine->processEvent(event);
    engine->elapseTime(60, 0);
    for (auto& event : events) {
        engine->processEvent(event);
        if (event.match_verdict != 1) {
            state.SkipWithError("a variant is not known");
            return;
        }
    }
    std::size_t next = 0;
    for (auto _ : state) {
        _RASP_EVENTINFO& event = events[next];
        next = (next + 1) % events.size();
        engine->processEvent(event);
        benchmark::DoNotOptimize(event.match_verdict);
    }
    state.SetItemsProcessed(state.iterations());
}

}  // namespace

BENCHMARK(BM_KnownFile)->RangeMultiplier(10)->Range(10, 100000)->Apply(enginebench::fixedIterations);
BENCHMARK(BM_UnknownFile)->RangeMultiplier(10)->Range(10, 100000)->Apply(enginebench::fixedIterations);
BENCHMARK(BM_KnownConnection)->Arg(100000)->Apply(enginebench::fixedIterations);
BENCHMARK(BM_KnownProcess)->Arg(100000)->Apply(enginebench::fixedIterations);
BENCHMARK(BM_KnownRaspSql)->Arg(100000)->Apply(enginebench::fixedIterations);
BENCHMARK(BM_NewLiteralsProcess)->Arg(100000)->Apply(enginebench::fixedIterations);
BENCHMARK(BM_NewLiteralsRaspSql)->Apply(enginebench::fixedIterations);

BENCHMARK_MAIN();
