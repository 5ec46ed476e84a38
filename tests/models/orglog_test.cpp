// Origin-log upload: every entry of the directory goes to the upload service.
#include <filesystem>

#include "models_fixture.h"
#include "whitelist_impl.h"
#include "whitelist_api_state.h"

namespace {

class OriginLogTest : public ModelsTest {};

TEST_F(OriginLogTest, MissingDirectoryFailsAndAMissingSymbolIsTriedAgain) {
    EXPECT_EQ((unsigned int)whitelist_upload_rasp_org_log(nullptr, 0), WL_ERR_FAILED);
    EXPECT_TRUE(m_log.contains("create walk dir handle failed.", 1));

    write_file("var/base/originLog/b.log", "x");
    write_file("var/base/originLog/a.log", "x");
    g_add_upload_file = nullptr;  // forget a symbol an earlier test found
    models_double::set_symbols_missing(true);
    EXPECT_EQ(whitelist_upload_org_log(nullptr, 0), WL_TASK_OK);
    EXPECT_TRUE(agent_symbols::uploaded_files().empty());
    EXPECT_EQ(m_log.count("load symbol _add_upload_file failed", 1), 2);

    models_double::set_symbols_missing(false);
    EXPECT_EQ(whitelist_upload_org_log(nullptr, 0), WL_TASK_OK);
    const auto uploads = agent_symbols::uploaded_files();
    ASSERT_EQ(uploads.size(), 2u);
    EXPECT_EQ(uploads[0].kind, 3);
    EXPECT_EQ(std::filesystem::path(uploads[0].path).filename(), "a.log");
    EXPECT_EQ(std::filesystem::path(uploads[1].path).filename(), "b.log");
}

}  // namespace
