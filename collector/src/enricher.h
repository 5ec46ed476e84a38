// Turns what a back-end saw into a full record: the actor's path, command
// line, user and hashes, absolute file paths with their owner, addresses as
// text, the DNS question's name.
#ifndef WLC_ENRICHER_H
#define WLC_ENRICHER_H

#include <optional>
#include <string>

#include "action_record.h"
#include "host_event.h"
#include "process_table.h"

namespace wlc {

class Enricher {
public:
    explicit Enricher(ProcessTable& processes) : m_processes(processes) {}

    // Nothing for bookkeeping events (fork, exit) and for a DNS payload that
    // is no query; those update the process table or are counted by the
    // caller.
    std::optional<ActionRecord> enrich(const HostEvent& event);

    uint64_t unparsableDns() const { return m_unparsableDns; }

private:
    std::string absolutePath(const HostEvent& event, const std::string& path);
    void fillFile(const HostEvent& event, ActionRecord& record);
    void fillNet(const HostEvent& event, ActionRecord& record);

    ProcessTable& m_processes;
    uint64_t m_unparsableDns = 0;
};

// An address as the record writes it: dotted IPv4, an IPv4-mapped IPv6
// address as IPv4, other IPv6 in its usual text.
std::string addressText(uint8_t family, const std::array<uint8_t, 16>& address);
// A path with "." and ".." segments and repeated slashes resolved lexically.
std::string normalisePath(const std::string& path);

}  // namespace wlc

#endif
