#include "bus_test_support.h"

#include "whitelist.h"

// The host area, which owns this event, isn't linked into the bus tests.
extern "C" {
orv_event_t g_vr_event = nullptr;
}

std::size_t baseQueued() {
    orv_mutex_lock(&g_baseDataLock);
    const std::size_t size = g_baseData.size();
    orv_mutex_unlock(&g_baseDataLock);
    return size;
}

std::size_t raspQueued() {
    orv_mutex_lock(&g_raspDataLock);
    const std::size_t size = g_raspData.size();
    orv_mutex_unlock(&g_raspDataLock);
    return size;
}

std::vector<std::string> raspTexts() {
    orv_mutex_lock(&g_raspDataLock);
    std::vector<std::string> texts(g_raspData.begin(), g_raspData.end());
    orv_mutex_unlock(&g_raspDataLock);
    return texts;
}

_BASE_EVENTINFO lastBaseRecord() {
    _BASE_EVENTINFO record;
    std::memset(&record, 0, sizeof(record));
    orv_mutex_lock(&g_baseDataLock);
    if (!g_baseData.empty()) {
        record = g_baseData.back();
    }
    orv_mutex_unlock(&g_baseDataLock);
    return record;
}

std::string narrow(const wchar_t* text) {
    std::string out;
    for (; *text != 0; ++text) {
        out.push_back(static_cast<char>(*text & 0xff));
    }
    return out;
}

namespace {
void copyText(char* target, std::size_t capacity, const char* text) {
    std::strncpy(target, text, capacity - 1);
}
}  // namespace

std::vector<unsigned char> processRecord(const char* eventName, int32_t pid, const char* path) {
    std::vector<unsigned char> bytes(sizeof(process_event_info), 0);
    process_event_info* record = reinterpret_cast<process_event_info*>(bytes.data());
    copyText(record->event_name, sizeof(record->event_name), eventName);
    record->event_time = 1700000000123ull;
    record->process_id = pid;
    copyText(record->process_path, sizeof(record->process_path), path);
    return bytes;
}

std::vector<unsigned char> fileRecord(const char* eventName, const char* filePath) {
    std::vector<unsigned char> bytes(sizeof(file_event_info), 0);
    file_event_info* record = reinterpret_cast<file_event_info*>(bytes.data());
    copyText(record->event_name, sizeof(record->event_name), eventName);
    record->event_time = 1700000000456ull;
    copyText(record->file_path, sizeof(record->file_path), filePath);
    return bytes;
}

std::vector<unsigned char> netRecord(const char* eventName, const char* dstIp, uint16_t dstPort) {
    std::vector<unsigned char> bytes(sizeof(net_event_info), 0);
    net_event_info* record = reinterpret_cast<net_event_info*>(bytes.data());
    copyText(record->event_name, sizeof(record->event_name), eventName);
    record->event_time = 1700000000789ull;
    copyText(record->tail.connect.dst_ip, sizeof(record->tail.connect.dst_ip), dstIp);
    record->tail.connect.dst_port = dstPort;
    return bytes;
}

std::vector<unsigned char> collectorMessage(int type, const std::vector<unsigned char>& payload) {
    std::vector<unsigned char> bytes(offsetof(action_collector_msg, payload) + payload.size() + 1, 0);
    action_collector_msg* msg = reinterpret_cast<action_collector_msg*>(bytes.data());
    msg->type = type;
    msg->size = static_cast<uint32_t>(payload.size());
    if (!payload.empty()) {
        std::memcpy(bytes.data() + offsetof(action_collector_msg, payload), payload.data(), payload.size());
    }
    return bytes;
}
