// Reports as RFC 5424 messages to the local syslog socket (/dev/log, or
// another Unix datagram socket). Origin-log files do not go this way.
#ifndef WL_FORWARD_SYSLOG_SINK_H
#define WL_FORWARD_SYSLOG_SINK_H

#include "forward_settings.h"
#include "sink.h"

namespace wlforward {

class SyslogSink : public Sink {
public:
    explicit SyslogSink(SyslogSinkSettings settings);
    ~SyslogSink() override;
    const char* name() const override { return "syslog"; }
    SendResult send(const std::vector<Report>& batch) override;

private:
    bool connectSocket(std::string& error);

    SyslogSinkSettings m_settings;
    std::string m_hostname;
    int m_fd = -1;
};

}  // namespace wlforward

#endif
