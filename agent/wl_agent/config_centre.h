// The agent's config centre, endpoint "acfg": answers the modules' requests
// for their switch (command 1004) and tells the module to ask again (1002)
// when the operator flips it.
#ifndef WL_AGENT_CONFIG_CENTRE_H
#define WL_AGENT_CONFIG_CENTRE_H

#include <string>

#include "kem_ipc.h"

namespace wlagent {

constexpr unsigned kCfgRequestCmd = 1004;
constexpr unsigned kCfgNotifyCmd = 1002;

// The reply text for the white-list module's switch.
std::string switchReply(bool on);

class ConfigCentre {
public:
    explicit ConfigCentre(bool whiteListOn) : m_on(whiteListOn) {}
    ~ConfigCentre();
    ConfigCentre(const ConfigCentre&) = delete;
    ConfigCentre& operator=(const ConfigCentre&) = delete;

    // Opens the endpoint on the calling thread, whose loop must be pumped.
    std::string start();
    // Flips the switch and notifies the module.
    void setSwitch(bool on);
    bool isOn() const { return m_on; }

private:
    static void onMessage(unsigned long ctx1, unsigned long ctx2, unsigned int cmd, const void* data, unsigned int size,
                          void* user);
    bool m_on;
    kem_ipc_t m_ipc = nullptr;
    kem_addr_t m_module = nullptr;
};

}  // namespace wlagent

#endif
