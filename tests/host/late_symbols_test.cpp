// The agent's symbols missing at first and found once a library brings them:
// this executable has no g_ms_conf, get_log_ctm_header_util_v2 or _upload2mgr
// of its own. WL_LATE_HEADER_LIB brings the first two, WL_LATE_UPLOAD_LIB the
// third.
#include <dlfcn.h>

#include "agent_symbols.h"
#include "host_fixture.h"
#include "orv_sync.h"
#include "whitelist.h"
#include "whitelist_upload.h"

using host_doubles::calls;

namespace {

class HostLateSymbolsTest : public HostTest {
protected:
    void SetUp() override {
        HostTest::SetUp();
        for (const char* library : {WL_LATE_HEADER_LIB, WL_LATE_UPLOAD_LIB}) {
            ASSERT_EQ(dlopen(library, RTLD_NOW | RTLD_NOLOAD), nullptr)
                << "the libraries must not be loaded before the test opens them";
        }
        g_whitelist_context.task_handle = host_doubles::task_handle();
        ASSERT_EQ(orv_event_init(&g_vr_event, 0, 1), 0);
        ASSERT_EQ(whitelist_init_upload_lock(), 0);
    }
};

// One test: the library stays loaded for the rest of the process.
TEST_F(HostLateSymbolsTest, MissingThenFound) {
    agent_symbols::HeaderScript header;
    header.seq = 77;
    header.host_uuid = "late-uuid";
    agent_symbols::set_header(header);

    EXPECT_EQ(whitelist_upload_data(R"({"a":1})", 0), -100);
    EXPECT_EQ(m_log.count("load host_state symbol: get_log_ctm_header_util_v2 failed, errno: ", 1), 1) << m_log.dump();
    EXPECT_TRUE(agent_symbols::uploads().empty());

    // Without g_ms_conf the switch can't be read: the pass runs as switched on.
    call_log::clear();
    whitelist_main_loop_pass(&g_whitelist_context);
    EXPECT_EQ(calls(), (std::vector<std::string>{"cl_ev_loop_nowait(1)", "cl_event_loop_once", "task_loop_once",
                                                 "orv_event_timedwait(2000)"}));
    EXPECT_EQ(m_log.count("module_switch load g_ms_conf symbol failed, errno: ", 2), 1) << m_log.dump();

    ASSERT_NE(dlopen(WL_LATE_HEADER_LIB, RTLD_NOW | RTLD_GLOBAL), nullptr) << dlerror();
    m_log.clear();

    // The header is found now, the upload service still isn't.
    EXPECT_EQ(whitelist_upload_data(R"({"a":1})", 0), -1);
    EXPECT_EQ(m_log.count("load upload2mgr _upload2mgr symbol failed, errno: ", 1), 1) << m_log.dump();
    EXPECT_EQ(m_log.count("upload2mgr failed.[-100]\n", 2), 1);

    ASSERT_NE(dlopen(WL_LATE_UPLOAD_LIB, RTLD_NOW | RTLD_GLOBAL), nullptr) << dlerror();
    m_log.clear();

    ASSERT_EQ(whitelist_upload_data(R"({"a":1})", 0), 0) << m_log.dump();
    auto uploads = agent_symbols::uploads();
    ASSERT_EQ(uploads.size(), 1u);
    EXPECT_NE(uploads[0].text.find(R"("host_uuid":"late-uuid")"), std::string::npos) << uploads[0].text;
    EXPECT_NE(uploads[0].text.find(R"("seq_id":"77")"), std::string::npos) << uploads[0].text;

    ASSERT_TRUE(agent_symbols::set_module_switch(1, 0));
    call_log::clear();
    whitelist_main_loop_pass(&g_whitelist_context);
    EXPECT_EQ(calls(), (std::vector<std::string>{"cl_ev_loop_nowait(1)", "cl_event_loop_once", "usleep(5000000)"}));
    EXPECT_FALSE(m_log.contains("g_ms_conf"));
}

}  // namespace
