// Turns RECORD frames into the action_collector_msg the module reads and
// hands them to its transmit_action_data, found in the process at run time.
// One per connection, used by its reader thread only.
#ifndef VRCCL_RECORD_DELIVERY_H
#define VRCCL_RECORD_DELIVERY_H

#include <cstdint>
#include <string>
#include <vector>

#include "counters.h"
#include "vrccl_action.h"
#include "vrccl_wire.h"

namespace vrccl {

class RecordDelivery {
public:
    using Receiver = void (*)(const action_collector_msg*);

    // Looks the receiver up by name; a missing one is logged here, once.
    RecordDelivery(Counters& counters, const std::string& symbol);

    // Room for size bytes of payload, to read the record into in place.
    unsigned char* payloadFor(uint32_t size);
    // False when the sequence number goes backwards (a broken stream).
    bool deliver(const vrccl_record_head& head);
    // This connection's counts, for the log.
    std::string summary() const;

private:
    Counters& m_counters;
    Receiver m_receiver = nullptr;
    bool m_warnedGap = false;
    uint64_t m_expected = 1;
    uint64_t m_delivered = 0;
    uint64_t m_lost = 0;
    uint64_t m_undeliverable = 0;
    std::vector<unsigned char> m_message;  // reused: at most one body's size
};

}  // namespace vrccl

#endif
