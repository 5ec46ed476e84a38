// wlctl's parsing of its arguments, the commands it builds and the text it prints.
#include <gtest/gtest.h>

#include "exit_codes.h"
#include "render.h"
#include "task_commands.h"

namespace {

using namespace wlctl;

TEST(ProgressBar, SharesAndUnknown) {
    struct Case {
        double share;
        const char* bar;
    } cases[] = {
        {0, "[..........]   0%"}, {0.35, "[###.......]  35%"}, {0.999, "[#########.]  99%"},
        {1, "[##########] 100%"}, {1.5, "[##########] 100%"},  {-1, "[??????????]   unknown"},
    };
    for (const Case& c : cases) EXPECT_EQ(progressBar(c.share, 10), c.bar) << c.share;
}

TEST(Duration, Units) {
    EXPECT_EQ(duration(40), "40s");
    EXPECT_EQ(duration(725), "12m 5s");
    EXPECT_EQ(duration(3 * 3600 + 120), "3h 2m");
    EXPECT_EQ(duration(2 * 86400 + 5 * 3600), "2d 5h");
    EXPECT_EQ(duration(-3), "0s");
}

TEST(ParseSince, Forms) {
    const std::time_t now = 1700000000;
    struct Case {
        const char* text;
        bool ok;
        std::time_t want;
    } cases[] = {
        {"30s", true, now - 30},
        {"10m", true, now - 600},
        {"2h", true, now - 7200},
        {"7d", true, now - 7 * 86400},
        {"1699990000", true, 1699990000},
        {"10x", false, 0},
        {"m", false, 0},
        {"", false, 0},
        {"-5m", false, 0},
        {"2024-13-40", false, 0},
        {"1234567890123", false, 0},
    };
    for (const Case& c : cases) {
        std::time_t out = 0;
        EXPECT_EQ(parseSince(c.text, now, out), c.ok) << c.text;
        if (c.ok) {
            EXPECT_EQ(out, c.want) << c.text;
        }
    }
    std::time_t day = 0;
    ASSERT_TRUE(parseSince("2024-05-17 10:22", now, day));
    std::tm local{};
    ::localtime_r(&day, &local);
    EXPECT_EQ(local.tm_hour, 10);
    EXPECT_EQ(local.tm_min, 22);
}

TEST(Arguments, PortsAndPeriods) {
    struct Case {
        const char* text;
        bool ok;
        std::vector<unsigned> ports;
    } cases[] = {
        {"80", true, {80}},   {"80,443", true, {80, 443}}, {"65535", true, {65535}}, {"0", false, {}},
        {"65536", false, {}}, {"80,", false, {}},          {",80", false, {}},       {"80;443", false, {}},
        {"", false, {}},      {"http", false, {}},
    };
    for (const Case& c : cases) {
        std::vector<unsigned> ports;
        EXPECT_EQ(parsePorts(c.text, ports), c.ok) << c.text;
        if (c.ok) {
            EXPECT_EQ(ports, c.ports) << c.text;
        }
    }
    long period = -1;
    EXPECT_TRUE(parseStudyTime("0", period));
    EXPECT_EQ(period, 0);
    EXPECT_TRUE(parseStudyTime("65535", period));
    EXPECT_FALSE(parseStudyTime("65536", period));  // the module would keep only the low 16 bits
    EXPECT_FALSE(parseStudyTime("-1", period));
    EXPECT_FALSE(parseStudyTime("1e3", period));
}

TEST(TaskCommands, AsTheManagerSendsThem) {
    struct Case {
        std::string got;
        const char* want;
    } cases[] = {
        {startCommand(false, "web", "/usr/sbin/nginx", {80, 443}, 60),
         R"({"opr_code":1,"data":{"list":[{"model_name":"web","app_name":"web","process_path":"/usr/sbin/nginx","study_times":60,"alarm":true,"port":[80,443]}]}})"},
        {queryCommand(true, {"a", "b"}), R"({"opr_code":102,"data":{"list":["a","b"]}})"},
        {studyCommand(false, true, 30, {"a"}),
         R"({"opr_code":3,"data":{"study_time":30,"re_study":true,"list":["a"]}})"},
        {studyCommand(true, false, 30, {"a"}),
         R"({"opr_code":103,"data":{"study_time":30,"re_study":false,"list":["a"]}})"},
        {switchCommand(false, false, {"a"}), R"({"opr_code":4,"data":{"model_switch":false,"list":["a"]}})"},
        {deleteCommand(true, {"x\"y"}), R"({"opr_code":106,"data":{"list":["x\"y"]}})"},
        {uploadLogsCommand(true), R"({"opr_code":105,"data":{}})"},
        {feedbackCommand(R"({"action":"read","alarm_source":0})"),
         R"({"opr_code":7,"data":{"list":[{"action":"read","alarm_source":0}]}})"},
        {jsonQuote(std::string("a\\b\n\x01", 5)), R"("a\\b\u000a\u0001")"},
    };
    for (const Case& c : cases) EXPECT_EQ(c.got, c.want);
}

TEST(ExitCodes, OnePerDispatcherResult) {
    EXPECT_EQ(exitForResult(0), kExitOk);
    EXPECT_EQ(exitForResult(0x84ce0001u), kExitRefused);
    EXPECT_EQ(exitForResult(0x84ce0002u), kExitInvalidParameter);
    EXPECT_EQ(exitForResult(0x12345678u), kExitAgentError);
    std::string help = exitCodeHelp();
    for (int code : {0, 1, 2, 3, 4, 5, 6, 7}) {
        EXPECT_NE(help.find("  " + std::to_string(code) + "  "), std::string::npos) << code;
    }
}

TEST(Render, ColourOnlyWhenAsked) {
    cJSON* alarm = cJSON_Parse(R"({"id":"17","engine":"app","model":"shop","kind":"execute","subject":"id",
                                   "send_time":"2024-05-17 10:00:00"})");
    Style plain, coloured;
    coloured.colour = true;
    EXPECT_EQ(formatAlarm(alarm, plain), "2024-05-17 10:00:00  17  app/shop  execute  id\n");
    EXPECT_NE(formatAlarm(alarm, coloured).find("\033[31mexecute\033[0m"), std::string::npos);
    cJSON_Delete(alarm);
}

TEST(Render, ModelsTableShowsProgressAndWhatIsUnknown) {
    cJSON* models = cJSON_Parse(R"([
      {"engine":"host","name":"web","period":"learning","progress":0.5,"features":12,"alarms":0,
       "status":{"learn_time":60,"learn_unit_seconds":60,"learned_seconds":1800,"stable":false,"switch":1,"running":true}},
      {"engine":"app","name":"api","period":"unknown","progress":null,"features":null,"alarms":3,"last_alarm":0,
       "status":null,"in_catalogue":true}])");
    std::string text = formatModels(models, Style());
    EXPECT_NE(text.find("web"), std::string::npos);
    EXPECT_NE(text.find("[##########..........]  50%"), std::string::npos) << text;
    EXPECT_NE(text.find("learning period 1h 0m, learned 30m 0s"), std::string::npos) << text;
    EXPECT_NE(text.find("[????????????????????]   unknown"), std::string::npos);
    EXPECT_NE(text.find("(no learning status reported yet; in the catalogue)"), std::string::npos);
    cJSON_Delete(models);
    cJSON* none = cJSON_CreateArray();
    EXPECT_NE(formatModels(none, Style()).find("no models"), std::string::npos);
    cJSON_Delete(none);
}

TEST(Render, ShowGroupsFeaturesByKind) {
    cJSON* model = cJSON_Parse(R"({"engine":"app","name":"shop","period":"filtering","progress":1,"features":3,
      "alarms":1,"data":{"features":{"execute":["/bin/echo <n>"],"read":["/srv/a.html","/srv/b.html"]}}})");
    std::string text = formatModel(model, Style());
    EXPECT_NE(text.find("runtime-application engine"), std::string::npos);
    EXPECT_NE(text.find("  execute (1)\n    /bin/echo <n>\n  read (2)\n    /srv/a.html\n    /srv/b.html\n"),
              std::string::npos)
        << text;
    cJSON_Delete(model);
}

}  // namespace
