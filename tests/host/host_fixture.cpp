#include "host_fixture.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "agent_symbols.h"
#include "config.h"
#include "dirutils.h"
#include "whitelist.h"
#include "whitelist_upload.h"
#include "wl_clock.h"

namespace {
void clear_context() {
    whitelist_unload_config(&g_whitelist_context);
    std::memset(&g_whitelist_context, 0, sizeof g_whitelist_context);
    g_vr_event = nullptr;
}
}  // namespace

void HostTest::SetUp() {
    std::filesystem::create_directories(m_root + "/config");
    writePortConfig("[port]\ncount=0\n");
    host_doubles::reset();
    agent_symbols::reset();
    clear_context();
    m_log.clear();
}

void HostTest::TearDown() {
    host_doubles::reset();
    clear_context();
    whitelist_uninit_upload_lock();
    wl_clock_reset();
}

void HostTest::writePortConfig(const std::string& body) {
    std::ofstream(m_root + "/config/whitelist_port.cfg") << body;
}

std::vector<int> HostTest::filteredPorts() const {
    std::vector<int> ports;
    const wl_list_head* head = &g_whitelist_context.port_filter_list;
    for (const wl_list_head* link = head->next; link != nullptr && link != head; link = link->next) {
        ports.push_back(reinterpret_cast<const port_filter_node*>(link)->port);
    }
    return ports;
}
