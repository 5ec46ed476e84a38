#include <gtest/gtest.h>

#include <cjson/cJSON.h>

#include <string>
#include <vector>

#include "envelope.h"
#include "file_sink.h"
#include "http_sink.h"
#include "nats_sink.h"
#include "status_file.h"
#include "syslog_format.h"
#include "temp_dir.h"

using namespace wlforward;

TEST(Envelope, RouteOfAnyLine) {
    struct Case {
        const char* line;
        const char* type;
        const char* host;
        const char* seq;
        bool valid;
    } cases[] = {
        {"{\"send_time\":\"t\",\"host_uuid\":\"H-1\",\"seq_id\":\"42\",\"type\":\"alarm\",\"alarm\":{}}", "alarm",
         "H-1", "42", true},
        {"{\"type\":\"open_proc\",\"open_proc\":[]}", "open_proc", "unknown", "", true},
        {"{\"type\":7}", "unknown", "unknown", "", false},
        {"[1,2]", "unknown", "unknown", "", false},
        {"not json", "unknown", "unknown", "", false},
        {"", "unknown", "unknown", "", false},
    };
    for (const Case& c : cases) {
        Route r = routeOf(c.line);
        EXPECT_EQ(r.type, c.type) << c.line;
        EXPECT_EQ(r.hostUuid, c.host) << c.line;
        EXPECT_EQ(r.seqId, c.seq) << c.line;
        EXPECT_EQ(r.valid, c.valid) << c.line;
    }
}

TEST(Envelope, SubjectsNeverCarryWildcardsOrSeparators) {
    EXPECT_EQ(subjectToken("a.b*c>d e"), "a_b_c_d_e");
    EXPECT_EQ(subjectToken(""), "_");
    EXPECT_EQ(subjectToken(std::string(100, 'x')).size(), 64u);
    Route r;
    r.hostUuid = "4c4c4544-0042";
    r.type = "rasp_alarm";
    EXPECT_EQ(reportSubject("wl.prod", r), "wl.prod.4c4c4544-0042.rasp_alarm");
    UploadEntry e;
    e.kind = 4;
    EXPECT_EQ(uploadSubject("wl", e), "wl.unknown.upload.kind4");
    EXPECT_EQ(chunkCount(0, 10), 1u);
    EXPECT_EQ(chunkCount(10, 10), 1u);
    EXPECT_EQ(chunkCount(11, 10), 2u);
}

TEST(Envelope, UploadEntriesMustNameAFileUnderTheirKind) {
    struct Case {
        const char* line;
        bool ok;
    } cases[] = {
        {"{\"kind\":3,\"file\":\"kind3/a.json\",\"name\":\"a.json\",\"bytes\":5,\"host_uuid\":\"h\"}", true},
        {"{\"kind\":3,\"file\":\"kind4/a.json\",\"name\":\"a.json\"}", false},
        {"{\"kind\":3,\"file\":\"kind3/../a\",\"name\":\"../a\"}", false},
        {"{\"kind\":3,\"file\":\"kind3/.hidden\",\"name\":\".hidden\"}", false},
        {"{\"kind\":3,\"file\":\"kind3/a\\r\\nX: y\",\"name\":\"a\\r\\nX: y\"}", false},
        {"{\"kind\":-1,\"file\":\"kind-1/a\",\"name\":\"a\"}", false},
        {"{\"kind\":3.5,\"file\":\"kind3/a\",\"name\":\"a\"}", false},
        {"{\"file\":\"kind3/a\",\"name\":\"a\"}", false},
        {"garbage", false},
    };
    for (const Case& c : cases) {
        UploadEntry e;
        EXPECT_EQ(parseUploadEntry(c.line, e), c.ok) << c.line;
    }
}

TEST(SyslogFormat, Rfc5424Message) {
    SyslogHeader h;
    h.facility = 16;
    h.hostname = "web 1";
    h.appName = "wl-agent";
    h.procId = 77;
    h.time.tv_sec = 1700000000;
    h.time.tv_nsec = 123456789;
    Route r;
    r.type = "alarm";
    r.hostUuid = "h\"1]";
    r.seqId = "9";
    std::string m = formatSyslog(h, r, "{\"x\":1}");
    EXPECT_EQ(m,
              "<132>1 2023-11-14T22:13:20.123456Z web1 wl-agent 77 alarm [wl@32473 host_uuid=\"h\\\"1\\]\" "
              "seq_id=\"9\"] \xEF\xBB\xBF{\"x\":1}");
    r.type = "learn_status";
    r.seqId.clear();
    h.hostname.clear();
    std::string n = formatSyslog(h, r, "{}");
    EXPECT_EQ(n.substr(0, 5), "<133>") << "not an alarm: notice";
    EXPECT_NE(n.find(" - wl-agent "), std::string::npos) << "no host name: nil value";
    EXPECT_EQ(n.find("seq_id"), std::string::npos);
}

TEST(HttpVerdict, StatusesByMeaning) {
    struct Case {
        long status;
        HttpVerdict verdict;
    } cases[] = {{200, HttpVerdict::Taken},   {204, HttpVerdict::Taken},   {400, HttpVerdict::Refused},
                 {413, HttpVerdict::Refused}, {422, HttpVerdict::Refused}, {401, HttpVerdict::Retry},
                 {404, HttpVerdict::Retry},   {429, HttpVerdict::Retry},   {500, HttpVerdict::Retry},
                 {503, HttpVerdict::Retry},   {302, HttpVerdict::Retry}};
    for (const Case& c : cases) EXPECT_EQ(httpVerdict(c.status), c.verdict) << c.status;
}

TEST(FileSink, AppendsRotatesAndCopiesFiles) {
    TempDir root;
    FileSinkSettings s;
    s.path = root.path() + "/out/reports.jsonl";
    s.filesDir = root.path() + "/out/uploads";
    s.maxBytes = 10;
    FileSink sink(s);
    std::string a = "{\"n\":1}", b = "{\"n\":2}";
    std::vector<Report> batch = {Report{0, &a, {}}, Report{8, &b, {}}};
    SendResult r = sink.send(batch);
    EXPECT_EQ(r.delivered, 2u);
    EXPECT_EQ(readFile(s.path), a + "\n" + b + "\n");
    r = sink.send({Report{16, &b, {}}});  // past max_bytes: the old copy moves to .1
    EXPECT_EQ(r.delivered, 1u);
    EXPECT_EQ(readFile(s.path), b + "\n");
    EXPECT_EQ(readFile(s.path + ".1"), a + "\n" + b + "\n");

    writeFile(root.path() + "/src.json", "[\"log\"]");
    Upload u;
    parseUploadEntry("{\"kind\":3,\"file\":\"kind3/o.json\",\"name\":\"o.json\"}", u.entry);
    u.path = root.path() + "/src.json";
    EXPECT_EQ(sink.sendFile(u).delivered, 1u);
    EXPECT_EQ(readFile(s.filesDir + "/kind3/o.json"), "[\"log\"]");
    u.path = root.path() + "/missing";
    EXPECT_FALSE(sink.sendFile(u).error.empty());
}

TEST(StatusFile, KeysTheOperatorsToolsRead) {
    SinkStatus on;
    on.name = "http";
    on.enabled = true;
    on.counters.sent = 5;
    on.counters.failed = 2;
    on.counters.cursor = 100;
    on.counters.up = false;
    on.counters.lastError = "down";
    SinkStatus off;
    off.name = "nats";
    wlspool::Extent reports{40, 300, 260, 7};
    wlspool::Extent uploads{0, 0, 0, 1};
    std::unique_ptr<cJSON, decltype(&cJSON_Delete)> j(
        cJSON_Parse(formatStatus(123, {on, off}, reports, uploads).c_str()), cJSON_Delete);
    ASSERT_TRUE(j);
    auto num = [](const cJSON* o, const char* k) { return cJSON_GetObjectItemCaseSensitive(o, k)->valuedouble; };
    EXPECT_EQ(num(j.get(), "pid"), 123);
    const cJSON* sinks = cJSON_GetObjectItemCaseSensitive(j.get(), "sinks");
    const cJSON* http = cJSON_GetObjectItemCaseSensitive(sinks, "http");
    EXPECT_TRUE(cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(http, "enabled")));
    EXPECT_TRUE(cJSON_IsFalse(cJSON_GetObjectItemCaseSensitive(http, "up")));
    EXPECT_EQ(num(http, "sent"), 5);
    EXPECT_EQ(num(http, "failed"), 2);
    EXPECT_EQ(num(http, "backlog_bytes"), 200);
    EXPECT_STREQ(cJSON_GetObjectItemCaseSensitive(http, "last_error")->valuestring, "down");
    const cJSON* nats = cJSON_GetObjectItemCaseSensitive(sinks, "nats");
    EXPECT_TRUE(cJSON_IsFalse(cJSON_GetObjectItemCaseSensitive(nats, "enabled")));
    EXPECT_EQ(num(nats, "backlog_bytes"), 0);
    const cJSON* spool = cJSON_GetObjectItemCaseSensitive(j.get(), "spool");
    EXPECT_EQ(num(spool, "bytes"), 260);
    EXPECT_EQ(num(spool, "dropped"), 7);
}
