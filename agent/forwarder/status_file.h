// forward_status.json: how each sink and the spool are doing, for wlctl
// status and the metrics endpoint. Replaced whole every couple of seconds.
#ifndef WL_FORWARD_STATUS_FILE_H
#define WL_FORWARD_STATUS_FILE_H

#include <string>
#include <vector>

#include "sink_runner.h"
#include "spool_reader.h"

namespace wlforward {

struct SinkStatus {
    std::string name;
    bool enabled = false;
    SinkCounters counters;
};

// {"pid":..,"sinks":{"file":{"enabled":..,"up":..,"sent":..,"failed":..,
// "dropped":..,"files_sent":..,"backlog_bytes":..,"last_error":".."},..},
// "spool":{"bytes":..,"dropped":..},"uploads":{"bytes":..,"dropped":..}}
std::string formatStatus(long pid, const std::vector<SinkStatus>& sinks, const wlspool::Extent& reports,
                         const wlspool::Extent& uploads);

}  // namespace wlforward

#endif
