#include "config_centre.h"

#include <cstdio>

namespace wlagent {
namespace {

void ignoreReply(int status, unsigned int, const void*, unsigned int) {
    if (status < 0) std::fprintf(stderr, "wl-agent: the module did not take the switch notification (%d)\n", status);
}

}  // namespace

std::string switchReply(bool on) {
    return std::string("[{\"module_type\":\"white_list_module\",\"switch_status\":") + (on ? "1" : "0") + "}]";
}

ConfigCentre::~ConfigCentre() {
    if (m_module) kem_addr_destroy(m_module);
    if (m_ipc) kem_ipc_destroy(m_ipc);
}

std::string ConfigCentre::start() {
    m_ipc = kem_ipc_create("acfg", 0);
    if (!m_ipc) return "cannot open the config centre endpoint \"acfg\"";
    if (kem_ipc_msg_recv(m_ipc, &ConfigCentre::onMessage, this) != 0) return "cannot receive on \"acfg\"";
    m_module = kem_addr_create("wl_hdl", 1, 2);
    return m_module ? "" : "cannot address the module endpoint \"wl_hdl\"";
}

void ConfigCentre::setSwitch(bool on) {
    m_on = on;
    static const char kPrompt[] = "module_switch";
    kem_ipc_make_request(m_ipc, m_module, kCfgNotifyCmd, kPrompt, sizeof kPrompt - 1, ignoreReply, nullptr, 10);
}

void ConfigCentre::onMessage(unsigned long ctx1, unsigned long ctx2, unsigned int cmd, const void*, unsigned int,
                             void* user) {
    auto* self = static_cast<ConfigCentre*>(user);
    if (cmd != kCfgRequestCmd) return;
    std::string reply = switchReply(self->m_on);
    kem_ipc_response(ctx1, ctx2, cmd, 0, reply.data(), static_cast<unsigned>(reply.size()));
}

}  // namespace wlagent
