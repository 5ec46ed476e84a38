// The spool's bounds and the sinks, from the agent's settings: sections
// [spool], [file], [syslog], [http] and [nats]. wl-agent reads the spool's
// part and which sinks are on; wl-forward reads all of it.
#ifndef WL_FORWARD_SETTINGS_H
#define WL_FORWARD_SETTINGS_H

#include <cstdint>
#include <string>
#include <vector>

#include "agent_config.h"
#include "spool_writer.h"

namespace wlforward {

struct RetrySettings {
    long initialMs = 1000;
    long maxMs = 60000;
};

struct FileSinkSettings {
    bool enabled = true;
    std::string path;      // default <root>/var/log/agent/manager/reports.jsonl
    std::string filesDir;  // default <root>/var/log/agent/manager/uploads
    uint64_t maxBytes = 64u << 20;
    RetrySettings retry;
};

struct SyslogSinkSettings {
    bool enabled = false;
    std::string socket = "/dev/log";
    int facility = 16;  // local0
    std::string appName = "wl-agent";
    size_t maxMessageBytes = 65536;
    RetrySettings retry;
};

struct HttpSinkSettings {
    bool enabled = false;
    std::string url;
    std::string filesUrl;  // default: url
    std::string caFile;
    bool insecure = false;
    size_t batchSize = 100;
    size_t batchBytes = 1u << 20;
    long timeoutMs = 10000;
    RetrySettings retry;
};

struct NatsSinkSettings {
    bool enabled = false;
    std::string url = "nats://127.0.0.1:4222";
    std::string subjectPrefix = "wl";
    std::string stream = "WL_REPORTS";
    size_t batchSize = 100;
    long timeoutMs = 5000;
    RetrySettings retry;
};

struct ForwardSettings {
    wlspool::SpoolLimits reports;
    uint64_t maxUploadBytes = 256u << 20;
    FileSinkSettings file;
    SyslogSinkSettings syslog;
    HttpSinkSettings http;
    NatsSinkSettings nats;
};

// A value that cannot be used is named in problems; its default stays, and
// a sink that cannot work as set is turned off.
ForwardSettings readForwardSettings(const wlagent::AgentConfig& config, const std::string& root,
                                    std::vector<std::string>& problems);

// The sinks that are on; "file", "syslog", "http", "nats". Also the names of
// their cursors.
std::vector<std::string> enabledSinks(const ForwardSettings& settings);
// Those of them that take origin-log files.
std::vector<std::string> fileSinks(const ForwardSettings& settings);

// nats://HOST:PORT, HOST a name or address, PORT 1..65535.
bool validNatsUrl(const std::string& url);
// One or more dot-separated tokens of letters, digits, '-' and '_'.
bool validSubjectPrefix(const std::string& prefix);

}  // namespace wlforward

#endif
