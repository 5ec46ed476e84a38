// Which listening applications the agent proposes models for, and how.
#include <gtest/gtest.h>

#include <cjson/cJSON.h>

#include <sys/stat.h>

#include <fstream>

#include "discovery.h"

using namespace wlagent;

namespace {

std::string openPorts(const std::vector<std::tuple<const char*, const char*, const char*>>& rows) {
    std::string json = "{\"list\":[";
    for (std::size_t i = 0; i < rows.size(); ++i) {
        auto [port, pid, path] = rows[i];
        json += std::string(i ? "," : "") + "{\"port\":\"" + port + "\",\"process_id\":\"" + pid +
                "\",\"process_path\":\"" + path + "\",\"open\":0}";
    }
    return json + "]}";
}

std::string writeTemp(const std::string& name, const std::string& content) {
    std::string path = ::testing::TempDir() + "/" + name;
    std::ofstream(path) << content;
    return path;
}

TEST(Discovery, OneProposalPerListeningExecutable) {
    std::string ports = openPorts({{"443", "10", "/usr/sbin/nginx"},
                                   {"80", "11", "/usr/sbin/nginx"},
                                   {"5432", "20", "/usr/lib/postgresql/bin/postgres"},
                                   {"8080", "30", "/opt/a/app"},
                                   {"8081", "31", "/opt/b/app"},
                                   {"9000", "40", "/srv/agent/vr_agent/wl-collector"},
                                   {"9001", "41", "/usr/bin/wl-agent-itself"},
                                   {"22", "50", "/usr/sbin/sshd"},
                                   {"6000", "60", "/usr/local/skip/tool"},
                                   {"7000", "70", "/usr/bin/modelled"},
                                   {"bad", "71", "/usr/bin/broken"},
                                   {"7001", "0", "/usr/bin/nopid"},
                                   {"7002", "72", ""}});
    DiscoverySettings settings;
    settings.excludePorts = {22};
    settings.excludePaths = {"/usr/local/skip"};
    auto proposals = proposeModels(ports, settings, "/srv/agent", 41, {"/usr/bin/modelled"});
    std::vector<std::string> seen;
    for (const auto& p : proposals) {
        std::string text = p.name + " " + p.path;
        for (unsigned port : p.ports) text += " " + std::to_string(port);
        seen.push_back(text);
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"app /opt/a/app 8080", "app-2 /opt/b/app 8081",
                                              "postgres /usr/lib/postgresql/bin/postgres 5432",
                                              "nginx /usr/sbin/nginx 80 443"}));
    settings.enabled = false;
    EXPECT_TRUE(proposeModels(ports, settings, "/srv/agent", 41, {}).empty());
    EXPECT_TRUE(proposeModels("not json", DiscoverySettings{}, "/srv/agent", 41, {}).empty());
}

TEST(Discovery, SettingsFromTheAgentConfiguration) {
    std::vector<std::string> problems;
    auto load = [&](const std::string& path) { return AgentConfig::load(path, problems); };
    DiscoverySettings settings =
        readDiscoverySettings(load(writeTemp("agent-good.conf",
                                             "[discovery]\nenabled = no\nlearn_minutes = 90\n"
                                             "exclude_paths = /opt/x, /usr/local/\nexclude_ports = 22,25\n")),
                              problems);
    EXPECT_TRUE(problems.empty());
    EXPECT_FALSE(settings.enabled);
    EXPECT_EQ(settings.learnMinutes, 90);
    EXPECT_EQ(settings.excludePaths, (std::vector<std::string>{"/opt/x", "/usr/local/"}));
    EXPECT_EQ(settings.excludePorts, (std::set<unsigned>{22, 25}));

    settings = readDiscoverySettings(
        load(writeTemp("agent-bad.conf",
                       "[discovery]\nenabled = perhaps\nlearn_minutes = 0\nexclude_ports = 22,http\n")),
        problems);
    EXPECT_TRUE(settings.enabled) << "a bad value keeps the default";
    EXPECT_EQ(settings.learnMinutes, 1440);
    EXPECT_EQ(settings.excludePorts, (std::set<unsigned>{22}));
    EXPECT_EQ(problems, (std::vector<std::string>{"[discovery] enabled must be true or false, not 'perhaps'",
                                                  "[discovery] learn_minutes must be 1 to 65535, not '0'",
                                                  "[discovery] exclude_ports: 'http' is no port"}));
    problems.clear();
    EXPECT_TRUE(readDiscoverySettings(load("/nonexistent/agent.conf"), problems).enabled);
    EXPECT_TRUE(problems.empty());
}

// Drop-ins override the main file key by key, the last in name order winning;
// files that are not "*.conf" are left alone.
TEST(Discovery, DropInsOverrideTheMainFile) {
    std::string main = writeTemp("agent-dropin.conf", "[discovery]\nlearn_minutes = 90\nexclude_ports = 22\n");
    std::string dir = main + ".d";
    ::mkdir(dir.c_str(), 0755);
    writeTemp("agent-dropin.conf.d/20-late.conf", "[discovery]\nlearn_minutes = 30\n");
    writeTemp("agent-dropin.conf.d/10-early.conf", "[discovery]\nlearn_minutes = 60\nenabled = false\n");
    writeTemp("agent-dropin.conf.d/30-ignored.conf.bak", "[discovery]\nlearn_minutes = 5\n");
    std::vector<std::string> problems;
    AgentConfig config = AgentConfig::load(main, problems);
    DiscoverySettings settings = readDiscoverySettings(config, problems);
    EXPECT_TRUE(problems.empty());
    EXPECT_EQ(settings.learnMinutes, 30);
    EXPECT_FALSE(settings.enabled);
    EXPECT_EQ(settings.excludePorts, (std::set<unsigned>{22}));
    EXPECT_EQ(config.files().size(), 3u);
}

TEST(Discovery, PrefixesMatchWholeDirectories) {
    DiscoverySettings settings;
    settings.excludePaths = {"/opt/app"};
    auto proposals = proposeModels(openPorts({{"1", "2", "/opt/app/bin/x"}, {"3", "4", "/opt/application/y"}}),
                                   settings, "/srv/agent", 1, {});
    ASSERT_EQ(proposals.size(), 1u);
    EXPECT_EQ(proposals[0].path, "/opt/application/y");
}

TEST(Discovery, StartCommandAndCatalogue) {
    std::string command = startCommand({"we\"b", "/usr/sbin/nginx", {80, 443}}, 60);
    std::unique_ptr<cJSON, decltype(&cJSON_Delete)> json(cJSON_Parse(command.c_str()), cJSON_Delete);
    ASSERT_TRUE(json) << command;
    EXPECT_EQ(cJSON_GetObjectItem(json.get(), "opr_code")->valueint, 1);
    cJSON* model = cJSON_GetArrayItem(cJSON_GetObjectItem(cJSON_GetObjectItem(json.get(), "data"), "list"), 0);
    EXPECT_STREQ(cJSON_GetObjectItem(model, "model_name")->valuestring, "we\"b");
    EXPECT_STREQ(cJSON_GetObjectItem(model, "process_path")->valuestring, "/usr/sbin/nginx");
    EXPECT_EQ(cJSON_GetObjectItem(model, "study_times")->valueint, 60);
    EXPECT_EQ(cJSON_GetArraySize(cJSON_GetObjectItem(model, "port")), 2);

    std::string catalogue = writeTemp("base_model.cfg",
                                      "[baseengine]\ncount=2\n[model_0]\nmodel_name=a\nprocess_path=/usr/bin/a\n"
                                      "[model_1]\nmodel_name=b\nprocess_path=/usr/bin/b\n[model_2]\nprocess_path=/x\n");
    EXPECT_EQ(modelledPaths(catalogue), (std::set<std::string>{"/usr/bin/a", "/usr/bin/b"}));
}

}  // namespace
