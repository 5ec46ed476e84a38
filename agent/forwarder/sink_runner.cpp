#include "sink_runner.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace wlforward {

SinkRunner::SinkRunner(Sink& sink, wlspool::Stream reports, wlspool::Stream uploads, std::string uploadsDir,
                       RunnerLimits limits, Log log)
    : m_sink(sink),
      m_reports(std::move(reports)),
      m_uploads(std::move(uploads)),
      m_uploadsDir(std::move(uploadsDir)),
      m_limits(limits),
      m_log(std::move(log)),
      m_backoff(limits.retryInitial, limits.retryMax) {
    m_counters.cursor = wlspool::readCursor(m_reports.stream(), m_sink.name());
    m_counters.uploadCursor = wlspool::readCursor(m_uploads.stream(), m_sink.name());
}

SinkCounters SinkRunner::counters() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_counters;
}

void SinkRunner::fail(const std::string& error) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_counters.up || m_counters.lastError != error) m_log(std::string(m_sink.name()) + ": " + error);
    m_counters.up = false;
    ++m_counters.failed;
    m_counters.lastError = error;
}

bool SinkRunner::moveCursor(const wlspool::Stream& stream, uint64_t& cursor, uint64_t to) {
    std::string error;
    if (!wlspool::writeCursor(stream, m_sink.name(), to, error)) {
        // Kept in memory all the same: a restart sends these again.
        m_log(std::string(m_sink.name()) + ": " + error);
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    cursor = to;
    return true;
}

SinkRunner::Step SinkRunner::stepReports() {
    uint64_t cursor = counters().cursor;
    wlspool::Batch batch;
    std::string error;
    if (!m_reports.read(cursor, m_limits.batchLines, m_limits.batchBytes, batch, error)) {
        fail(error);
        return Step::Failed;
    }
    if (batch.moved) {
        m_log(std::string(m_sink.name()) + ": position " + std::to_string(cursor) +
              " is no longer in the spool; going on from " + std::to_string(batch.movedTo));
        moveCursor(m_reports.stream(), m_counters.cursor, batch.movedTo);
    }
    if (batch.lines.empty()) return Step::Idle;
    std::vector<Report> reports;
    reports.reserve(batch.lines.size());
    for (const wlspool::Line& line : batch.lines)
        reports.push_back(Report{line.offset, &line.text, routeOf(line.text)});
    SendResult result = m_sink.send(reports);
    size_t handled = std::min(result.delivered + result.rejected, batch.lines.size());
    if (handled > 0) {
        moveCursor(m_reports.stream(), m_counters.cursor, batch.lines[handled - 1].end);
        std::lock_guard<std::mutex> lock(m_mutex);
        m_counters.sent += std::min(result.delivered, handled);
        m_counters.dropped += handled - std::min(result.delivered, handled);
    }
    if (result.rejected > 0) {
        m_log(std::string(m_sink.name()) + ": refused " + std::to_string(result.rejected) + " report(s)" +
              (result.note.empty() ? "" : ": " + result.note));
    }
    if (!result.error.empty() && handled < batch.lines.size()) {
        fail(result.error);
        return Step::Failed;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_counters.up = true;
    return Step::Sent;
}

SinkRunner::Step SinkRunner::stepUploads() {
    if (!m_sink.takesFiles()) return Step::Idle;
    uint64_t cursor = counters().uploadCursor;
    wlspool::Batch batch;
    std::string error;
    if (!m_uploads.read(cursor, 1, 64u << 10, batch, error)) {
        fail(error);
        return Step::Failed;
    }
    if (batch.moved) moveCursor(m_uploads.stream(), m_counters.uploadCursor, batch.movedTo);
    if (batch.lines.empty()) return Step::Idle;
    const wlspool::Line& line = batch.lines.front();
    Upload upload;
    upload.offset = line.offset;
    if (!parseUploadEntry(line.text, upload.entry)) {
        m_log(std::string(m_sink.name()) +
              ": skipping a manifest line that names no upload: " + line.text.substr(0, 200));
        moveCursor(m_uploads.stream(), m_counters.uploadCursor, line.end);
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_counters.dropped;
        return Step::Sent;
    }
    upload.path = m_uploadsDir + "/" + upload.entry.file;
    if (::access(upload.path.c_str(), F_OK) != 0 && errno == ENOENT) {
        // Removed for room by the agent, which counted it if it was unsent.
        m_log(std::string(m_sink.name()) + ": " + upload.entry.file + " is gone; skipping it");
        moveCursor(m_uploads.stream(), m_counters.uploadCursor, line.end);
        return Step::Sent;
    }
    SendResult result = m_sink.sendFile(upload);
    if (result.delivered + result.rejected > 0) {
        moveCursor(m_uploads.stream(), m_counters.uploadCursor, line.end);
        std::lock_guard<std::mutex> lock(m_mutex);
        if (result.delivered > 0) {
            ++m_counters.filesSent;
        } else {
            ++m_counters.dropped;
        }
    }
    if (result.rejected > 0) {
        m_log(std::string(m_sink.name()) + ": file " + upload.entry.file + " not sent: " + result.note);
        return Step::Sent;
    }
    if (!result.error.empty()) {
        fail(result.error);
        return Step::Failed;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_counters.up = true;
    return Step::Sent;
}

SinkRunner::Step SinkRunner::step() {
    Step reports = stepReports();
    if (reports == Step::Failed) return Step::Failed;
    Step uploads = stepUploads();
    if (uploads == Step::Failed) return Step::Failed;
    return (reports == Step::Sent || uploads == Step::Sent) ? Step::Sent : Step::Idle;
}

std::chrono::milliseconds SinkRunner::pauseAfter(Step step) {
    switch (step) {
        case Step::Sent: m_backoff.reset(); return std::chrono::milliseconds(0);
        case Step::Idle: m_backoff.reset(); return m_limits.idle;
        case Step::Failed: break;
    }
    return m_backoff.next();
}

void SinkRunner::run(const Wait& wait) {
    for (;;) {
        std::chrono::milliseconds pause = pauseAfter(step());
        if (!wait(pause)) return;
    }
}

}  // namespace wlforward
