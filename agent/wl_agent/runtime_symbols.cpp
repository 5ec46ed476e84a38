#include "runtime_symbols.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <ctime>

#include "host_state_utils.h"

namespace {
wlagent::ReportSpool* g_spool = nullptr;
const wlagent::HostIdentity* g_identity = nullptr;
wlagent::ReportLedger* g_ledger = nullptr;
std::atomic<uint64_t> g_sequence{0};
}  // namespace

extern "C" {

// The agent's module switches: 16-bit words, the global switch at byte 12 and
// the white-list module's at byte 32.
__attribute__((aligned(8))) unsigned char g_ms_conf[64];

int _upload2mgr(int channel, const char* text, int length, int mode) {
    (void)channel;
    (void)mode;
    int result = g_spool ? g_spool->add(text, length) : -1;
    if (g_ledger && text && length > 0) {
        std::string envelope(text, static_cast<size_t>(length));
        if (result >= 0) {
            g_ledger->record(envelope, std::time(nullptr));
        } else {
            g_ledger->recordLost(envelope);
        }
    }
    return result;
}

int get_log_ctm_header_util_v2(log_ctm_header* header) {
    if (!header || !g_identity) return -1;
    std::memset(header, 0, sizeof *header);
    header->seq = ++g_sequence;
    std::string now = wlagent::currentTimeText();
    std::strncpy(header->send_time, now.c_str(), sizeof header->send_time - 1);
    header->host_uuid = g_identity->uuid.c_str();
    header->host_ip = g_identity->hostIp.c_str();
    header->ip_list = g_identity->ipList.c_str();
    return 0;
}

int _add_upload_file(int kind, const char* path) { return g_spool ? g_spool->addFile(kind, path) : -1; }
}

namespace wlagent {

void bindRuntimeSymbols(ReportSpool* spool, const HostIdentity* identity) {
    g_spool = spool;
    g_identity = identity;
}

void bindReportLedger(ReportLedger* ledger) { g_ledger = ledger; }

uint64_t startSequence(uint64_t highestSeen) {
    uint64_t now = static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count());
    uint64_t first = std::max(now, highestSeen + 1);
    g_sequence = first - 1;  // the header takes ++g_sequence
    return first;
}

bool moduleSwitchOn() {
    uint16_t on = 0, module = 0;
    std::memcpy(&on, g_ms_conf + 12, sizeof on);
    std::memcpy(&module, g_ms_conf + 32, sizeof module);
    // Off only when switching is in force and the module's word is 0.
    return !(on != 0 && module == 0);
}

void setModuleSwitch(bool switchingOn, bool whiteListOn) {
    uint16_t on = switchingOn ? 1 : 0;
    uint16_t module = whiteListOn ? 1 : 0;
    std::memcpy(g_ms_conf + 12, &on, sizeof on);
    std::memcpy(g_ms_conf + 32, &module, sizeof module);
}

}  // namespace wlagent
