#include "bus_test_support.h"

#include <algorithm>
#include <cstddef>

#include "whitelist.h"

// The host area, which owns this event, isn't linked into the bus tests.
extern "C" {
orv_event_t g_vr_event = nullptr;
}

void QueueReset::clear() {
    orv_mutex_lock(&g_baseDataLock);
    g_baseData.clear();
    orv_mutex_unlock(&g_baseDataLock);
    orv_mutex_lock(&g_raspDataLock);
    g_raspData.clear();
    orv_mutex_unlock(&g_raspDataLock);
}

std::vector<_BASE_EVENTINFO> baseRecords() {
    orv_mutex_lock(&g_baseDataLock);
    std::vector<_BASE_EVENTINFO> records(g_baseData.begin(), g_baseData.end());
    orv_mutex_unlock(&g_baseDataLock);
    return records;
}

std::vector<std::string> raspTexts() {
    orv_mutex_lock(&g_raspDataLock);
    std::vector<std::string> texts(g_raspData.begin(), g_raspData.end());
    orv_mutex_unlock(&g_raspDataLock);
    return texts;
}

namespace {
template <typename Record>
std::vector<unsigned char> newRecord(const char* eventName, Record*& record) {
    std::vector<unsigned char> bytes(sizeof(Record), 0);
    record = reinterpret_cast<Record*>(bytes.data());
    std::strncpy(record->event_name, eventName, sizeof(record->event_name) - 1);
    record->event_time = 1700000000123ull;
    return bytes;
}
}  // namespace

std::vector<unsigned char> processRecord(const char* eventName, int32_t pid, const char* path) {
    process_event_info* record = nullptr;
    std::vector<unsigned char> bytes = newRecord(eventName, record);
    record->process_id = pid;
    std::strncpy(record->process_path, path, sizeof(record->process_path) - 1);
    return bytes;
}

std::vector<unsigned char> fileRecord(const char* eventName, const char* filePath) {
    file_event_info* record = nullptr;
    std::vector<unsigned char> bytes = newRecord(eventName, record);
    std::strncpy(record->file_path, filePath, sizeof(record->file_path) - 1);
    return bytes;
}

std::vector<unsigned char> collectorMessage(int type, const std::vector<unsigned char>& payload) {
    const std::size_t head = offsetof(action_collector_msg, payload);
    std::vector<unsigned char> bytes(head + payload.size() + 1, 0);
    action_collector_msg* msg = reinterpret_cast<action_collector_msg*>(bytes.data());
    msg->type = type;
    msg->size = static_cast<uint32_t>(payload.size());
    std::copy(payload.begin(), payload.end(), bytes.begin() + static_cast<std::ptrdiff_t>(head));
    return bytes;
}
