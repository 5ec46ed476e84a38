// The whole road of an event: a source hands it to the publisher, the real
// bus library delivers it to the subscriber, the engine's worker takes it
// from the queue to the (fake) model library and the upload.
#include <gtest/gtest.h>

#include "base.h"
#include "bus_library.h"
#include "bus_test_support.h"
#include "dirutils.h"
#include "engine_test_env.h"
#include "log_capture.h"
#include "rasp.h"
#include "recorders.h"
#include "register.h"
#include "whitelist.h"
#include "whitelist_event.h"
#include "whitelist_mb.h"
#include "whitelist_upload.h"

using fake_model::Engine;
using fake_model::Library;

class BusPathTest : public EngineTest {
protected:
    void SetUp() override {
        EngineTest::SetUp();
        ASSERT_TRUE(m_bus.loaded()) << "build the tulmb target first";
        orv_event_init(&g_vr_event, 0, 1);
        // The bus plug-ins are found from the staged tree, the engines'
        // directories live in the test's own root.
        dirutils_set_install_dir(WL_TEST_STAGE_LIB);
        ASSERT_EQ(1, whitelist_msgbus_init()) << m_log.dump();
        ASSERT_EQ(1, attachAndStart()) << m_log.dump();
    }
    void TearDown() override {
        EngineTest::TearDown();
        Register::GetInstance()->registerUninit();
        whitelist_msgbus_uninit();
        orv_event_destroy(g_vr_event);
        g_vr_event = nullptr;
    }
    int attachAndStart() {
        if (!Register::GetInstance()->registerInit()) {
            return 0;
        }
        dirutils_set_install_dir(path("lib").c_str());
        return BaseEngine::GetInstance()->Initialize() && RaspEngine::GetInstance()->Initialize() ? 1 : 0;
    }

    LogCapture m_log;
    BusLibrary m_bus;
};

TEST_F(BusPathTest, CollectorRecordBecomesAnAlarm) {
    Library::instance().queueVerdict(Engine::Base, {0, 0, 0, "FILTER_PEROID"});
    Library::instance().setDefaultText(Engine::Base, "getBlackLog", "{\"shell\":1}");
    auto message = collectorMessage(ACTION_FILE_DELETION, fileRecord("FILE_CREATION", "/var/www/shell.php"));
    transmit_action_data(reinterpret_cast<const action_collector_msg*>(message.data()));

    ASSERT_TRUE(waitUntil([] { return !module_fakes::uploads(WL_REPORT_ALARM).empty(); })) << m_log.dump();
    std::vector<fake_model::Call> seen = Library::instance().calls(Engine::Base, "processEvent");
    ASSERT_EQ(1u, seen.size());
    EXPECT_EQ(6, seen[0].eventType);
    EXPECT_EQ("{\"shell\":1}", module_fakes::uploads(WL_REPORT_ALARM)[0].text);
}
