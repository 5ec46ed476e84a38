// ns per native conversion (with the clearing every record gets first) and per
// telemetry message, against memset + memcpy of one record.
#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "transformer.h"

namespace {

// A native record of realistic content, zero-padded as the publisher hands it.
class NativeRecord {
public:
    NativeRecord() : m_bytes(kNativeRecordMaxSize, 0) {}
    void text(std::size_t offset, const std::string& value) {
        std::memcpy(m_bytes.data() + offset, value.c_str(), value.size() + 1);
    }
    void i32(std::size_t offset, int32_t value) { std::memcpy(m_bytes.data() + offset, &value, sizeof(value)); }
    void u16(std::size_t offset, uint16_t value) { std::memcpy(m_bytes.data() + offset, &value, sizeof(value)); }
    template <typename T>
    const T& as() const {
        return *reinterpret_cast<const T*>(m_bytes.data());
    }

private:
    std::vector<unsigned char> m_bytes;
};

const std::string kSha(64, 'a');
const std::string kMd5(32, 'b');
const std::string kCmd = "/usr/lib/jvm/java-11/bin/java -Xmx2g -Dspring.profiles.active=prod -jar /opt/app/app.jar";

// The acting process of file and network records (network: shift 4).
void actor(NativeRecord& r, std::size_t shift) {
    r.i32(7352 + shift, 3141);
    r.text(7364 + shift, "7d9f1c2e-8b3a-4f6d-9e0c-1a2b3c4d");
    r.text(7396 + shift, "/usr/lib/jvm/java-11/bin/java");
    r.text(8421 + shift, kMd5);
    r.text(8454 + shift, kSha);
    r.text(8519 + shift, kCmd);
    r.text(9544 + shift, "appuser");
}

NativeRecord processRecord() {
    NativeRecord r;
    r.text(32, "PROCESS_CREATION");
    r.i32(7352, 4000);
    r.text(7404, "7d9f1c2e-8b3a-4f6d-9e0c-1a2b3c4d");
    r.text(7436, "/usr/bin/curl");
    r.text(8461, kMd5);
    r.text(8494, kSha);
    r.text(8559, "curl -s http://127.0.0.1:8080/health");
    r.text(9584, "appuser");
    r.i32(9652, 3141);
    r.text(9688, "/usr/lib/jvm/java-11/bin/java");
    r.text(10713, kMd5);
    r.text(10746, kSha);
    r.text(10811, kCmd);
    return r;
}

NativeRecord fileRecord() {
    NativeRecord r;
    r.text(32, "FILE_MODIFICATION");
    actor(r, 0);
    r.text(9610, "/opt/app/logs/application-2024-01-01.log");
    r.text(13706, "appuser");
    r.text(13739, "appgroup");
    r.text(13772, "rw-r-----");
    return r;
}

NativeRecord netRecord(const char* name) {
    NativeRecord r;
    r.text(36, name);
    actor(r, 4);
    r.text(9614, "tcp");
    r.text(9618, "192.168.10.20");
    r.text(9634, "10.0.0.5");
    r.u16(9650, 51234);
    r.u16(9652, 5432);
    return r;
}

NativeRecord dnsRecord() {
    NativeRecord r;
    r.text(36, "DNS_QUERY");
    actor(r, 4);
    r.text(9614, "db.internal.example.com");
    r.text(9684, "192.168.10.20;192.168.10.21");
    return r;
}

template <typename Native, bool (Transformer::*Convert)(const Native&, _BASE_EVENTINFO&)>
void convert(benchmark::State& state, const NativeRecord& native) {
    Transformer transformer;
    auto event = std::make_unique<_BASE_EVENTINFO>();
    benchmark::DoNotOptimize(event.get());
    for (auto _ : state) {
        std::memset(event.get(), 0, sizeof(_BASE_EVENTINFO));
        benchmark::DoNotOptimize((transformer.*Convert)(native.as<Native>(), *event));
        benchmark::ClobberMemory();
    }
}

void BM_ClearAndCopyRecord(benchmark::State& state) {
    auto source = std::make_unique<_BASE_EVENTINFO>();
    auto target = std::make_unique<_BASE_EVENTINFO>();
    benchmark::DoNotOptimize(source.get());
    benchmark::DoNotOptimize(target.get());
    for (auto _ : state) {
        std::memset(source.get(), 0, sizeof(_BASE_EVENTINFO));
        benchmark::ClobberMemory();
        std::memcpy(target.get(), source.get(), sizeof(_BASE_EVENTINFO));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_ClearAndCopyRecord);

void BM_NativeProcess(benchmark::State& state) {
    convert<process_event_info, &Transformer::TransformProcessMsg>(state, processRecord());
}
BENCHMARK(BM_NativeProcess);

void BM_NativeFile(benchmark::State& state) {
    convert<file_event_info, &Transformer::TransformFileMsg>(state, fileRecord());
}
BENCHMARK(BM_NativeFile);

void BM_NativeConnection(benchmark::State& state) {
    convert<net_event_info, &Transformer::TransformNetEvent>(state, netRecord("NETWORK_CONNECTION"));
}
BENCHMARK(BM_NativeConnection);

void BM_NativeDns(benchmark::State& state) {
    convert<net_event_info, &Transformer::TransformNetEvent>(state, dnsRecord());
}
BENCHMARK(BM_NativeDns);

void BM_NativeListening(benchmark::State& state) {
    convert<net_event_info, &Transformer::TransformNetEvent>(state, netRecord("LISTENING"));
}
BENCHMARK(BM_NativeListening);

void BM_TelemetryMessage(benchmark::State& state) {
    const std::string message =
        "{\"pid\":3141,\"time\":1700000000,\"data\":{\"url\":\"http://shop.example.com/api/orders?id=42\","
        "\"method\":\"GET\",\"body\":\"\",\"appCmd\":\"java -jar /opt/app/app.jar\","
        "\"headers\":{\"host\":\"shop.example.com\",\"user-agent\":\"Mozilla/5.0\",\"accept\":\"*/*\"},"
        "\"param\":{\"id\":[\"42\"]},\"ip\":\"10.0.0.5\",\"srcPort\":51234,"
        "\"data\":{\"type\":\"network\",\"action\":\"address\","
        "\"data\":{\"hostName\":\"db.internal.example.com\",\"url\":\"192.168.10.20\",\"port\":5432}}}}\n";
    Transformer transformer;
    for (auto _ : state) {
        _RASP_EVENTINFO event;
        transformer.initRaspInfo(event);
        benchmark::DoNotOptimize(transformer.judgeEventType(message, event));
        benchmark::DoNotOptimize(event.hostName.data());
    }
}
BENCHMARK(BM_TelemetryMessage);

}  // namespace
