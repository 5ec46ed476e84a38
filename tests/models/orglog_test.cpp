// Origin-log upload: every entry of the directory goes to the upload service.
#include <filesystem>

#include "models_fixture.h"
#include "whitelist_impl.h"
#include "whitelist_impl_orglog.h"

namespace {

class OriginLogTest : public ModelsTest {};

TEST_F(OriginLogTest, EveryEntryIsHandedOverInNameOrder) {
    write_file("var/base/originLog/b.log", "x");
    write_file("var/base/originLog/a.log", "x");
    std::filesystem::create_directories(path("var/base/originLog/sub"));
    write_file("var/base/raspOriginLog/r.log", "x");
    EXPECT_EQ(whitelist_upload_org_log(nullptr, 0), 0);
    EXPECT_EQ(whitelist_upload_rasp_org_log(nullptr, 0), 0);
    const std::string dir = path("lib/../var/base/originLog/");
    std::vector<std::pair<int, std::string>> uploaded;
    for (const auto& upload : models_double::file_uploads()) uploaded.emplace_back(upload.kind, upload.path);
    ASSERT_EQ(uploaded.size(), 4u);
    EXPECT_EQ(uploaded[0].first, 3);
    EXPECT_EQ(std::filesystem::path(uploaded[0].second).filename(), "a.log");
    EXPECT_EQ(std::filesystem::path(uploaded[1].second).filename(), "b.log");
    EXPECT_EQ(std::filesystem::path(uploaded[2].second).filename(), "sub");
    EXPECT_EQ(uploaded[3].first, 4);
    EXPECT_EQ(std::filesystem::path(uploaded[3].second).filename(), "r.log");
    EXPECT_TRUE(m_log.contains("start upload file " + uploaded[0].second, 3));
    EXPECT_TRUE(m_log.contains("start upload rasp file " + uploaded[3].second, 3));
    EXPECT_EQ(m_log.count("scan end", 4), 2);
    // Files stay where they are.
    EXPECT_TRUE(std::filesystem::exists(path("var/base/originLog/a.log")));
}

TEST_F(OriginLogTest, EmptyDirectoryUploadsNothing) {
    std::filesystem::create_directories(path("var/base/originLog"));
    EXPECT_EQ(whitelist_upload_org_log(nullptr, 0), 0);
    EXPECT_TRUE(models_double::file_uploads().empty());
}

TEST_F(OriginLogTest, MissingDirectoryFails) {
    EXPECT_EQ((unsigned int)whitelist_upload_rasp_org_log(nullptr, 0), WL_ERR_FAILED);
    EXPECT_TRUE(m_log.contains("create walk dir handle failed.", 1));
    EXPECT_TRUE(models_double::file_uploads().empty());
}

TEST_F(OriginLogTest, MissingSymbolIsLoggedForEachFileAndTriedAgain) {
    write_file("var/base/originLog/a.log", "x");
    write_file("var/base/originLog/b.log", "x");
    g_add_upload_file = nullptr;  // forget a symbol an earlier test found
    models_double::set_symbols_missing(true);
    EXPECT_EQ(whitelist_upload_org_log(nullptr, 0), 0);
    EXPECT_TRUE(models_double::file_uploads().empty());
    int failures = 0;
    for (const auto& line : m_log.lines()) {
        if (line.text.find("load symbol _add_upload_file failed") == std::string::npos) continue;
        EXPECT_EQ(line.source, "agent/include/plugins/file_upload_utils");
        EXPECT_EQ(line.level, 1);
        ++failures;
    }
    EXPECT_EQ(failures, 2);
    EXPECT_EQ(models_double::dll_close_calls(), 2);
    models_double::set_symbols_missing(false);
    EXPECT_EQ(whitelist_upload_org_log(nullptr, 0), 0);
    EXPECT_EQ(models_double::file_uploads().size(), 2u);
}

}  // namespace
