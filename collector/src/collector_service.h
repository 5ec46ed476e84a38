// The collector at work: a capture back-end feeding the event queue, one
// thread turning events into records, the socket sending them, and an
// optional JSON-lines recording of what is sent.
#ifndef WLC_COLLECTOR_SERVICE_H
#define WLC_COLLECTOR_SERVICE_H

#include <atomic>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include "capture_backend.h"
#include "enricher.h"
#include "event_queue.h"
#include "file_hash.h"
#include "process_table.h"
#include "subscriber_server.h"

namespace wlc {

struct ServiceOptions {
    std::string socketPath;
    std::string recordPath;  // empty: no recording
    std::size_t queueCapacity = 65536;
};

class CollectorService {
public:
    CollectorService(std::unique_ptr<CaptureBackend> backend, ServiceOptions options);
    ~CollectorService();

    bool start(std::string& error);
    void stop();

    const CaptureBackend& backend() const { return *m_backend; }
    std::string status(const std::vector<int32_t>& pids, std::size_t receivers) const;
    uint64_t recordsMade() const { return m_recordsMade.load(); }

private:
    void enrichLoop();

    std::unique_ptr<CaptureBackend> m_backend;
    ServiceOptions m_options;
    FileHasher m_hasher;
    ProcessTable m_processes;
    Enricher m_enricher;
    EventQueue m_queue;
    std::unique_ptr<SubscriberServer> m_server;
    std::ofstream m_recording;
    std::thread m_thread;
    std::atomic<bool> m_running{false};
    std::atomic<uint64_t> m_recordsMade{0};
    std::atomic<uint64_t> m_unparsableDns{0};
};

struct KindCounters {
    uint64_t received = 0;
    uint64_t sent = 0;
    uint64_t lostQueue = 0;
    uint64_t lostSocket = 0;
};

// The STATUS text (see docs/collector.md).
std::string statusJson(const std::string& backend, const std::vector<int32_t>& pids, std::size_t receivers,
                       const KindCounters (&kinds)[kReportedKindCount], const BackendCounters& backendCounters,
                       uint32_t unsupportedKinds);

}  // namespace wlc

#endif
