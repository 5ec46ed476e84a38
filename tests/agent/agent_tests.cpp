#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <iterator>
#include <sys/stat.h>
#include <unistd.h>

#include <cjson/cJSON.h>

#include "asset_lists.h"
#include "config_centre.h"
#include "install_root.h"
#include "proc_scan.h"

using namespace wlagent;

namespace {

using JsonPtr = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;
JsonPtr parse(const std::string& text) { return JsonPtr(cJSON_Parse(text.c_str()), cJSON_Delete); }

const char kTcpTable[] =
    "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n"
    "   0: 0100007F:0CEA 00000000:0000 0A 00000000:00000000 00:00000000 00000000   0        0 1111 1\n"
    "   1: 00000000:0050 00000000:0000 0A 00000000:00000000 00:00000000 00000000   0        0 2222 1\n"
    "   2: 0100007F:9C40 0100007F:0CEA 01 00000000:00000000 00:00000000 00000000   0        0 3333 1\n"
    "   3: garbage\n";

const char kUdpTable[] =
    "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n"
    "   0: 00000000:0035 00000000:0000 07 00000000:00000000 00:00000000 00000000   0        0 4444 2\n"
    "   1: 00000000:0000 00000000:0000 07 00000000:00000000 00:00000000 00000000   0        0 5555 2\n";

}  // namespace

TEST(ProcScan, SocketTablesKeepListenersAndBoundUdpOnly) {
    auto tcp = parseSocketTable(kTcpTable, "tcp");
    ASSERT_EQ(tcp.size(), 2u);
    EXPECT_EQ(tcp[0].address, "127.0.0.1");
    EXPECT_EQ(tcp[0].port, 3306u);
    EXPECT_EQ(tcp[0].inode, 1111u);
    EXPECT_EQ(tcp[1].address, "0.0.0.0");
    EXPECT_EQ(tcp[1].port, 80u);

    auto udp = parseSocketTable(kUdpTable, "udp");
    ASSERT_EQ(udp.size(), 1u);  // port 0 is not bound to anything
    EXPECT_EQ(udp[0].port, 53u);
}

TEST(ProcScan, OwnProcessIsFoundWithItsExecutable) {
    auto processes = scanProcesses();
    bool found = false;
    for (const auto& p : processes) {
        if (p.pid == getpid()) {
            found = true;
            EXPECT_EQ(p.ppid, getppid());
            EXPECT_NE(p.exe.find("agent_tests"), std::string::npos);
        }
    }
    EXPECT_TRUE(found);
}

TEST(AssetLists, PortsCarryOwnerAndAppsGroupByExecutable) {
    std::vector<ProcessInfo> procs = {{10, 1, 0, "nginx", "/usr/sbin/nginx"},
                                      {11, 10, 33, "nginx", "/usr/sbin/nginx"},
                                      {12, 1, 1000, "app", "/home/u/app"},
                                      {2, 0, 0, "kthreadd", ""}};
    std::vector<ListeningSocket> socks = {
        {"tcp", "0.0.0.0", 80, 100}, {"tcp6", "::", 443, 101}, {"tcp", "127.0.0.1", 9000, 999}};  // owner unknown
    std::map<unsigned long, int> owners = {{100, 10}, {101, 11}};
    AssetLists lists = buildAssetLists(procs, socks, owners);

    auto ports = parse(lists.openPorts);
    cJSON* list = cJSON_GetObjectItem(ports.get(), "list");
    ASSERT_EQ(cJSON_GetArraySize(list), 2);
    cJSON* first = cJSON_GetArrayItem(list, 0);
    EXPECT_EQ(cJSON_GetObjectItem(first, "open")->valueint, 0);
    EXPECT_STREQ(cJSON_GetObjectItem(first, "port")->valuestring, "80");
    EXPECT_STREQ(cJSON_GetObjectItem(first, "process_id")->valuestring, "10");
    EXPECT_STREQ(cJSON_GetObjectItem(first, "process_path")->valuestring, "/usr/sbin/nginx");

    auto apps = parse(lists.applications);
    cJSON* appList = cJSON_GetObjectItem(apps.get(), "list");
    ASSERT_EQ(cJSON_GetArraySize(appList), 1);
    cJSON* nginx = cJSON_GetArrayItem(appList, 0);
    EXPECT_STREQ(cJSON_GetObjectItem(nginx, "name")->valuestring, "nginx");
    EXPECT_EQ(cJSON_GetArraySize(cJSON_GetObjectItem(nginx, "pid")), 2);

    auto processes = parse(lists.processes);
    cJSON* procList = cJSON_GetObjectItem(processes.get(), "list");
    ASSERT_EQ(cJSON_GetArraySize(procList), 4);
    const char* expectedTypes[] = {"system", "system", "user", "kernel"};
    for (int i = 0; i < 4; ++i) {
        EXPECT_STREQ(cJSON_GetObjectItem(cJSON_GetArrayItem(procList, i), "type")->valuestring, expectedTypes[i]);
    }
    EXPECT_EQ(cJSON_GetArraySize(cJSON_GetObjectItem(parse(lists.moreApps).get(), "list")), 0);
}

TEST(ConfigCentre, SwitchReplyIsTheArrayTheModuleReads) {
    for (bool on : {true, false}) {
        auto reply = parse(switchReply(on));
        ASSERT_TRUE(cJSON_IsArray(reply.get()));
        cJSON* item = cJSON_GetArrayItem(reply.get(), 0);
        EXPECT_STREQ(cJSON_GetObjectItem(item, "module_type")->valuestring, "white_list_module");
        EXPECT_EQ(cJSON_GetObjectItem(item, "switch_status")->valueint, on ? 1 : 0);
    }
}

TEST(InstallRoot, RefusesARootWithoutTheModuleAndKeepsOperatorEdits) {
    char pattern[] = "/tmp/wl_root_XXXXXX";
    std::string root = mkdtemp(pattern);
    EXPECT_NE(layOutInstallRoot(root).find("no module"), std::string::npos);

    mkdir((root + "/lib").c_str(), 0755);
    std::ofstream(modulePath(root)) << "";
    mkdir((root + "/config").c_str(), 0755);
    std::ofstream(root + "/config/whitelist_port.cfg") << "[port]\ncount=1\nport_0=22\n";
    EXPECT_EQ(layOutInstallRoot(root), "");

    std::ifstream kept(root + "/config/whitelist_port.cfg");
    std::string text((std::istreambuf_iterator<char>(kept)), std::istreambuf_iterator<char>());
    EXPECT_NE(text.find("port_0=22"), std::string::npos);
    struct stat st;
    EXPECT_EQ(stat((root + "/config/baseConfig.ini").c_str(), &st), 0);
    EXPECT_EQ(stat((root + "/var/spool/manager").c_str(), &st), 0);
    std::system(("rm -rf " + root).c_str());
}

TEST(InstallRoot, BuildTreeKeepsItsSettingsInItsOwnConfig) {
    char pattern[] = "/tmp/wl_root_XXXXXX";
    std::string root = mkdtemp(pattern);
    EXPECT_EQ(agentConfigPath(root), root + "/config/agent.conf");
    std::system(("rm -rf " + root).c_str());
}

TEST(InstallRoot, DefaultConfigurationIsWrittenWhereAskedAndEditsAreKept) {
    char pattern[] = "/tmp/wl_defaults_XXXXXX";
    std::string base = mkdtemp(pattern);
    std::string dir = base + "/etc/wl-agent";
    ASSERT_EQ(writeDefaultConfig(dir), "");
    struct stat st;
    for (const char* name : {"/agent.conf", "/whitelist_port.cfg", "/baseConfig.ini"}) {
        ASSERT_EQ(stat((dir + name).c_str(), &st), 0) << name;
        EXPECT_EQ(st.st_mode & 07777, 0640u) << name;  // may come to hold sinks' credentials
    }
    std::ofstream(dir + "/agent.conf") << "[discovery]\nenabled = false\n";
    ASSERT_EQ(writeDefaultConfig(dir), "");
    std::ifstream kept(dir + "/agent.conf");
    std::string text((std::istreambuf_iterator<char>(kept)), std::istreambuf_iterator<char>());
    EXPECT_EQ(text, "[discovery]\nenabled = false\n");

    std::ofstream(base + "/plain") << "";
    EXPECT_NE(writeDefaultConfig(base + "/plain/sub").find(base + "/plain/sub"), std::string::npos);
    std::system(("rm -rf " + base).c_str());
}
