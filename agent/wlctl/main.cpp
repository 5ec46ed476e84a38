// wlctl: the operator's tool for a white-list module run by wl-agent.
#include <unistd.h>

#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include <cjson/cJSON.h>

#include "collector_client.h"
#include "collector_status.h"
#include "control_client.h"
#include "debug_point.h"
#include "exit_codes.h"
#include "render.h"
#include "task_client.h"
#include "task_commands.h"

namespace {

using namespace wlctl;
using Json = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

volatile std::sig_atomic_t g_stop = 0;
void onStop(int) { g_stop = 1; }

void usage(FILE* to) {
    std::fprintf(
        to,
        "usage: wlctl [--root DIR] [--rasp] [--json] [--no-color] COMMAND ...\n"
        "\n"
        "What the agent sees:\n"
        "  status                           agent, module switches, engines, collector, reports, forwarder, drops\n"
        "  models                           each model: period, learning progress, features, alarms\n"
        "  show MODEL                       what the model learned, by kind (asks the module for it first)\n"
        "  alarms [--follow] [--model M] [--kind K] [--since T] [--limit N]\n"
        "                                   alarms with their ids; T: 30s, 10m, 2h, 7d, Unix seconds or\n"
        "                                   \"YYYY-MM-DD[ HH:MM[:SS]]\"; K: process, file, connect, dns, listen,\n"
        "                                   or a runtime action such as execute, read, write, hsql\n"
        "  collector                        the action collector's back-end, watched pids and counters\n"
        "\n"
        "Commands to the module (as the manager sends them):\n"
        "  start NAME PATH PORTS PERIOD     start learning a model (PORTS: 80,443; PERIOD: model library units)\n"
        "  query NAME...                    have the module report the models' data and status\n"
        "  relearn PERIOD NAME...           learn afresh for PERIOD\n"
        "  study PERIOD NAME...             change the learning period\n"
        "  switch on|off NAME...            switch models on or off\n"
        "  delete NAME...                   delete models (a name matches as a prefix in the catalogue)\n"
        "  upload-logs                      hand the origin logs to the upload service\n"
        "  feedback ALARM-ID                teach the alarm's model that this behaviour is normal\n"
        "  module on|off                    switch the module through the config centre\n"
        "  raw [--debug] JSON|-             any JSON to the task channel, or with --debug to the debug\n"
        "                                   point \"wl_dbg\" (- reads standard input)\n"
        "  telemetry JSON                   send one runtime-application telemetry line\n"
        "\n"
        "--rasp selects the runtime-application engine for start, query, relearn, study, switch,\n"
        "delete, upload-logs and show. --json prints the answer as JSON on every command.\n"
        "The root defaults to the tree wlctl is installed in.\n\n%s",
        exitCodeHelp());
}

std::string defaultRoot() {
    char exe[PATH_MAX] = {0};
    ssize_t n = ::readlink("/proc/self/exe", exe, sizeof exe - 1);
    if (n <= 0) return ".";
    std::string path(exe, static_cast<size_t>(n));
    auto bin = path.substr(0, path.rfind('/'));
    return bin.substr(0, bin.rfind('/'));
}

struct Context {
    std::string root;
    bool rasp = false;
    bool json = false;
    Style style;
    std::string controlSocket() const { return root + "/var/run/wl-agent.sock"; }
    std::string taskSocket() const { return root + "/var/run/task_push.sock"; }
};

int refuse(Exit code, const std::string& sentence, const Context& ctx) {
    if (ctx.json) {
        Json out(cJSON_CreateObject(), cJSON_Delete);
        cJSON_AddBoolToObject(out.get(), "ok", false);
        cJSON_AddNumberToObject(out.get(), "exit", code);
        cJSON_AddStringToObject(out.get(), "error", sentence.c_str());
        char* text = cJSON_PrintUnformatted(out.get());
        std::printf("%s\n", text);
        cJSON_free(text);
    }
    std::fprintf(stderr, "wlctl: %s\n", sentence.c_str());
    return code;
}

int badUsage(const std::string& sentence) {
    std::fprintf(stderr, "wlctl: %s\n(wlctl --help lists the commands)\n", sentence.c_str());
    return kExitUsage;
}

// Asks the agent; on success root holds the parsed answer.
int ask(const Context& ctx, const std::string& request, Json& root, int timeoutMs = 15000) {
    ControlReply reply = askAgent(ctx.controlSocket(), request, timeoutMs);
    if (reply.failure != kExitOk) return refuse(reply.failure, reply.error, ctx);
    root.reset(cJSON_Parse(reply.json.c_str()));
    if (!cJSON_IsObject(root.get())) return refuse(kExitAgentError, "the agent's answer is not JSON", ctx);
    const cJSON* ok = cJSON_GetObjectItemCaseSensitive(root.get(), "ok");
    if (cJSON_IsTrue(ok)) return kExitOk;
    const cJSON* code = cJSON_GetObjectItemCaseSensitive(root.get(), "code");
    const cJSON* error = cJSON_GetObjectItemCaseSensitive(root.get(), "error");
    std::string sentence = cJSON_IsString(error) ? error->valuestring : "the agent refused the request";
    std::string word = cJSON_IsString(code) ? code->valuestring : "";
    Exit exit = word == "not_found" ? kExitNotFound : word == "forbidden" ? kExitForbidden : kExitAgentError;
    return refuse(exit, sentence, ctx);
}

void printJson(const cJSON* item) {
    char* text = cJSON_PrintUnformatted(item);
    std::printf("%s\n", text ? text : "null");
    cJSON_free(text);
    std::fflush(stdout);
}

// Sends one task command; prints and returns the outcome.
int pushCommand(const Context& ctx, const std::string& verb, const std::string& json, bool quiet = false) {
    PushResult result = pushTask(ctx.taskSocket(), "WL_HDL", json, 30);
    if (!result.delivered) {
        return refuse(kExitUnreachable,
                      result.error.find("ERR") == 0 ? "the task channel refused: " + result.error : result.error, ctx);
    }
    Exit exit = exitForResult(result.code);
    if (ctx.json) {
        Json out(cJSON_CreateObject(), cJSON_Delete);
        cJSON_AddBoolToObject(out.get(), "ok", exit == kExitOk);
        cJSON_AddStringToObject(out.get(), "command", verb.c_str());
        cJSON_AddNumberToObject(out.get(), "result", result.code);
        cJSON_AddStringToObject(out.get(), "words", describeCode(result.code).c_str());
        cJSON_AddNumberToObject(out.get(), "exit", exit);
        printJson(out.get());
    } else if (exit == kExitOk) {
        if (!quiet) std::printf("%s: %s\n", verb.c_str(), ctx.style.good(describeCode(result.code)).c_str());
    } else {
        char code[16];
        std::snprintf(code, sizeof code, "0x%08x", result.code);
        std::fprintf(stderr, "wlctl: %s: the module answered %s (%s)\n", verb.c_str(), code,
                     describeCode(result.code).c_str());
    }
    return exit;
}

int cmdStatus(const Context& ctx) {
    Json root(nullptr, cJSON_Delete);
    int rc = ask(ctx, "{\"cmd\":\"status\"}", root);
    if (rc != kExitOk) return rc;
    const cJSON* status = cJSON_GetObjectItemCaseSensitive(root.get(), "status");
    if (ctx.json) {
        printJson(status);
    } else {
        std::fputs(formatStatus(status, ctx.style).c_str(), stdout);
    }
    return kExitOk;
}

int cmdModels(const Context& ctx) {
    Json root(nullptr, cJSON_Delete);
    int rc = ask(ctx, "{\"cmd\":\"models\"}", root);
    if (rc != kExitOk) return rc;
    const cJSON* models = cJSON_GetObjectItemCaseSensitive(root.get(), "models");
    if (ctx.json) {
        printJson(models);
    } else {
        std::fputs(formatModels(models, ctx.style).c_str(), stdout);
    }
    return kExitOk;
}

double dataTime(const cJSON* answer) {
    const cJSON* model = cJSON_GetObjectItemCaseSensitive(answer, "model");
    const cJSON* at = cJSON_GetObjectItemCaseSensitive(model, "data_reports");
    return cJSON_IsNumber(at) ? at->valuedouble : 0;
}

int cmdShow(const Context& ctx, const std::vector<std::string>& args, bool engineGiven) {
    if (args.size() != 1) return badUsage("show needs one model name");
    std::string name = args[0];
    std::string engine = engineGiven ? (ctx.rasp ? "app" : "host") : "";
    std::string request = "{\"cmd\":\"model\",\"name\":" + jsonQuote(name) +
                          (engine.empty() ? "" : ",\"engine\":\"" + engine + "\"") + "}";
    Json root(nullptr, cJSON_Delete);
    int rc = ask(ctx, request, root);
    if (rc != kExitOk) return rc;
    const cJSON* model = cJSON_GetObjectItemCaseSensitive(root.get(), "model");
    const cJSON* found = cJSON_GetObjectItemCaseSensitive(model, "engine");
    bool rasp = cJSON_IsString(found) && std::string(found->valuestring) == "app";
    // The module sends a model's data on a query: ask, then wait for it to arrive.
    double before = dataTime(root.get());
    PushResult pushed = pushTask(ctx.taskSocket(), "WL_HDL", queryCommand(rasp, {name}), 30);
    bool fresh = false;
    if (pushed.delivered && pushed.code == 0) {
        std::string exact =
            "{\"cmd\":\"model\",\"name\":" + jsonQuote(name) + ",\"engine\":\"" + (rasp ? "app" : "host") + "\"}";
        for (int i = 0; i < 50 && !fresh; ++i) {
            Json again(nullptr, cJSON_Delete);
            if (ask(ctx, exact, again) != kExitOk) break;
            if (dataTime(again.get()) > before) {
                root = std::move(again);
                fresh = true;
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    }
    model = cJSON_GetObjectItemCaseSensitive(root.get(), "model");
    if (ctx.json) {
        cJSON_AddBoolToObject(const_cast<cJSON*>(model), "fresh", fresh);
        printJson(model);
        return kExitOk;
    }
    std::fputs(formatModel(model, ctx.style).c_str(), stdout);
    if (!fresh) {
        std::fprintf(stderr, "wlctl: the module did not report the model afresh (%s); shown as last reported\n",
                     pushed.delivered ? describeCode(pushed.code).c_str() : pushed.error.c_str());
    }
    return kExitOk;
}

int cmdAlarms(const Context& ctx, const std::vector<std::string>& args) {
    bool follow = false;
    std::string model, kind;
    std::time_t since = 0;
    long limit = 1000;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        auto value = [&](std::string& out) {
            if (i + 1 >= args.size()) return false;
            out = args[++i];
            return true;
        };
        std::string v;
        if (a == "--follow" || a == "-f") {
            follow = true;
        } else if (a == "--model") {
            if (!value(model)) return badUsage("--model needs a model name");
        } else if (a == "--kind") {
            if (!value(kind)) return badUsage("--kind needs a kind");
        } else if (a == "--since") {
            if (!value(v) || !parseSince(v, std::time(nullptr), since))
                return badUsage("--since takes 30s, 10m, 2h, 7d, Unix seconds or \"YYYY-MM-DD[ HH:MM[:SS]]\"");
        } else if (a == "--limit") {
            if (!value(v) || v.empty() || v.size() > 4 || v.find_first_not_of("0123456789") != std::string::npos ||
                std::atol(v.c_str()) < 1 || std::atol(v.c_str()) > 5000)
                return badUsage("--limit takes a number from 1 to 5000");
            limit = std::atol(v.c_str());
        } else {
            return badUsage("alarms does not take " + a);
        }
    }
    std::string filter;
    if (!model.empty()) filter += ",\"model\":" + jsonQuote(model);
    if (!kind.empty()) filter += ",\"kind\":" + jsonQuote(kind);
    if (since > 0) filter += ",\"since\":" + std::to_string(static_cast<long long>(since));
    double after = 0;
    bool first = true;
    std::signal(SIGINT, onStop);
    std::signal(SIGTERM, onStop);
    while (!g_stop) {
        std::string request = "{\"cmd\":\"alarms\",\"limit\":" + std::to_string(limit) + filter +
                              (first ? "" : ",\"after\":" + std::to_string(static_cast<long long>(after))) + "}";
        Json root(nullptr, cJSON_Delete);
        int rc = ask(ctx, request, root);
        if (rc != kExitOk) return rc;
        const cJSON* list = cJSON_GetObjectItemCaseSensitive(root.get(), "alarms");
        const cJSON* next = cJSON_GetObjectItemCaseSensitive(root.get(), "next");
        if (cJSON_IsNumber(next)) after = next->valuedouble;
        if (ctx.json && !follow) {
            cJSON_DeleteItemFromObjectCaseSensitive(root.get(), "ok");
            printJson(root.get());
            return kExitOk;
        }
        if (!ctx.json && !follow && cJSON_GetArraySize(list) == 0) std::printf("no alarms\n");
        const cJSON* alarm = nullptr;
        cJSON_ArrayForEach(alarm, list) {
            if (ctx.json) {
                printJson(alarm);
            } else {
                std::fputs(formatAlarm(alarm, ctx.style).c_str(), stdout);
            }
        }
        std::fflush(stdout);
        if (!follow) return kExitOk;
        first = false;
        for (int i = 0; i < 10 && !g_stop; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return kExitOk;
}

int cmdFeedback(const Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1 || args[0].empty() || args[0].find_first_not_of("0123456789") != std::string::npos)
        return badUsage("feedback needs one alarm id (the number wlctl alarms shows)");
    Json root(nullptr, cJSON_Delete);
    int rc = ask(ctx, "{\"cmd\":\"alarm\",\"id\":" + jsonQuote(args[0]) + "}", root);
    if (rc != kExitOk) return rc;
    const cJSON* entry = cJSON_GetObjectItemCaseSensitive(root.get(), "alarm");
    const cJSON* payload = cJSON_GetObjectItemCaseSensitive(entry, "alarm");
    if (!cJSON_IsObject(payload))
        return refuse(kExitAgentError, "the agent kept no readable text of alarm " + args[0], ctx);
    char* text = cJSON_PrintUnformatted(payload);
    std::string alarm = text ? text : "";
    cJSON_free(text);
    const cJSON* model = cJSON_GetObjectItemCaseSensitive(entry, "model");
    int exit = pushCommand(ctx, "feedback", feedbackCommand(alarm), true);
    if (exit == kExitOk && !ctx.json) {
        std::printf("alarm %s fed back: model %s now takes this behaviour as normal\n", args[0].c_str(),
                    cJSON_IsString(model) ? model->valuestring : "?");
    }
    return exit;
}

int cmdModule(const Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1 || (args[0] != "on" && args[0] != "off")) return badUsage("module takes on or off");
    Json root(nullptr, cJSON_Delete);
    int rc = ask(ctx, std::string("{\"cmd\":\"module\",\"on\":") + (args[0] == "on" ? "true" : "false") + "}", root);
    if (rc != kExitOk) return rc;
    if (ctx.json) {
        cJSON_DeleteItemFromObjectCaseSensitive(root.get(), "ok");
        printJson(root.get());
    } else {
        std::printf("module switched %s through the config centre\n", args[0].c_str());
    }
    return kExitOk;
}

int cmdRaw(const Context& ctx, const std::vector<std::string>& args) {
    bool debug = false;
    std::vector<std::string> rest;
    for (const std::string& a : args) {
        if (a == "--debug") {
            debug = true;
        } else {
            rest.push_back(a);
        }
    }
    if (rest.size() != 1) return badUsage("raw needs one JSON text, or - to read it from standard input");
    std::string json = rest[0];
    if (json == "-") json.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    if (json.size() > (4u << 20)) return badUsage("the JSON text is larger than 4 MiB");
    Json parsed(cJSON_Parse(json.c_str()), cJSON_Delete);
    if (!parsed) return badUsage("the text is not JSON; nothing was sent");
    if (!debug) return pushCommand(ctx, "raw", json);
    std::string error = sendToDebugPoint(ctx.root, json);
    if (!error.empty()) return refuse(kExitUnreachable, error, ctx);
    if (ctx.json) {
        std::printf("{\"ok\":true,\"command\":\"raw --debug\",\"delivered\":true}\n");
    } else {
        std::printf("delivered to the debug point wl_dbg (it answers no result; the module's log tells)\n");
    }
    return kExitOk;
}

int cmdCollector(const Context& ctx) {
    CollectorReply reply = queryCollector(ctx.root + "/var/run/vrccl.sock", 3000);
    if (!reply.error.empty()) return refuse(kExitUnreachable, reply.error, ctx);
    if (ctx.json) {
        std::printf("%s\n", reply.statusJson.c_str());
        return kExitOk;
    }
    std::string text;
    bool readable = formatCollectorStatus(reply, text);
    if (!readable) return refuse(kExitAgentError, text, ctx);
    std::fputs(text.c_str(), stdout);
    return kExitOk;
}

std::vector<std::string> tail(const std::vector<std::string>& v, size_t from) {
    return from >= v.size() ? std::vector<std::string>() : std::vector<std::string>(v.begin() + from, v.end());
}

}  // namespace

int main(int argc, char** argv) {
    Context ctx;
    ctx.root = defaultRoot();
    bool colourAllowed = true, engineGiven = false;
    std::vector<std::string> args;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--root") {
            if (i + 1 >= argc) return badUsage("--root needs a directory");
            ctx.root = argv[++i];
        } else if (a == "--rasp") {
            ctx.rasp = engineGiven = true;
        } else if (a == "--host") {
            ctx.rasp = false;
            engineGiven = true;
        } else if (a == "--json") {
            ctx.json = true;
        } else if (a == "--no-color" || a == "--no-colour") {
            colourAllowed = false;
        } else if (a == "-h" || a == "--help") {
            usage(stdout);
            return kExitOk;
        } else {
            args.push_back(a);
        }
    }
    const char* term = std::getenv("TERM");
    ctx.style.colour =
        colourAllowed && ::isatty(STDOUT_FILENO) && !std::getenv("NO_COLOR") && !(term && std::string(term) == "dumb");
    if (args.empty()) {
        usage(stderr);
        return kExitUsage;
    }
    const std::string verb = args[0];
    std::vector<std::string> rest = tail(args, 1);
    bool rasp = ctx.rasp;
    long period = 0;

    if (verb == "status") return rest.empty() ? cmdStatus(ctx) : badUsage("status takes no arguments");
    if (verb == "models") return rest.empty() ? cmdModels(ctx) : badUsage("models takes no arguments");
    if (verb == "show") return cmdShow(ctx, rest, engineGiven);
    if (verb == "alarms") return cmdAlarms(ctx, rest);
    if (verb == "feedback") return cmdFeedback(ctx, rest);
    if (verb == "module") return cmdModule(ctx, rest);
    if (verb == "raw" || verb == "push") return cmdRaw(ctx, rest);
    if (verb == "collector") return rest.empty() ? cmdCollector(ctx) : badUsage("collector takes no arguments");
    if (verb == "telemetry") {
        if (rest.size() != 1) return badUsage("telemetry needs one JSON line");
        std::string error = sendTelemetry(ctx.root + "/var/run/rasp_telemetry.sock", rest[0]);
        if (!error.empty()) return refuse(kExitUnreachable, error, ctx);
        std::printf(ctx.json ? "{\"ok\":true}\n" : "telemetry sent\n");
        return kExitOk;
    }
    if (verb == "start") {
        std::vector<unsigned> ports;
        if (rest.size() != 4) return badUsage("start needs NAME PATH PORTS PERIOD");
        if (!parsePorts(rest[2], ports))
            return badUsage("PORTS must be ports 1 to 65535 separated by commas, e.g. 80,443");
        if (!parseStudyTime(rest[3], period)) return badUsage("PERIOD must be a whole number from 0 to 65535");
        return pushCommand(ctx, "start", startCommand(rasp, rest[0], rest[1], ports, period));
    }
    if (verb == "query") {
        if (rest.empty()) return badUsage("query needs at least one model name");
        return pushCommand(ctx, "query", queryCommand(rasp, rest));
    }
    if (verb == "relearn" || verb == "study") {
        if (rest.size() < 2) return badUsage(verb + " needs PERIOD and at least one model name");
        if (!parseStudyTime(rest[0], period)) return badUsage("PERIOD must be a whole number from 0 to 65535");
        return pushCommand(ctx, verb, studyCommand(rasp, verb == "relearn", period, tail(rest, 1)));
    }
    if (verb == "switch") {
        if (rest.size() < 2 || (rest[0] != "on" && rest[0] != "off"))
            return badUsage("switch needs on or off and at least one model name");
        return pushCommand(ctx, "switch", switchCommand(rasp, rest[0] == "on", tail(rest, 1)));
    }
    if (verb == "delete") {
        if (rest.empty()) return badUsage("delete needs at least one model name");
        return pushCommand(ctx, "delete", deleteCommand(rasp, rest));
    }
    if (verb == "upload-logs") {
        return rest.empty() ? pushCommand(ctx, "upload-logs", uploadLogsCommand(rasp))
                            : badUsage("upload-logs takes no arguments");
    }
    return badUsage("unknown command \"" + verb + "\"");
}
