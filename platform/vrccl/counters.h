// What the library counts over its lifetime; read by the test hooks and
// summed up in the log when a connection ends.
#ifndef VRCCL_COUNTERS_H
#define VRCCL_COUNTERS_H

#include <atomic>
#include <cstdint>

namespace vrccl {

struct Counters {
    std::atomic<uint64_t> delivered{0};      // handed to transmit_action_data
    std::atomic<uint64_t> undeliverable{0};  // no transmit_action_data in the process
    std::atomic<uint64_t> lost{0};           // sequence numbers that never arrived
    std::atomic<uint64_t> protocolErrors{0};
    std::atomic<uint64_t> drops{0};  // connections that ended unexpectedly
    std::atomic<uint64_t> offlinePublished{0};

    void reset() {
        for (auto* c : {&delivered, &undeliverable, &lost, &protocolErrors, &drops, &offlinePublished}) c->store(0);
    }
};

}  // namespace vrccl

#endif
