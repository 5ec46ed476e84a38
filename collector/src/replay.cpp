#include "replay.h"

#include <chrono>
#include <fstream>
#include <thread>

#include "collector_log.h"
#include "collector_service.h"
#include "event_kind.h"
#include "native_encoder.h"
#include "record_json.h"
#include "subscriber_server.h"

namespace wlc {

bool loadRecording(const std::string& file, std::vector<ActionRecord>& records, std::string& error) {
    std::ifstream in(file);
    if (!in) {
        error = "cannot read " + file;
        return false;
    }
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        if (line.empty() || line[0] == '#') continue;
        ActionRecord record;
        std::string why;
        if (!recordFromJson(line, record, why)) {
            error = file + ":" + std::to_string(number) + ": " + why;
            return false;
        }
        records.push_back(std::move(record));
    }
    return true;
}

namespace {

using Clock = std::chrono::steady_clock;

bool waitFor(const std::atomic<bool>& stop, const std::function<bool()>& ready) {
    while (!stop) {
        if (ready()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return false;
}

}  // namespace

int runReplay(const ReplayOptions& options, const std::atomic<bool>& stop) {
    std::vector<ActionRecord> records;
    std::string error;
    if (!loadRecording(options.file, records, error)) {
        logLine("replay: %s", error.c_str());
        return 2;
    }
    KindCounters counters[kReportedKindCount];
    SubscriberServer* serverView = nullptr;
    ServerHooks hooks;
    hooks.status = [&counters, &serverView](const std::vector<int32_t>& pids, std::size_t receivers) {
        KindCounters now[kReportedKindCount];
        for (int i = 0; i < kReportedKindCount; ++i) {
            now[i] = counters[i];
            now[i].sent = serverView->sent(static_cast<EventKind>(i));
            now[i].lostSocket = serverView->lost(static_cast<EventKind>(i));
        }
        return statusJson("replay", pids, receivers, now, BackendCounters{}, 0);
    };
    SubscriberServer server(options.socketPath, "replay", hooks);
    serverView = &server;
    if (!server.start(error)) {
        logLine("replay: %s", error.c_str());
        return 1;
    }
    logLine("replay: %zu records from %s; waiting for a client on %s", records.size(), options.file.c_str(),
            options.socketPath.c_str());
    if (!waitFor(stop, [&] { return server.receivers() > 0; })) return 0;

    const std::size_t highWater = server.limits().maxQueuedBytes / 2;
    Clock::time_point begin = Clock::now();
    for (std::size_t i = 0; i < records.size() && !stop; ++i) {
        if (options.rate > 0) {
            auto due =
                begin + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(i / options.rate));
            std::this_thread::sleep_until(due);
        }
        if (!waitFor(stop, [&] { return server.largestQueue() < highWater; })) break;
        const ActionRecord& record = records[i];
        ++counters[static_cast<int>(record.kind)].received;
        server.broadcast(record.kind, subTypeOf(record.kind), encodeNative(record));
    }
    waitFor(stop, [&] { return server.largestQueue() == 0 || server.receivers() == 0; });
    logLine("replay: done");
    if (options.exitWhenDone) return 0;
    while (!stop) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    return 0;
}

}  // namespace wlc
