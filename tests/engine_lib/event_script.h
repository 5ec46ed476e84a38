// Events in a one-line notation, so that tables of cases stay short:
//   host:  "process <path> <command line>", "file <path>", "rename <path>", "dns <name> <answer>",
//          "connect <address> <port> <protocol> <source port>",
//          "listen <port> <protocol>"
//   runtime application: "<action> <subject>", the action by its name
//          (dns, execute, write, read, delete, hsql, mysql, oracle, postgre,
//          sqlserver), "address <host> <port>", or "destination <url> <port>"
//          for an address event that names no host
#ifndef ENGINE_LIB_EVENT_SCRIPT_H
#define ENGINE_LIB_EVENT_SCRIPT_H

#include <cstring>
#include <string>
#include <vector>

#include "engine_test_support.h"

namespace enginetest {

const unsigned long long kScriptPid = 4242;

inline std::string restAfter(const std::string& line, std::size_t words) {
    std::size_t at = 0;
    for (std::size_t i = 0; i < words && at != std::string::npos; ++i) {
        at = line.find(' ', at);
        if (at != std::string::npos) ++at;
    }
    return at == std::string::npos ? std::string() : line.substr(at);
}
inline std::string wordAt(const std::string& line, std::size_t index) {
    std::string rest = restAfter(line, index);
    return rest.substr(0, rest.find(' '));
}
inline unsigned numberAt(const std::string& line, std::size_t index) {
    return static_cast<unsigned>(std::strtoul(wordAt(line, index).c_str(), nullptr, 10));
}

inline BaseEvent hostLine(const std::string& line, unsigned long long pid = kScriptPid) {
    const std::string kind = wordAt(line, 0);
    if (kind == "process") {
        auto event = hostEvent(1, pid, Subject(wordAt(line, 1)));
        setText(event->detail.process.process_cmd_line, restAfter(line, 2));
        return event;
    }
    if (kind == "file" || kind == "rename") return hostEvent(kind == "file" ? 7 : 9, pid, Subject(restAfter(line, 1)));
    if (kind == "dns") {
        auto event = hostEvent(16, pid, Subject(wordAt(line, 1)));
        setText(event->detail.dns.query_result, restAfter(line, 2));
        return event;
    }
    if (kind == "connect") {
        auto event = hostEvent(15, pid, Subject(wordAt(line, 1), numberAt(line, 2), wordAt(line, 3)));
        event->detail.connect.src_port = numberAt(line, 4);
        return event;
    }
    if (kind == "listen") return hostEvent(17, pid, Subject("", numberAt(line, 1), wordAt(line, 2)));
    throw std::invalid_argument("no host event: " + line);
}

inline std::unique_ptr<_RASP_EVENTINFO> raspLine(const std::string& line, unsigned long long pid = kScriptPid) {
    static const char* const kActions[] = {"dns",  "address", "execute", "write",   "read",     "delete",
                                           "hsql", "mysql",   "oracle",  "postgre", "sqlserver"};
    const std::string action = wordAt(line, 0);
    if (action == "destination") {
        auto event = raspEvent(pid, 1, "");
        event->dst_ip = wordAt(line, 1);
        event->port = wordAt(line, 2);
        return event;
    }
    for (unsigned short type = 0; type < 11; ++type) {
        if (action != kActions[type]) continue;
        if (type == 1) {
            auto event = raspEvent(pid, type, wordAt(line, 1));
            event->port = wordAt(line, 2);
            return event;
        }
        return raspEvent(pid, type, restAfter(line, 1));
    }
    throw std::invalid_argument("no runtime-application event: " + line);
}

// An engine of either stream with one model, "shop", owning kScriptPid.
template <class Interface>
std::unique_ptr<Interface> makeEngine();
template <>
inline std::unique_ptr<BaseInterface> makeEngine<BaseInterface>() {
    return makeBaseEngine();
}
template <>
inline std::unique_ptr<RaspInterface> makeEngine<RaspInterface>() {
    return std::unique_ptr<RaspInterface>(RaspFactory().getRaspInterface());
}

inline BaseEvent eventOf(BaseInterface*, const std::string& line) { return hostLine(line); }
inline std::unique_ptr<_RASP_EVENTINFO> eventOf(RaspInterface*, const std::string& line) { return raspLine(line); }

// The module's way with an event: a host event that asks for a second
// chance comes back once. True when it ends black.
inline bool judgedBlack(BaseInterface& engine, _BASE_EVENTINFO& event) {
    engine.processEvent(event);
    if (event.match_verdict != 0 && event.delay_gate <= 1 && period(event) == "FILTER_PEROID") {
        engine.processEvent(event);
    }
    return event.match_verdict == 0;
}
inline bool judgedBlack(RaspInterface& engine, _RASP_EVENTINFO& event) {
    engine.processEvent(event);
    return event.match_verdict == 0;
}

template <class Interface>
std::unique_ptr<Interface> startedEngine(unsigned short learnMinutes) {
    auto engine = makeEngine<Interface>();
    if (!engine->initModel(startCommand("shop", learnMinutes, "/usr/sbin/shopd", {kScriptPid}).get())) {
        throw std::runtime_error("initModel failed");
    }
    return engine;
}

template <class Interface>
void feed(Interface& engine, const std::vector<std::string>& lines) {
    for (const std::string& line : lines) engine.processEvent(*eventOf(&engine, line));
}

}  // namespace enginetest

#endif
