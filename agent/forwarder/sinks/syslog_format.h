// RFC 5424 messages for the syslog sink.
#ifndef WL_FORWARD_SYSLOG_FORMAT_H
#define WL_FORWARD_SYSLOG_FORMAT_H

#include <ctime>
#include <string>

#include "envelope.h"

namespace wlforward {

struct SyslogHeader {
    int facility = 16;
    std::string hostname;  // "-" when unknown
    std::string appName = "wl-agent";
    long procId = 0;
    struct timespec time {};
};

// "<PRI>1 TIMESTAMP HOSTNAME APP-NAME PROCID MSGID [wl@32473 host_uuid=..
// seq_id=..] BOM MSG": MSGID is the report's type, alarms are of severity
// warning (4) and all else notice (5), MSG the envelope as it is.
std::string formatSyslog(const SyslogHeader& header, const Route& route, const std::string& message);

}  // namespace wlforward

#endif
