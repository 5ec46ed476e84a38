// The collector's log: one line per message on standard error, which the
// agent sends to the collector's log file.
#ifndef WLC_COLLECTOR_LOG_H
#define WLC_COLLECTOR_LOG_H

namespace wlc {

void logLine(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace wlc

#endif
