#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <string>
#include <vector>

#include "agent_config.h"
#include "forward_settings.h"
#include "report_spool.h"
#include "spool_reader.h"
#include "temp_dir.h"

using namespace wlagent;

namespace {

wlforward::ForwardSettings settingsFrom(const std::string& root, const std::string& text,
                                        std::vector<std::string>& problems) {
    writeFile(root + "/agent.conf", text);
    return wlforward::readForwardSettings(AgentConfig::load(root + "/agent.conf", problems), root, problems);
}

std::vector<std::string> lines(const wlspool::Stream& stream) {
    wlspool::SpoolReader reader(stream);
    std::vector<std::string> out;
    uint64_t at = 0;
    for (;;) {
        wlspool::Batch b;
        std::string error;
        if (!reader.read(at, 100, 1 << 20, b, error) || b.lines.empty()) break;
        for (const auto& l : b.lines) out.push_back(l.text);
        at = b.lines.back().end;
    }
    return out;
}

}  // namespace

TEST(ForwardSettings, DefaultsAndRefusals) {
    TempDir root;
    std::vector<std::string> problems;
    wlforward::ForwardSettings d = settingsFrom(root.path(), "", problems);
    EXPECT_TRUE(problems.empty());
    EXPECT_EQ(wlforward::enabledSinks(d), std::vector<std::string>{"file"});
    EXPECT_EQ(d.file.path, root.path() + "/var/log/agent/manager/reports.jsonl");
    EXPECT_EQ(d.reports.maxFileBytes, 4u << 20);
    EXPECT_EQ(d.reports.maxTotalBytes, 64u << 20);

    struct Case {
        const char* text;
        const char* problem;  // part of the sentence expected
        const char* sinkOff;  // a sink the problem turns off, or ""
    } cases[] = {
        {"[http]\nenabled=true\nurl=ftp://x\n", "[http] url", "http"},
        {"[http]\nenabled=true\n", "[http] url", "http"},
        {"[nats]\nenabled=true\nurl=127.0.0.1:4222\n", "[nats] needs url", "nats"},
        {"[nats]\nenabled=true\nsubject_prefix=a..b\n", "[nats] needs url", "nats"},
        {"[nats]\nenabled=true\nstream=a.b\n", "[nats] needs url", "nats"},
        {"[spool]\nmax_file_bytes=100\n", "[spool] max_file_bytes must be", ""},
        {"[spool]\nmax_file_bytes=1048576\nmax_total_bytes=1048576\n", "at least twice", ""},
        {"[syslog]\nfacility=loud\n", "[syslog] facility", ""},
        {"[file]\nenabled=maybe\n", "[file] enabled", ""},
    };
    for (const Case& c : cases) {
        problems.clear();
        wlforward::ForwardSettings s = settingsFrom(root.path(), c.text, problems);
        ASSERT_FALSE(problems.empty()) << c.text;
        EXPECT_NE(problems.front().find(c.problem), std::string::npos) << problems.front();
        if (*c.sinkOff) {
            auto on = wlforward::enabledSinks(s);
            EXPECT_EQ(std::count(on.begin(), on.end(), c.sinkOff), 0) << c.text;
        }
    }
    problems.clear();
    wlforward::ForwardSettings all =
        settingsFrom(root.path(),
                     "[syslog]\nenabled=true\n[http]\nenabled=true\nurl=https://127.0.0.1:1/r\n[nats]\nenabled=true\n"
                     "url=nats://127.0.0.1:4222\n[file]\nenabled=false\n",
                     problems);
    EXPECT_TRUE(problems.empty());
    EXPECT_EQ(wlforward::enabledSinks(all), (std::vector<std::string>{"syslog", "http", "nats"}));
    EXPECT_EQ(wlforward::fileSinks(all), (std::vector<std::string>{"http", "nats"}));
    EXPECT_EQ(all.http.filesUrl, "https://127.0.0.1:1/r");
}

TEST(ReportSpool, ReportsAndUploadsLandInTheSpool) {
    TempDir root;
    std::vector<std::string> problems;
    wlforward::ForwardSettings s = settingsFrom(root.path(), "[spool]\nsync=false\n", problems);
    ReportSpool spool(root.path(), false, s);
    spool.setHostUuid("host-1");
    ASSERT_EQ(spool.open(), "");
    std::string envelope = "{\"type\":\"alarm\",\"alarm\":{}}";
    EXPECT_EQ(spool.add(envelope.c_str(), static_cast<int>(envelope.size())), 0);
    EXPECT_EQ(spool.add(nullptr, 3), -1);
    EXPECT_EQ(lines(wlspool::reportStream(root.path())), std::vector<std::string>{envelope});

    writeFile(root.path() + "/origin.json", "[1,2,3]");
    EXPECT_EQ(spool.addFile(3, (root.path() + "/origin.json").c_str()), 0);
    EXPECT_EQ(readFile(root.path() + "/var/spool/uploads/kind3/origin.json"), "[1,2,3]");
    std::vector<std::string> manifest = lines(wlspool::uploadStream(root.path()));
    ASSERT_EQ(manifest.size(), 1u);
    EXPECT_NE(manifest[0].find("\"file\":\"kind3/origin.json\""), std::string::npos) << manifest[0];
    EXPECT_NE(manifest[0].find("\"host_uuid\":\"host-1\""), std::string::npos) << manifest[0];
    // A directory or a missing file is refused, not copied.
    EXPECT_EQ(spool.addFile(3, root.path().c_str()), -1);
    EXPECT_EQ(spool.addFile(3, (root.path() + "/missing").c_str()), -1);
}

TEST(ReportSpool, UploadBoundRemovesOldestAndCountsUnsentOnes) {
    TempDir root;
    std::vector<std::string> problems;
    wlforward::ForwardSettings s =
        settingsFrom(root.path(), "[spool]\nsync=false\nmax_upload_bytes=1048576\n", problems);
    ASSERT_TRUE(problems.empty()) << problems.front();
    ReportSpool spool(root.path(), false, s);
    ASSERT_EQ(spool.open(), "");
    std::string big(400 * 1024, 'z');
    for (int i = 0; i < 4; ++i) {
        std::string path = root.path() + "/log" + std::to_string(i) + ".json";
        writeFile(path, big);
        ::utimensat(AT_FDCWD, path.c_str(), nullptr, 0);
        ASSERT_EQ(spool.addFile(3, path.c_str()), 0);
        // Distinct modification times, oldest first.
        struct timespec t[2] = {{1000 + i, 0}, {1000 + i, 0}};
        ::utimensat(AT_FDCWD, (root.path() + "/var/spool/uploads/kind3/log" + std::to_string(i) + ".json").c_str(), t,
                    0);
    }
    struct stat st;
    EXPECT_NE(::stat((root.path() + "/var/spool/uploads/kind3/log0.json").c_str(), &st), 0);
    EXPECT_NE(::stat((root.path() + "/var/spool/uploads/kind3/log1.json").c_str(), &st), 0);
    EXPECT_EQ(::stat((root.path() + "/var/spool/uploads/kind3/log3.json").c_str(), &st), 0);
    // The file sink (on by default) had sent none of them.
    EXPECT_EQ(spool.droppedFiles(), 2u);
    std::string tooBig = root.path() + "/huge.json";
    writeFile(tooBig, std::string(2 << 20, 'h'));
    EXPECT_EQ(spool.addFile(4, tooBig.c_str()), -1);
    EXPECT_EQ(spool.droppedFiles(), 3u);
}
