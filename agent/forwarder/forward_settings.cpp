#include "forward_settings.h"

#include <algorithm>
#include <cstdlib>

namespace wlforward {
namespace {

bool tokenChar(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
}

int facilityCode(const std::string& name) {
    static const char* const kNames[] = {"kern",   "user",     "mail",    "daemon",       "auth",     "syslog",
                                         "lpr",    "news",     "uucp",    "cron",         "authpriv", "ftp",
                                         "ntp",    "security", "console", "solaris-cron", "local0",   "local1",
                                         "local2", "local3",   "local4",  "local5",       "local6",   "local7"};
    for (int i = 0; i < 24; ++i) {
        if (name == kNames[i]) return i;
    }
    return -1;
}

RetrySettings readRetry(const wlagent::AgentConfig& c, const char* section, std::vector<std::string>& problems) {
    RetrySettings r;
    r.initialMs = c.getNumber(section, "retry_initial_ms", 10, 3600000, r.initialMs, problems);
    r.maxMs = c.getNumber(section, "retry_max_ms", r.initialMs, 86400000, std::max(r.maxMs, r.initialMs), problems);
    return r;
}

std::string rooted(const std::string& root, const std::string& path) {
    return (path.empty() || path[0] == '/') ? path : root + "/" + path;
}

}  // namespace

bool validNatsUrl(const std::string& url) {
    const std::string scheme = "nats://";
    if (url.compare(0, scheme.size(), scheme) != 0) return false;
    std::string rest = url.substr(scheme.size());
    size_t colon = rest.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 >= rest.size()) return false;
    for (size_t i = 0; i < colon; ++i) {
        char c = rest[i];
        if (!tokenChar(c) && c != '.' && c != '[' && c != ']' && c != ':') return false;
    }
    std::string port = rest.substr(colon + 1);
    if (port.size() > 5 || port.find_first_not_of("0123456789") != std::string::npos) return false;
    long p = std::strtol(port.c_str(), nullptr, 10);
    return p >= 1 && p <= 65535;
}

bool validSubjectPrefix(const std::string& prefix) {
    if (prefix.empty() || prefix.front() == '.' || prefix.back() == '.' || prefix.size() > 128) return false;
    for (size_t i = 0; i < prefix.size(); ++i) {
        if (prefix[i] == '.') {
            if (prefix[i + 1] == '.') return false;
        } else if (!tokenChar(prefix[i])) {
            return false;
        }
    }
    return true;
}

ForwardSettings readForwardSettings(const wlagent::AgentConfig& c, const std::string& root,
                                    std::vector<std::string>& problems) {
    ForwardSettings s;
    s.reports.maxFileBytes = static_cast<uint64_t>(
        c.getNumber("spool", "max_file_bytes", 4096, 64L << 20, static_cast<long>(s.reports.maxFileBytes), problems));
    s.reports.maxTotalBytes = static_cast<uint64_t>(c.getNumber("spool", "max_total_bytes", 8192, 2047L << 20,
                                                                static_cast<long>(s.reports.maxTotalBytes), problems));
    if (s.reports.maxTotalBytes < 2 * s.reports.maxFileBytes) {
        problems.push_back("[spool] max_total_bytes must be at least twice max_file_bytes; taken as " +
                           std::to_string(2 * s.reports.maxFileBytes));
        s.reports.maxTotalBytes = 2 * s.reports.maxFileBytes;
    }
    s.reports.sync = c.getBool("spool", "sync", s.reports.sync, problems);
    s.maxUploadBytes = static_cast<uint64_t>(
        c.getNumber("spool", "max_upload_bytes", 1L << 20, 2047L << 20, static_cast<long>(s.maxUploadBytes), problems));

    FileSinkSettings& f = s.file;
    f.enabled = c.getBool("file", "enabled", f.enabled, problems);
    f.path = rooted(root, c.getText("file", "path", "var/log/agent/manager/reports.jsonl"));
    f.filesDir = rooted(root, c.getText("file", "files_dir", "var/log/agent/manager/uploads"));
    f.maxBytes = static_cast<uint64_t>(
        c.getNumber("file", "max_bytes", 4096, 2047L << 20, static_cast<long>(f.maxBytes), problems));
    f.retry = readRetry(c, "file", problems);

    SyslogSinkSettings& y = s.syslog;
    y.enabled = c.getBool("syslog", "enabled", y.enabled, problems);
    y.socket = c.getText("syslog", "socket", y.socket);
    std::string facility = c.getText("syslog", "facility", "local0");
    if (facilityCode(facility) < 0) {
        problems.push_back("[syslog] facility must be a syslog facility name such as local0 or daemon, not '" +
                           facility + "'");
    } else {
        y.facility = facilityCode(facility);
    }
    y.appName = c.getText("syslog", "app_name", y.appName);
    if (y.appName.empty() || y.appName.size() > 48 || y.appName.find(' ') != std::string::npos) {
        problems.push_back("[syslog] app_name must be 1 to 48 characters without blanks, not '" + y.appName + "'");
        y.appName = "wl-agent";
    }
    y.maxMessageBytes = static_cast<size_t>(
        c.getNumber("syslog", "max_message_bytes", 480, 8L << 20, static_cast<long>(y.maxMessageBytes), problems));
    y.retry = readRetry(c, "syslog", problems);

    HttpSinkSettings& h = s.http;
    h.enabled = c.getBool("http", "enabled", h.enabled, problems);
    h.url = c.getText("http", "url", "");
    h.filesUrl = c.getText("http", "files_url", h.url);
    h.caFile = c.getText("http", "ca_file", "");
    h.insecure = c.getBool("http", "insecure", h.insecure, problems);
    h.batchSize =
        static_cast<size_t>(c.getNumber("http", "batch_size", 1, 10000, static_cast<long>(h.batchSize), problems));
    h.batchBytes = static_cast<size_t>(
        c.getNumber("http", "batch_bytes", 1024, 64L << 20, static_cast<long>(h.batchBytes), problems));
    h.timeoutMs = c.getNumber("http", "timeout_ms", 100, 600000, h.timeoutMs, problems);
    h.retry = readRetry(c, "http", problems);
    auto httpUrl = [](const std::string& u) { return u.rfind("http://", 0) == 0 || u.rfind("https://", 0) == 0; };
    if (h.enabled && (!httpUrl(h.url) || !httpUrl(h.filesUrl))) {
        problems.push_back("[http] url (and files_url) must start with http:// or https://, not '" + h.url +
                           "'; the http sink is off");
        h.enabled = false;
    }

    NatsSinkSettings& n = s.nats;
    n.enabled = c.getBool("nats", "enabled", n.enabled, problems);
    n.url = c.getText("nats", "url", n.url);
    n.subjectPrefix = c.getText("nats", "subject_prefix", n.subjectPrefix);
    n.stream = c.getText("nats", "stream", n.stream);
    n.batchSize =
        static_cast<size_t>(c.getNumber("nats", "batch_size", 1, 10000, static_cast<long>(n.batchSize), problems));
    n.timeoutMs = c.getNumber("nats", "timeout_ms", 100, 600000, n.timeoutMs, problems);
    n.retry = readRetry(c, "nats", problems);
    bool streamOk = !n.stream.empty() && n.stream.size() <= 64;
    for (char ch : n.stream) streamOk = streamOk && tokenChar(ch);
    if (n.enabled && (!validNatsUrl(n.url) || !validSubjectPrefix(n.subjectPrefix) || !streamOk)) {
        problems.push_back(
            "[nats] needs url = nats://HOST:PORT, a subject_prefix of dot-separated words and a stream "
            "name of letters, digits, '-' and '_' (have '" +
            n.url + "', '" + n.subjectPrefix + "', '" + n.stream + "'); the nats sink is off");
        n.enabled = false;
    }
    return s;
}

std::vector<std::string> enabledSinks(const ForwardSettings& s) {
    std::vector<std::string> out;
    if (s.file.enabled) out.push_back("file");
    if (s.syslog.enabled) out.push_back("syslog");
    if (s.http.enabled) out.push_back("http");
    if (s.nats.enabled) out.push_back("nats");
    return out;
}

std::vector<std::string> fileSinks(const ForwardSettings& s) {
    std::vector<std::string> out;
    for (const std::string& name : enabledSinks(s)) {
        if (name != "syslog") out.push_back(name);
    }
    return out;
}

}  // namespace wlforward
