#include "record_delivery.h"

#include <dlfcn.h>

#include <algorithm>
#include <cinttypes>
#include <cstddef>
#include <cstring>

#include "vrccl_log.h"

namespace vrccl {
namespace {
constexpr std::size_t kPayloadOffset = offsetof(action_collector_msg, payload);
}

RecordDelivery::RecordDelivery(Counters& counters, const std::string& symbol) : m_counters(counters) {
    // The module defines it and is loaded before it connects us.
    m_receiver = reinterpret_cast<Receiver>(::dlsym(RTLD_DEFAULT, symbol.c_str()));
    if (m_receiver == nullptr) {
        VRCCL_LOG(LOG_LVL_ERROR, "no %s in this process: collector records will be counted as dropped", symbol.c_str());
    }
}

unsigned char* RecordDelivery::payloadFor(uint32_t size) {
    std::size_t need = std::max(sizeof(action_collector_msg), kPayloadOffset + size);
    // Zero-filled on growth, and only type and size are written after:
    // the head and the reserved words stay zero.
    if (m_message.size() < need) m_message.resize(need);
    return m_message.data() + kPayloadOffset;
}

bool RecordDelivery::deliver(const vrccl_record_head& head) {
    if (head.sequence < m_expected) {
        VRCCL_LOG(LOG_LVL_ERROR, "record sequence went back from %" PRIu64 " to %" PRIu64, m_expected - 1,
                  static_cast<uint64_t>(head.sequence));
        return false;
    }
    if (head.sequence > m_expected) {
        uint64_t missing = head.sequence - m_expected;
        m_counters.lost += missing;
        m_lost += missing;
        if (!m_warnedGap) {
            m_warnedGap = true;  // the total is logged when the connection ends
            VRCCL_LOG(LOG_LVL_WARN, "%" PRIu64 " collector records lost before record %" PRIu64, missing,
                      static_cast<uint64_t>(head.sequence));
        }
    }
    m_expected = head.sequence + 1;
    if (m_receiver == nullptr) {
        ++m_counters.undeliverable;
        ++m_undeliverable;
        return true;
    }
    auto* msg = reinterpret_cast<action_collector_msg*>(m_message.data());
    msg->type = static_cast<int32_t>(head.sub_type);
    msg->size = head.size;
    m_receiver(msg);
    ++m_counters.delivered;
    ++m_delivered;
    return true;
}

std::string RecordDelivery::summary() const {
    return std::to_string(m_delivered) + " records delivered, " + std::to_string(m_lost) + " lost by the collector, " +
           std::to_string(m_undeliverable) + " dropped without a receiver";
}

}  // namespace vrccl
