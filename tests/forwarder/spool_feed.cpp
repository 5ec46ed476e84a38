// wl_spool_feed ROOT CONFIG FIRST COUNT [KIND FILE]: spools COUNT envelopes
// (seq_id FIRST..) and optionally one origin-log file, through the agent's
// own ReportSpool, as the module's uploads would.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "agent_config.h"
#include "forward_settings.h"
#include "report_spool.h"

int main(int argc, char** argv) {
    if (argc != 5 && argc != 7) {
        std::fprintf(stderr, "usage: wl_spool_feed ROOT CONFIG FIRST COUNT [KIND FILE]\n");
        return 2;
    }
    std::string root = argv[1];
    std::vector<std::string> problems;
    wlforward::ForwardSettings settings =
        wlforward::readForwardSettings(wlagent::AgentConfig::load(argv[2], problems), root, problems);
    for (const std::string& p : problems) std::fprintf(stderr, "%s\n", p.c_str());
    wlagent::ReportSpool spool(root, false, settings);
    spool.setHostUuid("e2e-host");
    std::string problem = spool.open();
    if (!problem.empty()) {
        std::fprintf(stderr, "%s\n", problem.c_str());
        return 1;
    }
    long first = std::atol(argv[3]), count = std::atol(argv[4]);
    const char* types[] = {"alarm", "learn_status", "rasp_alarm"};
    for (long seq = first; seq < first + count; ++seq) {
        std::string type = types[seq % 3];
        std::string envelope =
            "{\"send_time\":\"2024-01-01 00:00:00\",\"host_uuid\":\"e2e-host\",\"host_ip\":"
            "\"127.0.0.1\",\"ip_list\":\"127.0.0.1\",\"seq_id\":\"" +
            std::to_string(seq) + "\",\"type\":\"" + type + "\",\"" + type + "\":{\"n\":" + std::to_string(seq) + "}}";
        if (spool.add(envelope.c_str(), static_cast<int>(envelope.size())) != 0) return 1;
    }
    if (argc == 7 && spool.addFile(std::atoi(argv[5]), argv[6]) != 0) return 1;
    return 0;
}
