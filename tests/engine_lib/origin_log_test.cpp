// Origin logs as the module's Transformer reads them back.
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include "engine_test_support.h"
#include "transformer.h"

using namespace enginetest;

namespace {

const unsigned long long kPid = 77;

class OriginLogTest : public ::testing::Test {
protected:
    void SetUp() override {
        engine = makeBaseEngine();
        ASSERT_TRUE(engine->initModel(startCommand("shop", 5, "/usr/bin/app", {kPid}).get()));
    }
    // processEvent, then what the module does with a learning event.
    void learn(_BASE_EVENTINFO& event) {
        engine->processEvent(event);
        ASSERT_EQ(event.origin_log_flag, 1);
        ASSERT_EQ(engine->saveOriginLog(event, dir.path().c_str()), 0);
    }
    std::vector<_BASE_EVENTINFO> readBack(const std::string& file) {
        std::vector<_BASE_EVENTINFO> events;
        EXPECT_TRUE(Transformer().judgeEventType(dir.read(file), events)) << dir.read(file);
        return events;
    }

    TempDir dir;
    std::unique_ptr<BaseInterface> engine;
};

}  // namespace

TEST_F(OriginLogTest, EveryKindReadsBackAsTheSameEvent) {
    auto creation = processCreation(kPid, "/bin/sh");
    auto created = fileEvent(kPid, "/var/shop/new", 6);
    auto renamed = fileEvent(kPid, "/var/shop/b", 9);
    setText(renamed->detail.file.prev_file_name, "/var/shop/a");
    auto removed = fileEvent(kPid, "/var/shop/old", 8);
    auto peer = connection(kPid, "10.0.0.7", 5432);
    auto lookup = dnsQuery(kPid, "db.shop.local");
    auto port = listening(kPid, 8443, "tcp");
    for (auto* event : {port.get(), lookup.get(), peer.get(), removed.get(), renamed.get(), created.get(),
                        creation.get()}) {
        learn(*event);
    }
    ASSERT_EQ(dir.files(), std::vector<std::string>{"shop.origin.json"});
    auto events = readBack("shop.origin.json");
    ASSERT_EQ(events.size(), 7u);

    const _BASE_EVENTINFO& process = events[0];
    EXPECT_EQ(process.event_type, 1);
    EXPECT_EQ(getText(process.detail.process.process_path), "/bin/sh");
    EXPECT_EQ(getText(process.detail.process.process_cmd_line), "/bin/sh -c true");
    EXPECT_EQ(uint64_t(process.process_info.process_id), kPid) << "packed field: compared by value";
    EXPECT_EQ(getText(process.process_info.process_path), "/usr/bin/app");

    for (std::size_t i = 1; i <= 3; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(uint64_t(events[i].process_info.process_id), kPid);
        EXPECT_EQ(getText(events[i].process_info.process_path), "/usr/bin/app");
    }
    EXPECT_EQ(events[1].event_type, 6);
    EXPECT_EQ(getText(events[1].detail.file.file_name), "/var/shop/new");
    EXPECT_EQ(getText(events[1].detail.file.file_permissions), "0644");
    EXPECT_EQ(events[2].event_type, 8);
    EXPECT_EQ(getText(events[2].detail.file.file_name), "/var/shop/old");
    EXPECT_EQ(events[3].event_type, 9);
    EXPECT_EQ(getText(events[3].detail.file.prev_file_name), "/var/shop/a");

    EXPECT_EQ(events[4].event_type, 15);
    EXPECT_EQ(getText(events[4].detail.connect.dst_ip), "10.0.0.7");
    EXPECT_EQ(events[4].detail.connect.dst_port, 5432u);
    EXPECT_EQ(events[4].detail.connect.src_port, 40000u);
    EXPECT_EQ(getText(events[4].detail.connect.protocol), "tcp");
    EXPECT_EQ(events[5].event_type, 16);
    EXPECT_EQ(getText(events[5].detail.dns.query_name), "db.shop.local");
    EXPECT_EQ(getText(events[5].detail.dns.query_result), "10.1.1.1");
    EXPECT_EQ(events[6].event_type, 17);
    EXPECT_EQ(events[6].detail.listen.port, 8443u);
    EXPECT_EQ(getText(events[6].detail.listen.address), "0.0.0.0");
}

TEST_F(OriginLogTest, TextThatIsNoUtf8AndQuotesSurvives) {
    auto event = fileEvent(kPid, "/srv/\"q\"\\\xe4\xff name\n");
    learn(*event);
    auto events = readBack("shop.origin.json");
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(getText(events[0].detail.file.file_name), "/srv/\"q\"\\\xe4\xff name\n");
}

TEST_F(OriginLogTest, FullFilesAreMovedAsideAndEachStaysAnArray) {
    dir.write("baseConfig.ini", "[engine]\norigin_log_max_bytes=4096\n");
    ASSERT_EQ(engine->setConfig((dir.path() + "/baseConfig.ini").c_str()), 0);
    const int count = 40;
    for (int i = 0; i < count; ++i) {
        auto event = fileEvent(kPid, "/var/shop/file" + std::to_string(i));
        learn(*event);
    }
    std::size_t total = 0;
    int files = 0;
    for (const std::string& name : dir.files()) {
        if (name.find(".origin") == std::string::npos) continue;
        ++files;
        total += readBack(name).size();
        EXPECT_LT(dir.read(name).size(), 4096u + 2048u) << name;
    }
    EXPECT_GT(files, 1);
    EXPECT_EQ(total, static_cast<std::size_t>(count)) << "rotation loses nothing";
}

TEST_F(OriginLogTest, ForeignFileIsKeptAsideNotExtended) {
    dir.write("shop.origin.json", "[{\"message\":\"half");
    auto event = fileEvent(kPid, "/a");
    learn(*event);
    EXPECT_EQ(dir.read("shop.origin.1.json"), "[{\"message\":\"half");
    EXPECT_EQ(readBack("shop.origin.json").size(), 1u);
}

TEST_F(OriginLogTest, RefusedWithoutDirectoryOrModel) {
    auto event = fileEvent(kPid, "/a");
    engine->processEvent(*event);
    EXPECT_EQ(engine->saveOriginLog(*event, (dir.path() + "/absent").c_str()), -1);
    EXPECT_EQ(engine->saveOriginLog(*event, nullptr), -1);
    auto orphan = blankEvent(6, kPid + 1, "/usr/bin/other");
    setText(orphan->detail.file.file_name, "/a");
    engine->processEvent(*orphan);
    EXPECT_EQ(engine->saveOriginLog(*orphan, dir.path().c_str()), -1);
    EXPECT_TRUE(dir.files().empty());
}

TEST(RaspOriginLogTest, ElementsAreProbeMessagesTheConverterReads) {
    TempDir dir;
    auto engine = makeRaspEngine();
    ASSERT_TRUE(engine->initModel(startCommand("web", 5, "/usr/bin/java", {31}).get()));
    std::vector<std::unique_ptr<_RASP_EVENTINFO>> sent;
    sent.push_back(raspEvent(31, 2, "/usr/bin/convert a b"));
    sent.push_back(raspEvent(31, 1, "payments.local"));
    sent.push_back(raspEvent(31, 7, "SELECT 1"));
    sent.back()->headers = "{\"host\":\"shop\"}";
    for (auto& event : sent) {
        engine->processEvent(*event);
        ASSERT_EQ(event->origin_log_flag, 1);
        ASSERT_EQ(engine->saveOriginLog(*event, dir.path().c_str()), 0);
    }
    rapidjson::Document log;
    log.Parse(dir.read("web.origin.json").c_str());
    ASSERT_TRUE(log.IsArray());
    ASSERT_EQ(log.Size(), sent.size());
    Transformer transformer;
    for (rapidjson::SizeType i = 0; i < log.Size(); ++i) {
        _RASP_EVENTINFO back;
        transformer.initRaspInfo(back);
        ASSERT_TRUE(transformer.judgeEventType(log[i]["message"].GetString(), back)) << i;
        const _RASP_EVENTINFO& original = *sent[i];
        EXPECT_EQ(back.action, original.action);
        EXPECT_EQ(uint64_t(back.pid), uint64_t(original.pid));
        EXPECT_EQ(back.url, original.url);
        EXPECT_EQ(back.appCmd, original.appCmd);
        EXPECT_EQ(back.sql_text, original.sql_text);
        EXPECT_EQ(back.hostName, original.hostName);
        EXPECT_EQ(back.port, original.port);
        EXPECT_EQ(back.dst_ip, original.dst_ip);
        EXPECT_EQ(back.headers, original.headers);
    }
}
