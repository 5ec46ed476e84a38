// Spool append (the cost the module's upload lock sees), reading a sink's
// batches, and the whole file-sink path, on the machine's temporary disk.
#include <benchmark/benchmark.h>

#include <stdlib.h>

#include <filesystem>
#include <string>

#include "file_sink.h"
#include "sink_runner.h"
#include "spool_reader.h"
#include "spool_writer.h"

namespace {

struct Dir {
    std::string path = (std::filesystem::temp_directory_path() / "wl-fwd-bench-XXXXXX").string();
    Dir() { mkdtemp(&path[0]); }
    ~Dir() { std::filesystem::remove_all(path); }
};

std::string envelope(size_t payload) {
    return "{\"send_time\":\"2024-01-01 "
           "00:00:00\",\"host_uuid\":\"4c4c4544-0042\",\"host_ip\":\"10.0.0.1\",\"ip_list\":"
           "\"10.0.0.1\",\"seq_id\":\"1700000000000001\",\"type\":\"alarm\",\"alarm\":{\"data\":\"" +
           std::string(payload, 'a') + "\"}}";
}

// Arg 0: payload bytes; arg 1: sync each line.
void SpoolAppend(benchmark::State& state) {
    Dir dir;
    wlspool::SpoolWriter w({dir.path, "reports.jsonl"}, wlspool::SpoolLimits{4u << 20, 64u << 20, state.range(1) != 0},
                           [] { return uint64_t{0}; });
    std::string error;
    if (!w.open(error)) state.SkipWithError(error.c_str());
    std::string line = envelope(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        if (!w.append(line, error)) state.SkipWithError(error.c_str());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * line.size()));
}
BENCHMARK(SpoolAppend)->Args({500, 0})->Args({500, 1})->Args({20000, 0})->Unit(benchmark::kMicrosecond);

void SpoolReadBatches(benchmark::State& state) {
    Dir dir;
    wlspool::Stream stream{dir.path, "reports.jsonl"};
    wlspool::SpoolWriter w(stream, wlspool::SpoolLimits{4u << 20, 64u << 20, false}, nullptr);
    std::string error;
    w.open(error);
    std::string line = envelope(500);
    const int lines = 20000;
    for (int i = 0; i < lines; ++i) w.append(line, error);
    wlspool::SpoolReader reader(stream);
    for (auto _ : state) {
        uint64_t at = 0;
        for (;;) {
            wlspool::Batch b;
            reader.read(at, 100, 1u << 20, b, error);
            if (b.lines.empty()) break;
            at = b.lines.back().end;
        }
    }
    state.SetItemsProcessed(state.iterations() * lines);
}
BENCHMARK(SpoolReadBatches)->Unit(benchmark::kMillisecond);

// Spool to file sink, cursor kept on disk after each batch.
void FileSinkForwarding(benchmark::State& state) {
    Dir dir;
    wlspool::Stream reports = wlspool::reportStream(dir.path);
    wlspool::SpoolWriter w(reports, wlspool::SpoolLimits{4u << 20, 64u << 20, false}, nullptr);
    std::string error;
    w.open(error);
    std::string line = envelope(500);
    const int lines = 10000;
    for (int i = 0; i < lines; ++i) w.append(line, error);
    wlforward::FileSinkSettings settings;
    settings.path = dir.path + "/out/reports.jsonl";
    settings.filesDir = dir.path + "/out/uploads";
    settings.maxBytes = 1u << 30;
    for (auto _ : state) {
        state.PauseTiming();
        std::filesystem::remove_all(reports.cursorDir());
        wlforward::FileSink sink(settings);
        wlforward::RunnerLimits limits;
        limits.batchLines = static_cast<size_t>(state.range(0));
        wlforward::SinkRunner runner(sink, reports, wlspool::uploadStream(dir.path), dir.path, limits,
                                     [](const std::string&) {});
        state.ResumeTiming();
        while (runner.step() == wlforward::SinkRunner::Step::Sent) {
        }
    }
    state.SetItemsProcessed(state.iterations() * lines);
}
BENCHMARK(FileSinkForwarding)->Arg(100)->Arg(1000)->Unit(benchmark::kMillisecond);

}  // namespace
