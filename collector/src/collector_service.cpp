#include "collector_service.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "collector_log.h"
#include "event_kind.h"
#include "native_encoder.h"
#include "record_json.h"

namespace wlc {

CollectorService::CollectorService(std::unique_ptr<CaptureBackend> backend, ServiceOptions options)
    : m_backend(std::move(backend)),
      m_options(std::move(options)),
      m_processes(m_hasher),
      m_enricher(m_processes),
      m_queue(m_options.queueCapacity) {}

CollectorService::~CollectorService() { stop(); }

bool CollectorService::start(std::string& error) {
    if (!m_options.recordPath.empty()) {
        m_recording.open(m_options.recordPath, std::ios::out | std::ios::app);
        if (!m_recording) {
            error = "cannot write the recording " + m_options.recordPath;
            return false;
        }
    }
    CaptureBackend& backend = *m_backend;
    ServerHooks hooks;
    hooks.watch = [this, &backend](int32_t pid) {
        backend.watch(pid);
        // Read what /proc tells of it now, on the enrichment thread, so its
        // records still name it if it ends soon: a fork from itself.
        HostEvent lookAhead;
        lookAhead.kind = EventKind::Fork;
        lookAhead.pid = lookAhead.ppid = pid;
        m_queue.onEvent(std::move(lookAhead));
    };
    hooks.unwatch = [&backend](int32_t pid) { backend.unwatch(pid); };
    hooks.status = [this](const std::vector<int32_t>& pids, std::size_t receivers) { return status(pids, receivers); };
    m_server = std::make_unique<SubscriberServer>(m_options.socketPath, backend.name(), hooks);
    if (!backend.start(m_queue, error)) return false;
    if (!m_server->start(error)) {
        backend.stop();
        return false;
    }
    m_running = true;
    m_thread = std::thread([this] { enrichLoop(); });
    return true;
}

void CollectorService::stop() {
    if (m_server) m_server->stop();
    m_backend->stop();
    m_running = false;
    m_queue.close();
    if (m_thread.joinable()) m_thread.join();
}

void CollectorService::enrichLoop() {
    while (m_running) {
        std::optional<HostEvent> event = m_queue.pop(std::chrono::milliseconds(200));
        if (!event) continue;
        std::optional<ActionRecord> record = m_enricher.enrich(*event);
        m_unparsableDns = m_enricher.unparsableDns();
        if (!record) continue;
        ++m_recordsMade;
        m_server->broadcast(record->kind, subTypeOf(record->kind), encodeNative(*record));
        if (m_recording.is_open()) {
            m_recording << recordToJson(*record) << '\n';
            m_recording.flush();
        }
    }
}

std::string CollectorService::status(const std::vector<int32_t>& pids, std::size_t receivers) const {
    KindCounters kinds[kReportedKindCount];
    for (int i = 0; i < kReportedKindCount; ++i) {
        EventKind kind = static_cast<EventKind>(i);
        kinds[i].received = m_queue.received(kind);
        kinds[i].lostQueue = m_queue.dropped(kind);
        if (m_server) {
            kinds[i].sent = m_server->sent(kind);
            kinds[i].lostSocket = m_server->lost(kind);
        }
    }
    return statusJson(m_backend->name(), pids, receivers, kinds, m_backend->counters(), m_backend->unsupportedKinds());
}

std::string statusJson(const std::string& backend, const std::vector<int32_t>& pids, std::size_t receivers,
                       const KindCounters (&kinds)[kReportedKindCount], const BackendCounters& backendCounters,
                       uint32_t unsupportedKinds) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> w(buffer);
    w.StartObject();
    w.Key("backend");
    w.String(backend.c_str());
    w.Key("pid");
    w.Int(static_cast<int>(::getpid()));
    w.Key("watched");
    w.StartArray();
    for (int32_t pid : pids) w.Int(pid);
    w.EndArray();
    w.Key("clients");
    w.Uint64(receivers);
    w.Key("lost_kernel");
    w.Uint64(backendCounters.lostInKernel);
    w.Key("lost_backend");
    w.Uint64(backendCounters.lostInBackend);
    w.Key("kinds");
    w.StartObject();
    for (int i = 0; i < kReportedKindCount; ++i) {
        w.Key(eventName(static_cast<EventKind>(i)));
        w.StartObject();
        w.Key("received");
        w.Uint64(kinds[i].received);
        w.Key("sent");
        w.Uint64(kinds[i].sent);
        w.Key("lost_kernel");
        w.Uint64(backendCounters.lostInKernelByKind[i]);
        w.Key("lost_queue");
        w.Uint64(kinds[i].lostQueue);
        w.Key("lost_socket");
        w.Uint64(kinds[i].lostSocket);
        w.EndObject();
    }
    w.EndObject();
    w.Key("unsupported");
    w.StartArray();
    for (int i = 0; i < kReportedKindCount; ++i) {
        if (unsupportedKinds & (1u << i)) w.String(eventName(static_cast<EventKind>(i)));
    }
    w.EndArray();
    w.EndObject();
    return std::string(buffer.GetString(), buffer.GetSize());
}

}  // namespace wlc
