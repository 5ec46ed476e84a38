// Builders for the library's inputs, shared by the engine_lib tests.
#ifndef ENGINE_TEST_SUPPORT_H
#define ENGINE_TEST_SUPPORT_H

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "base_interface.h"
#include "temp_dir.h"
#include "transformer.h"

namespace enginetest {

using BaseEvent = std::unique_ptr<_BASE_EVENTINFO>;

inline std::unique_ptr<BaseInterface> makeBaseEngine() {
    return std::unique_ptr<BaseInterface>(BaseFactory().getBaseInterface());
}

// narrow <-> record text, one element per byte.
template <std::size_t N>
void setText(wchar_t (&field)[N], const std::string& text) {
    std::size_t n = text.size() < N - 1 ? text.size() : N - 1;
    for (std::size_t i = 0; i < n; ++i) field[i] = static_cast<wchar_t>(static_cast<signed char>(text[i]));
    field[n] = 0;
}
template <std::size_t N>
std::string getText(const wchar_t (&field)[N]) {
    std::string text;
    for (std::size_t i = 0; i < N && field[i] != 0; ++i) text.push_back(static_cast<char>(field[i] & 0xff));
    return text;
}
inline std::string period(const _BASE_EVENTINFO& event) { return getText(event.model_status); }

inline std::unique_ptr<_USR_INPUT> command(int oprType, const std::string& name, unsigned short learnTime = 0,
                                           unsigned short switchValue = 0) {
    auto input = std::make_unique<_USR_INPUT>();
    input->oprType = oprType;
    input->modelName = name;
    input->learnTime = learnTime;
    input->switchValue = switchValue;
    return input;
}

// oprType 0 with the application at path running as pids.
inline std::unique_ptr<_USR_INPUT> startCommand(const std::string& name, unsigned short learnTime,
                                                const std::string& path, std::vector<unsigned long long> pids) {
    auto input = command(USR_OPR_INIT, name, learnTime);
    input->processMap[path].insert(pids.begin(), pids.end());
    return input;
}

// What a host event is about: a path, host or name, and for the network kinds
// a port and protocol.
struct Subject {
    Subject(std::string text = "", unsigned port = 0, std::string protocol = "")
        : text(std::move(text)), port(port), protocol(std::move(protocol)) {}
    std::string text;
    unsigned port;
    std::string protocol;
};

// A record of eventType acted by pid from /usr/bin/app (the parent for a creation).
inline BaseEvent hostEvent(unsigned eventType, unsigned long long pid, const Subject& subject) {
    auto event = std::make_unique<_BASE_EVENTINFO>();  // value-initialised: all zero
    event->event_type = static_cast<uint16_t>(eventType);
    event->event_time = 1700000000;
    event->process_info.process_id = pid;
    setText(event->process_info.process_path, "/usr/bin/app");
    setText(event->process_info.process_cmd_line, "/usr/bin/app --serve");
    setText(event->process_info.process_user_name, "svc");
    auto& detail = event->detail;
    switch (eventType) {
        case 1:
            detail.process.process_id = pid + 1000;
            setText(detail.process.process_path, subject.text);
            setText(detail.process.process_cmd_line, subject.text + " -c true");
            break;
        case 15:
            detail.connect.dst_port = subject.port;
            detail.connect.src_port = 40000;
            setText(detail.connect.dst_ip, subject.text);
            setText(detail.connect.protocol, subject.protocol);
            break;
        case 16:
            setText(detail.dns.query_name, subject.text);
            setText(detail.dns.query_result, "10.1.1.1");
            break;
        case 17:
            detail.listen.port = subject.port;
            setText(detail.listen.address, "0.0.0.0");
            setText(detail.listen.protocol, subject.protocol);
            break;
        default:
            setText(detail.file.file_name, subject.text);
            setText(detail.file.prev_file_name, eventType == 9 ? subject.text + ".old" : "");
            setText(detail.file.file_permissions, "0644");
    }
    return event;
}
inline BaseEvent fileEvent(unsigned long long pid, const std::string& file) { return hostEvent(6, pid, file); }

// Each host event kind with a feature to learn and a neighbour never seen.
struct EventKind {
    const char* label;
    unsigned type;
    Subject learned;
    Subject unknown;
};
inline const EventKind kEventKinds[] = {
    {"process", 1, {"/bin/sh"}, {"/bin/nc"}},
    {"file_create", 6, {"/var/shop/cache"}, {"/etc/passwd"}},
    {"file_rename", 9, {"/var/shop/tmp"}, {"/var/shop/tmp2"}},
    {"connect", 15, {"10.0.0.7", 5432, "tcp"}, {"10.0.0.7", 22, "tcp"}},
    {"connect_protocol", 15, {"fe80::1", 53, "udp"}, {"fe80::1", 53, "tcp"}},
    {"dns", 16, {"db.shop.local"}, {"evil.example"}},
    {"listen", 17, {"", 8080, "udp"}, {"", 4444, "udp"}},
};

// A runtime-application record at the converter's defaults, then the action.
inline std::unique_ptr<_RASP_EVENTINFO> raspEvent(unsigned long long pid, unsigned short actionType,
                                                  const std::string& subject) {
    auto event = std::make_unique<_RASP_EVENTINFO>();
    Transformer().initRaspInfo(*event);
    event->pid = pid;
    event->action_type = actionType;
    event->url = "/shop/cart";
    event->action_data = subject;
    if (actionType == 1) {  // an address is judged by host and port
        event->action_data.clear();
        event->hostName = subject;
        event->port = "8080";
    }
    return event;
}

}  // namespace enginetest

#endif
