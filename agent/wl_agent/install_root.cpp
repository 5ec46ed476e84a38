#include "install_root.h"

#include <unistd.h>

#include <climits>
#include <cstring>
#include <sys/stat.h>

#include <utility>

#include "atomic_file.h"
#include "dirutils.h"

namespace wlagent {
namespace {

bool fileExists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

// Writes content unless the file exists: an operator's edits are kept.
bool writeDefault(const std::string& path, const char* content) {
    if (fileExists(path)) return true;
    return file_write_atomic(path.c_str(), content, std::strlen(content), 0640) == 0;
}

const char kPortFilterDefault[] =
    "; Ports the open-port report leaves out: count, then port_0 .. port_<count-1>.\n"
    "[port]\n"
    "count=0\n";

const char kModelLibraryDefault[] =
    "; Settings of the behaviour-model library.\n"
    "[engine]\n";

const char kAgentConfigDefault[] =
    "; The agent's settings. Each key is shown with its default.\n"
    "[discovery]\n"
    "; Propose and start a model for each application found listening here.\n"
    "; enabled = true\n"
    "; Learning period of a discovered model, in the model library's units (minutes).\n"
    "; learn_minutes = 1440\n"
    "; Executables under these path prefixes, and these ports, are left alone\n"
    "; (comma-separated).\n"
    "; exclude_paths =\n"
    "; exclude_ports =\n"
    "\n"
    "[children]\n"
    "; The collector and the forwarder are restarted when they end, after a delay\n"
    "; that doubles from 1 s up to this many seconds (1 to 3600); a run of 60 s\n"
    "; brings it back to 1 s.\n"
    "; restart_max_seconds = 60\n"
    "\n"
    "[metrics]\n"
    "; Serve /healthz and Prometheus /metrics at ADDRESS:PORT, e.g. 127.0.0.1:9464.\n"
    "; Loopback only (127.0.0.1, any 127.x address, or [::1]); empty: off.\n"
    "; listen =\n"
    "\n"
    "[spool]\n"
    "; Reports to the manager are kept in var/spool/manager/reports.jsonl (one\n"
    "; envelope a line), rotated to reports.jsonl.1, .2, ... (higher is older).\n"
    "; Size at which the live file is rotated, in bytes (4096 to 67108864).\n"
    "; max_file_bytes = 4194304\n"
    "; Bound of all report files together; the oldest go first, and reports a\n"
    "; sink had not yet sent are counted as dropped (at least 2 x max_file_bytes).\n"
    "; max_total_bytes = 67108864\n"
    "; Sync each report to disk before the module's upload returns.\n"
    "; sync = true\n"
    "; Bound of the origin-log copies under var/spool/uploads/, in bytes.\n"
    "; max_upload_bytes = 268435456\n"
    "\n"
    "; Sinks: wl-forward delivers the spool to each one that is enabled, at\n"
    "; least once, each at its own pace. Every sink section also takes\n"
    "; retry_initial_ms = 1000 and retry_max_ms = 60000 (back-off after a failure).\n"
    "[file]\n"
    "; enabled = true\n"
    "; A copy of each report, rotated to <path>.1 at max_bytes.\n"
    "; path = var/log/agent/manager/reports.jsonl\n"
    "; max_bytes = 67108864\n"
    "; Origin-log files are copied to <files_dir>/kind<N>/.\n"
    "; files_dir = var/log/agent/manager/uploads\n"
    "\n"
    "[syslog]\n"
    "; RFC 5424 messages to a local Unix datagram socket (owned by root).\n"
    "; enabled = false\n"
    "; socket = /dev/log\n"
    "; facility = local0\n"
    "; app_name = wl-agent\n"
    "; Larger reports are refused by this sink and counted as dropped.\n"
    "; max_message_bytes = 65536\n"
    "\n"
    "[http]\n"
    "; Reports POSTed in batches as application/x-ndjson; origin-log files one a\n"
    "; POST (application/octet-stream) to files_url.\n"
    "; enabled = false\n"
    "; url =\n"
    "; files_url = (the url)\n"
    "; batch_size = 100\n"
    "; batch_bytes = 1048576\n"
    "; timeout_ms = 10000\n"
    "; CA certificates to verify the server with (default: the system's).\n"
    "; ca_file =\n"
    "; insecure = false\n"
    "\n"
    "[nats]\n"
    "; NATS JetStream: subject <subject_prefix>.<host_uuid>.<type>; origin-log\n"
    "; files on <subject_prefix>.<host_uuid>.upload.kind<N>. The stream is\n"
    "; created (subjects <subject_prefix>.>) when missing.\n"
    "; enabled = false\n"
    "; url = nats://127.0.0.1:4222\n"
    "; subject_prefix = wl\n"
    "; stream = WL_REPORTS\n"
    "; batch_size = 100\n"
    "; timeout_ms = 5000\n";

}  // namespace

// A packaged install keeps its settings under /etc (its config/ links there);
// a build tree keeps them in its own config/.
const char kPackagedRoot[] = "/opt/wl-agent";
const char kPackagedConfig[] = "/etc/wl-agent/agent.conf";

std::string agentConfigPath(const std::string& root) {
    char real[PATH_MAX];
    if (::realpath(root.c_str(), real) && std::strcmp(real, kPackagedRoot) == 0) return kPackagedConfig;
    return root + "/config/agent.conf";
}

std::string writeDefaultConfig(const std::string& dir) {
    if (dirutils_mkdir(dir.c_str(), 0755) != 0) return "cannot create " + dir;
    const std::pair<const char*, const char*> files[] = {{"/whitelist_port.cfg", kPortFilterDefault},
                                                         {"/baseConfig.ini", kModelLibraryDefault},
                                                         {"/agent.conf", kAgentConfigDefault}};
    for (const auto& file : files) {
        if (!writeDefault(dir + file.first, file.second)) return "cannot write " + dir + file.first;
    }
    return "";
}

std::string defaultInstallRoot() {
    char exe[PATH_MAX] = {0};
    ssize_t n = ::readlink("/proc/self/exe", exe, sizeof exe - 1);
    if (n <= 0) return ".";
    std::string path(exe, static_cast<size_t>(n));
    auto binDir = path.substr(0, path.rfind('/'));
    return binDir.substr(0, binDir.rfind('/'));
}

std::string moduleDir(const std::string& root) { return root + "/lib"; }
std::string modulePath(const std::string& root) { return moduleDir(root) + "/libwhitelist.so"; }

std::string layOutInstallRoot(const std::string& root) {
    if (!fileExists(modulePath(root))) return "no module at " + modulePath(root);
    // Probes running as an application's user reach their socket under var/run.
    for (const char* dir : {"/config", "/var/run", "/vr_agent"}) {
        if (dirutils_mkdir((root + dir).c_str(), 0755) != 0) return "cannot create " + root + dir;
    }
    // Logs, models, origin logs and reports hold what applications did: root
    // and the agent's group only, also when an older install made them wider.
    for (const char* dir : {"/var/log", "/var/log/agent", "/var/base", "/var/asset", "/var/spool", "/var/spool/manager",
                            "/var/spool/uploads"}) {
        if (dirutils_mkdir((root + dir).c_str(), 0750) != 0 || ::chmod((root + dir).c_str(), 0750) != 0)
            return "cannot create " + root + dir;
    }
    return writeDefaultConfig(root + "/config");
}

}  // namespace wlagent
