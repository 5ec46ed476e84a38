// wlctl: the operator's tool for a white-list module run by wl-agent.
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "collector_client.h"
#include "collector_status.h"
#include "task_client.h"

namespace {

void usage() {
    std::printf(
        "usage: wlctl [--root DIR] COMMAND ...\n"
        "  push JSON|-                      send one raw JSON command (- reads standard input)\n"
        "  start NAME PATH PORTS STUDY      start learning a model (PORTS: 80,443; STUDY: learning period)\n"
        "  query NAME...                    ask for the models' data and status\n"
        "  relearn STUDY NAME...            learn afresh for STUDY\n"
        "  study STUDY NAME...              change the learning period\n"
        "  switch on|off NAME...            switch models on or off\n"
        "  delete NAME...                   delete models (a name matches as a prefix)\n"
        "  upload-logs                      hand the origin logs to the upload service\n"
        "  telemetry JSON                   send one runtime-application telemetry line\n"
        "  collector [--json]               the action collector's back-end, watched pids and counters\n"
        "Add --rasp before start/query/relearn/study/switch/delete/upload-logs for the\n"
        "runtime-application engine. The root defaults to the tree wlctl was built into.\n");
}

std::string defaultRoot() {
    char exe[PATH_MAX] = {0};
    ssize_t n = ::readlink("/proc/self/exe", exe, sizeof exe - 1);
    if (n <= 0) return ".";
    std::string path(exe, static_cast<size_t>(n));
    auto bin = path.substr(0, path.rfind('/'));
    return bin.substr(0, bin.rfind('/'));
}

std::string quote(const std::string& s) {
    std::string out = "\"";
    for (char c : s) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out + "\"";
}

std::string nameList(const std::vector<std::string>& names) {
    std::string out = "[";
    for (size_t i = 0; i < names.size(); ++i) out += (i ? "," : "") + quote(names[i]);
    return out + "]";
}

std::string command(int opr, const std::string& data) {
    return "{\"opr_code\":" + std::to_string(opr) + ",\"data\":" + data + "}";
}

int showCollector(const std::string& root, bool json) {
    const std::string socket = root + "/var/run/vrccl.sock";
    wlctl::CollectorReply reply = wlctl::queryCollector(socket, 3000);
    if (!reply.error.empty()) {
        std::fprintf(stderr, "wlctl: %s\n", reply.error.c_str());
        return 1;
    }
    if (json) {
        std::printf("%s\n", reply.statusJson.c_str());
        return 0;
    }
    std::string text;
    bool readable = wlctl::formatCollectorStatus(reply, text);
    std::fprintf(readable ? stdout : stderr, readable ? "%s" : "wlctl: %s\n", text.c_str());
    return readable ? 0 : 1;
}

bool isNumber(const std::string& s) { return !s.empty() && s.find_first_not_of("0123456789") == std::string::npos; }

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    std::string root = defaultRoot();
    int rasp = 0;
    while (!args.empty() && (args[0] == "--root" || args[0] == "--rasp")) {
        if (args[0] == "--rasp") {
            rasp = 100;
            args.erase(args.begin());
            continue;
        }
        if (args.size() < 2) {
            usage();
            return 2;
        }
        root = args[1];
        args.erase(args.begin(), args.begin() + 2);
    }
    if (args.empty() || args[0] == "-h" || args[0] == "--help") {
        usage();
        return args.empty() ? 2 : 0;
    }
    const std::string verb = args[0];
    std::vector<std::string> rest(args.begin() + 1, args.end());
    std::string json;

    if (verb == "collector") {
        if (rest.size() > 1 || (rest.size() == 1 && rest[0] != "--json")) {
            usage();
            return 2;
        }
        return showCollector(root, !rest.empty());
    } else if (verb == "telemetry") {
        if (rest.size() != 1) {
            usage();
            return 2;
        }
        std::string error = wlctl::sendTelemetry(root + "/var/run/rasp_telemetry.sock", rest[0]);
        if (!error.empty()) {
            std::fprintf(stderr, "wlctl: %s\n", error.c_str());
            return 1;
        }
        std::printf("telemetry sent\n");
        return 0;
    } else if (verb == "push" && rest.size() == 1) {
        json = rest[0];
        if (json == "-") json.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    } else if (verb == "start" && rest.size() == 4 && isNumber(rest[3])) {
        std::string ports = "[" + rest[2] + "]";
        json = command(1 + rasp, "{\"list\":[{\"model_name\":" + quote(rest[0]) + ",\"app_name\":" + quote(rest[0]) +
                                     ",\"process_path\":" + quote(rest[1]) + ",\"study_times\":" + rest[3] +
                                     ",\"alarm\":true,\"port\":" + ports + "}]}");
    } else if (verb == "query" && !rest.empty()) {
        json = command(2 + rasp, "{\"list\":" + nameList(rest) + "}");
    } else if ((verb == "relearn" || verb == "study") && rest.size() >= 2 && isNumber(rest[0])) {
        std::vector<std::string> names(rest.begin() + 1, rest.end());
        json = command(3 + rasp, "{\"study_time\":" + rest[0] + ",\"re_study\":" +
                                     (verb == "relearn" ? "true" : "false") + ",\"list\":" + nameList(names) + "}");
    } else if (verb == "switch" && rest.size() >= 2 && (rest[0] == "on" || rest[0] == "off")) {
        std::vector<std::string> names(rest.begin() + 1, rest.end());
        json = command(4 + rasp, std::string("{\"model_switch\":") + (rest[0] == "on" ? "true" : "false") +
                                     ",\"list\":" + nameList(names) + "}");
    } else if (verb == "delete" && !rest.empty()) {
        json = command(6 + rasp, "{\"list\":" + nameList(rest) + "}");
    } else if (verb == "upload-logs" && rest.empty()) {
        json = command(5 + rasp, "{}");
    } else {
        usage();
        return 2;
    }

    wlctl::PushResult result = wlctl::pushTask(root + "/var/run/task_push.sock", "WL_HDL", json, 30);
    if (!result.delivered) {
        std::fprintf(stderr, "wlctl: %s\n", result.error.c_str());
        return 1;
    }
    std::printf("result 0x%08x (%s)\n", result.code, wlctl::describeCode(result.code).c_str());
    return result.code == 0 ? 0 : 1;
}
