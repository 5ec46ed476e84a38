// The binary contract with the bus library: identifiers, table positions,
// record layout and the plug-ins' fixed answers.
#include <gtest/gtest.h>

#include <cstring>

#include "bus_test_support.h"
#include "register.h"
#include "whitelist_event.h"
#include "whitelist_invoke.h"

namespace {

// Itanium ABI: a pointer to a virtual member function holds 1 + the byte
// offset of its slot in the table.
template <typename Method>
std::size_t slotOf(Method method) {
    std::ptrdiff_t raw[2];
    static_assert(sizeof(method) == sizeof(raw), "Itanium member pointer");
    std::memcpy(raw, &method, sizeof(raw));
    return static_cast<std::size_t>(raw[0] - 1) / sizeof(void*) + 1;  // 1-based
}

TEST(BusInterfaceIdHash, MatchesTheBusLibraryIdentifiers) {
    EXPECT_EQ(interface_id_hash("IEvent"), 0x04dccc54u);
    EXPECT_EQ(interface_id_hash("IRtmFrame"), 0x04e23a55u);
    // A top-bit byte is sign-extended and shifted arithmetically; the
    // published ELF hash gives 0xff.
    EXPECT_EQ(interface_id_hash("\xff"), 0x0000000fu);
}

TEST(BusVirtualTables, OperationsSitAtTheirContractPositions) {
    EXPECT_EQ(slotOf(&IUnknown::Release), 3u);
    EXPECT_EQ(slotOf(&MbFrame::IEvent::GetUniqueID), 6u);
    EXPECT_EQ(slotOf(&MbFrame::IEvent::GetNativeEvent), 8u);
    EXPECT_EQ(slotOf(&MbFrame::IPlugin::GetUniqueID), 6u);
    EXPECT_EQ(slotOf(&MbFrame::IPlugin::OnAdvised), 8u);
    EXPECT_EQ(slotOf(&MbFrame::IPlugin::OnEvent), 10u);
    EXPECT_EQ(slotOf(&MbFrame::IRtmFrame::Advise), 8u);
    EXPECT_EQ(slotOf(&MbFrame::IRtmFrame::Unadvise), 9u);
    EXPECT_EQ(slotOf(&MbFrame::IPluginSetting::RegisterEvents), 3u);
    EXPECT_EQ(slotOf(&MbFrame::IDispatch::Invoke), 1u);
}

TEST(BusNativeRecord, LayoutAndTheEventIdKeepingTheUpperSixBits) {
#if defined(__i386__)
    EXPECT_EQ(sizeof(_RESPONSE_APP_REQUEST_INFO), 20u);
    EXPECT_EQ(offsetof(_RESPONSE_APP_REQUEST_INFO, data), 12u);
#endif
    EXPECT_EQ(offsetof(_RESPONSE_APP_REQUEST_INFO, event_id), 2u);
    const struct {
        uint16_t before;
        unsigned int id;
        uint16_t after;
    } cases[] = {{0xfc00, 20, 0xfc00 | 20}, {0xffff, 1022, 0xfc00 | 1022}, {0, 0x7ff, 0x3ff}};
    for (const auto& c : cases) {
        _RESPONSE_APP_REQUEST_INFO native{};
        native.event_id = c.before;
        mb_set_event_id(native, c.id);
        EXPECT_EQ(native.event_id, c.after) << std::hex << c.before << " " << c.id;
        EXPECT_EQ(mb_event_id(native), c.id & 0x3ffu);
    }
}

TEST(BusPlugins, IdentityVersionAndNullArguments) {
    const struct {
        MbFrame::IPlugin* plugin;
        unsigned char id[16];
    } cases[] = {
        {Register::GetInstance(),
         {0x3b, 0xc4, 0x56, 0x48, 0xdd, 0xc4, 0x87, 0x41, 0x21, 0x9b, 0x41, 0xab, 0xad, 0x56, 0x87, 0xa9}},
        {WhitelistInvoke::GetInstance(),
         {0x9d, 0x67, 0xe2, 0x11, 0x5d, 0x66, 0x80, 0x77, 0xe2, 0x8e, 0xe9, 0xdd, 0x3e, 0xe6, 0xf9, 0x86}},
    };
    for (const auto& c : cases) {
        unsigned char id[16] = {};
        EXPECT_EQ(c.plugin->GetUniqueID(&id), 0);
        EXPECT_EQ(std::memcmp(id, c.id, 16), 0);
        unsigned int version = 77;
        EXPECT_EQ(c.plugin->GetVersion(&version), 0);
        EXPECT_EQ(version, 1u);
        EXPECT_EQ(static_cast<unsigned int>(c.plugin->GetUniqueID(nullptr)), 0x84ce0002u);
        EXPECT_EQ(static_cast<unsigned int>(c.plugin->GetVersion(nullptr)), 0x84ce0002u);
    }
}

TEST(BusQueryInterface, PluginsAnswerWithoutWritingAndEventsHandOutOnlyIEvent) {
    const _GUID other = {0x04dccc54u, 0, 0, {0, 0, 0, 0, 0, 0, 0, 1}};
    void* untouched = &untouched;
    EXPECT_EQ(Register::GetInstance()->QueryInterface(*MbFrame::IEvent::IEvent_ID, &untouched), 0);
    EXPECT_EQ(static_cast<unsigned int>(
                  WhitelistInvoke::GetInstance()->QueryInterface(*MbFrame::IEvent::IEvent_ID, &untouched)),
              0x84ce0012u);
    EXPECT_EQ(untouched, &untouched);

    _RESPONSE_APP_REQUEST_INFO* native = nullptr;
    MbFrame::IEvent* events[] = {WhitelistEvent::New(native), EventTrace::CBaseEvent::New(native)};
    for (MbFrame::IEvent* event : events) {
        ASSERT_NE(event, nullptr);
        const struct {
            const _GUID* iid;
            unsigned int result;
            void* out;
            int references;
        } cases[] = {
            {MbFrame::IEvent::IEvent_ID, 0, event, 2},
            {&other, 0x80004002u, nullptr, 2},
            {MbFrame::IRtmFrame::IRtmFrame_ID, 0x80004002u, nullptr, 2},
        };
        for (const auto& c : cases) {
            void* out = &out;
            EXPECT_EQ(static_cast<unsigned int>(event->QueryInterface(*c.iid, &out)), c.result) << c.iid->Data1;
            EXPECT_EQ(out, c.out) << c.iid->Data1;
        }
        EXPECT_EQ(static_cast<unsigned int>(event->QueryInterface(*MbFrame::IEvent::IEvent_ID, nullptr)), 0x80004003u);
        EXPECT_EQ(event->Release(), 1) << "the one successful query added a reference";
        EXPECT_EQ(event->Release(), 0);
    }
}

}  // namespace
