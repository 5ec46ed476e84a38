#include "install_root.h"

#include <unistd.h>

#include <climits>
#include <fstream>
#include <sys/stat.h>

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
    std::ofstream out(path);
    out << content;
    return static_cast<bool>(out);
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
    "; exclude_ports =\n";

}  // namespace

std::string agentConfigPath(const std::string& root) { return root + "/config/agent.conf"; }

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
    for (const char* dir : {"/config", "/var/log/agent", "/var/base", "/var/run", "/var/asset", "/var/spool/manager",
                            "/var/spool/uploads", "/vr_agent"}) {
        if (dirutils_mkdir((root + dir).c_str(), 0755) != 0) return "cannot create " + root + dir;
    }
    if (!writeDefault(root + "/config/whitelist_port.cfg", kPortFilterDefault))
        return "cannot write " + root + "/config/whitelist_port.cfg";
    if (!writeDefault(root + "/config/baseConfig.ini", kModelLibraryDefault))
        return "cannot write " + root + "/config/baseConfig.ini";
    if (!writeDefault(agentConfigPath(root), kAgentConfigDefault)) return "cannot write " + agentConfigPath(root);
    return "";
}

}  // namespace wlagent
