// Delivers one sink's share of the spool: reads from the sink's cursor,
// sends a batch, and moves the cursor (kept on disk) past what the sink
// took. What was sent but not yet recorded is sent again after a crash:
// delivery is at least once.
#ifndef WL_FORWARD_SINK_RUNNER_H
#define WL_FORWARD_SINK_RUNNER_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "backoff.h"
#include "sink.h"
#include "spool_reader.h"

namespace wlforward {

struct RunnerLimits {
    size_t batchLines = 100;
    size_t batchBytes = 1u << 20;
    std::chrono::milliseconds idle{250};  // look for new lines this often
    std::chrono::milliseconds retryInitial{1000};
    std::chrono::milliseconds retryMax{60000};
};

struct SinkCounters {
    bool up = true;
    uint64_t sent = 0;     // reports taken by the sink
    uint64_t failed = 0;   // attempts that failed and will be retried
    uint64_t dropped = 0;  // reports and files the sink refused for good
    uint64_t filesSent = 0;
    uint64_t cursor = 0;        // in the reports spool
    uint64_t uploadCursor = 0;  // in the upload manifest
    std::string lastError;
};

class SinkRunner {
public:
    // Waits up to the given time; false when the forwarder is stopping.
    using Wait = std::function<bool(std::chrono::milliseconds)>;
    using Log = std::function<void(const std::string&)>;

    enum class Step { Sent, Idle, Failed };

    // uploadsDir: where the manifest's "kind<N>/<name>" files are; used only
    // if the sink takes files.
    SinkRunner(Sink& sink, wlspool::Stream reports, wlspool::Stream uploads, std::string uploadsDir,
               RunnerLimits limits, Log log);

    // One batch of reports, then one upload: what a pass did.
    Step step();
    // Steps until wait says stop, pausing as the last step asks.
    void run(const Wait& wait);
    // The pause after a step: none after progress, the idle time when there
    // was nothing, the back-off after a failure.
    std::chrono::milliseconds pauseAfter(Step step);

    SinkCounters counters() const;
    const char* name() const { return m_sink.name(); }

private:
    Step stepReports();
    Step stepUploads();
    void fail(const std::string& error);
    bool moveCursor(const wlspool::Stream& stream, uint64_t& cursor, uint64_t to);

    Sink& m_sink;
    wlspool::SpoolReader m_reports;
    wlspool::SpoolReader m_uploads;
    std::string m_uploadsDir;
    RunnerLimits m_limits;
    Log m_log;
    Backoff m_backoff;
    mutable std::mutex m_mutex;  // m_counters, read by the status writer
    SinkCounters m_counters;
};

}  // namespace wlforward

#endif
