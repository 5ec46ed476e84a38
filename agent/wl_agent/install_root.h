// The agent's install root: lib/ holds the module and the agent's libraries,
// agent_plugins/ the bus and telemetry plug-ins, config/ and var/ the rest.
// The module's "@" is <root>/lib.
#ifndef WL_AGENT_INSTALL_ROOT_H
#define WL_AGENT_INSTALL_ROOT_H

#include <string>

namespace wlagent {

// The root this executable was built into: the parent of its bin/ directory.
std::string defaultInstallRoot();

// Creates the directories (vr_agent/ too: the sibling collector's home,
// whose processes the open-port report leaves out) and the default
// configuration files that are
// missing, and checks that the module is there. Returns an empty string on
// success, else what is wrong.
std::string layOutInstallRoot(const std::string& root);

std::string modulePath(const std::string& root);
// The agent's own settings (INI): <root>/config/agent.conf in a build tree,
// /etc/wl-agent/agent.conf when root is the packaged /opt/wl-agent.
std::string agentConfigPath(const std::string& root);
// Writes the default configuration files (agent.conf, whitelist_port.cfg,
// baseConfig.ini) that are missing from dir; the package takes its
// /etc/wl-agent from here. Returns an empty string or what is wrong.
std::string writeDefaultConfig(const std::string& dir);
std::string moduleDir(const std::string& root);

}  // namespace wlagent

#endif
