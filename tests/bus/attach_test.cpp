// Attaching both plug-ins, and registering the telemetry callback, against
// stand-in libraries placed where the module looks for the real ones.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "bus_test_support.h"
#include "call_log.h"
#include "dirutils.h"
#include "log_capture.h"
#include "temp_dir.h"
#include "orv_log.h"
#include "register.h"
#include "whitelist.h"

namespace {
std::string hex(const unsigned char* id) {
    std::string text;
    char byte[3];
    for (int i = 0; i < 16; ++i) {
        std::snprintf(byte, sizeof(byte), "%02x", id[i]);
        text += byte;
    }
    return text;
}
}  // namespace

// Called by the stand-ins, found in the executable's exported symbols.
extern "C" int wl_fake_bus_result(const char* step) { return call_log::result(step); }
extern "C" void wl_fake_bus_note(const char* call, const unsigned char* id) {
    call_log::record(id != nullptr ? std::string(call) + " " + hex(id) : std::string(call));
}

namespace {

bool isLoaded(const char* path) {
    void* handle = dlopen(path, RTLD_NOW | RTLD_NOLOAD);
    if (handle != nullptr) {
        dlclose(handle);
    }
    return handle != nullptr;
}

// <root>/lib is "@"; <root>/agent_plugins holds what a test places there.
class BusAttachTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directories(m_root / "agent_plugins");
        call_log::reset();
    }

    // A stand-in library, or with a null target a file that isn't one.
    void place(const std::string& name, const char* target) {
        const std::string path = m_root / ("agent_plugins/" + name);
        std::filesystem::remove(path);
        if (target != nullptr) {
            std::filesystem::create_symlink(target, path);
        } else {
            std::ofstream(path) << "not a library";
        }
    }

    TempInstallRoot m_root;
    LogCapture m_log;
};

const char kRegisterId[] = "3bc45648ddc48741219b41abad5687a9";
const char kInvokeId[] = "9d67e2115d668077e28ee9dd3ee6f986";

struct Plugin {
    const char* name;
    std::function<bool()> attach;
    std::function<void()> detach;
    std::string id;
};

TEST_F(BusAttachTest, EachFailingStepLogsItsCodeCleansUpAndALaterAttachWorks) {
    const Plugin plugins[] = {
        {"Register", [] { return Register::GetInstance()->registerInit(); },
         [] { Register::GetInstance()->registerUninit(); }, kRegisterId},
        {"WhitelistInvoke", [] { return whitelist_msgbus_init() == 1; }, [] { whitelist_msgbus_uninit(); }, kInvokeId},
    };
    for (const Plugin& plugin : plugins) {
        const std::string advise = "Advise " + plugin.id;
        const std::string unadvise = "Unadvise " + plugin.id;
        const struct {
            const char* library;  // null: not a library at all
            int objectResult;
            int adviseResult;
            const char* message;
            std::vector<std::string> calls;
        } failures[] = {
            {nullptr, 0, 0, "mb dll open failed!0xffffffff", {}},
            {WL_FAKE_NONE_LIB, 0, 0, "mb dll_get_addr failed!0xffffffff", {}},
            {WL_FAKE_FRAME_LIB, static_cast<int>(0x84ce0001u), 0, "mb get object failed!0x84ce0001", {}},
            {WL_FAKE_FRAME_LIB, 0, 0x2a, "mb advise failed!0x0000002a", {advise, unadvise, "Release"}},
        };
        for (const auto& failure : failures) {
            SCOPED_TRACE(std::string(plugin.name) + ": " + failure.message);
            place("libtulmb.1.so", failure.library);
            call_log::reset();
            call_log::script("DllGetClassObject", failure.objectResult);
            call_log::script("Advise", failure.adviseResult);
            m_log.clear();
            EXPECT_FALSE(plugin.attach());
            EXPECT_EQ(m_log.count(failure.message, LOG_LVL_ERROR), 1) << m_log.dump();
            EXPECT_EQ(call_log::calls(), failure.calls);
            if (failure.library != nullptr) {
                EXPECT_FALSE(isLoaded(failure.library)) << "closed again";
            }
        }

        place("libtulmb.1.so", WL_FAKE_FRAME_LIB);
        call_log::reset();
        EXPECT_TRUE(plugin.attach()) << plugin.name;
        EXPECT_TRUE(plugin.attach()) << "attached already: nothing is asked again";
        EXPECT_EQ(call_log::calls(), std::vector<std::string>{advise}) << plugin.name;
        EXPECT_TRUE(isLoaded(WL_FAKE_FRAME_LIB));
        plugin.detach();
        EXPECT_EQ(call_log::calls(), (std::vector<std::string>{advise, unadvise, "Release"})) << plugin.name;
        EXPECT_FALSE(isLoaded(WL_FAKE_FRAME_LIB)) << plugin.name;
        call_log::clear();
        plugin.detach();
        EXPECT_TRUE(call_log::calls().empty()) << "nothing left to detach";
    }
}

// The registration function, once found, is kept: the library is neither
// loaded again nor ever closed.
TEST_F(BusAttachTest, TelemetryHandlerFailuresThenTwoRegistrations) {
    EXPECT_EQ(whitelist_init_rasp_handler(transmit_rasp_data, nullptr), -1);
    EXPECT_EQ(m_log.count("load liborv_rasp failed:", LOG_LVL_ERROR), 1) << m_log.dump();

    place("liborv_rasp.50.so", WL_FAKE_NONE_LIB);
    EXPECT_EQ(whitelist_init_rasp_handler(transmit_rasp_data, nullptr), -1);
    EXPECT_EQ(m_log.count("load tulmb symbol: orv_rasp_reg_tele_callback failed:", LOG_LVL_ERROR), 1) << m_log.dump();
    EXPECT_FALSE(isLoaded(WL_FAKE_NONE_LIB));
    EXPECT_TRUE(call_log::calls().empty());

    place("liborv_rasp.50.so", WL_FAKE_RASP_LIB);
    m_log.clear();
    call_log::script("orv_rasp_reg_tele_callback", 5);
    EXPECT_EQ(whitelist_init_rasp_handler(transmit_rasp_data, nullptr), 5) << "the registration's own result";
    dirutils_set_install_dir("/nonexistent/lib");  // where nothing could be loaded again
    call_log::script("orv_rasp_reg_tele_callback", 7);
    EXPECT_EQ(whitelist_init_rasp_handler(transmit_rasp_data, nullptr), 7);
    EXPECT_EQ(call_log::calls(),
              (std::vector<std::string>{"orv_rasp_reg_tele_callback", "orv_rasp_reg_tele_callback"}));
    EXPECT_TRUE(isLoaded(WL_FAKE_RASP_LIB));
    EXPECT_EQ(m_log.count("", LOG_LVL_ERROR), 0) << m_log.dump();
}

}  // namespace
