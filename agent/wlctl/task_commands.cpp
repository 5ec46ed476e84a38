#include "task_commands.h"

#include <cstdio>
#include <cstdlib>

namespace wlctl {
namespace {

std::string nameList(const std::vector<std::string>& names) {
    std::string out = "[";
    for (size_t i = 0; i < names.size(); ++i) out += (i ? "," : "") + jsonQuote(names[i]);
    return out + "]";
}

std::string command(int opr, const std::string& data) {
    return "{\"opr_code\":" + std::to_string(opr) + ",\"data\":" + data + "}";
}

bool wholeNumber(const std::string& text, unsigned long high, unsigned long& out) {
    if (text.empty() || text.size() > 10 || text.find_first_not_of("0123456789") != std::string::npos) return false;
    out = std::strtoul(text.c_str(), nullptr, 10);
    return out <= high;
}

}  // namespace

std::string jsonQuote(const std::string& text) {
    std::string out = "\"";
    for (unsigned char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
            out += escaped;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

std::string startCommand(bool rasp, const std::string& name, const std::string& path,
                         const std::vector<unsigned>& ports, long studyTime) {
    std::string portList = "[";
    for (size_t i = 0; i < ports.size(); ++i) portList += (i ? "," : "") + std::to_string(ports[i]);
    portList += "]";
    return command(rasp ? 101 : 1, "{\"list\":[{\"model_name\":" + jsonQuote(name) +
                                       ",\"app_name\":" + jsonQuote(name) + ",\"process_path\":" + jsonQuote(path) +
                                       ",\"study_times\":" + std::to_string(studyTime) +
                                       ",\"alarm\":true,\"port\":" + portList + "}]}");
}

std::string queryCommand(bool rasp, const std::vector<std::string>& names) {
    return command(rasp ? 102 : 2, "{\"list\":" + nameList(names) + "}");
}

std::string studyCommand(bool rasp, bool relearn, long studyTime, const std::vector<std::string>& names) {
    return command(rasp ? 103 : 3, "{\"study_time\":" + std::to_string(studyTime) + ",\"re_study\":" +
                                       (relearn ? "true" : "false") + ",\"list\":" + nameList(names) + "}");
}

std::string switchCommand(bool rasp, bool on, const std::vector<std::string>& names) {
    return command(rasp ? 104 : 4,
                   std::string("{\"model_switch\":") + (on ? "true" : "false") + ",\"list\":" + nameList(names) + "}");
}

std::string deleteCommand(bool rasp, const std::vector<std::string>& names) {
    return command(rasp ? 106 : 6, "{\"list\":" + nameList(names) + "}");
}

std::string uploadLogsCommand(bool rasp) { return command(rasp ? 105 : 5, "{}"); }

std::string feedbackCommand(const std::string& alarmJson) { return command(7, "{\"list\":[" + alarmJson + "]}"); }

bool parsePorts(const std::string& text, std::vector<unsigned>& ports) {
    ports.clear();
    size_t start = 0;
    while (start <= text.size()) {
        size_t comma = text.find(',', start);
        std::string item = text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        unsigned long port = 0;
        if (!wholeNumber(item, 65535, port) || port == 0) return false;
        ports.push_back(static_cast<unsigned>(port));
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    return !ports.empty();
}

bool parseStudyTime(const std::string& text, long& out) {
    unsigned long value = 0;
    if (!wholeNumber(text, 65535, value)) return false;
    out = static_cast<long>(value);
    return true;
}

}  // namespace wlctl
