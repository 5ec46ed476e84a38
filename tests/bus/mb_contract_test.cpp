// The binary contract with the bus library: identifiers, table positions,
// record layout and the plug-ins' fixed answers.
#include <gtest/gtest.h>

#include <cstring>

#include "bus_test_support.h"
#include "register.h"
#include "whitelist_invoke.h"

namespace {

// Itanium ABI: a pointer to a virtual member function holds 1 + the byte
// offset of its slot in the table.
template <typename Method>
std::size_t slotOf(Method method) {
    struct Raw {
        std::ptrdiff_t ptr;
        std::ptrdiff_t adj;
    } raw;
    static_assert(sizeof(method) == sizeof(raw), "Itanium member pointer");
    std::memcpy(&raw, &method, sizeof(raw));
    EXPECT_EQ(raw.ptr % static_cast<std::ptrdiff_t>(sizeof(void*)), 1) << "not a virtual function";
    return static_cast<std::size_t>(raw.ptr - 1) / sizeof(void*) + 1;  // 1-based
}

TEST(BusInterfaceIdHash, MatchesTheBusLibraryIdentifiers) {
    struct Case {
        const char* name;
        uint32_t hash;
    } cases[] = {
        {"IEvent", 0x04dccc54u},
        {"IRtmFrame", 0x04e23a55u},
        {"", 0u},
        {"A", 0x41u},
        // A top-bit byte: the sign-extended, arithmetically shifted form.
        {"\xff", 0x0000000fu},  // the published ELF hash gives 0xff
    };
    for (const Case& c : cases) {
        EXPECT_EQ(interface_id_hash(c.name), c.hash) << c.name;
    }
}

TEST(BusInterfaceIdHash, ExportedIdentifiersCarryTheHashInTheirFirstWord) {
    ASSERT_NE(MbFrame::IEvent::IEvent_ID, nullptr);
    ASSERT_NE(MbFrame::IRtmFrame::IRtmFrame_ID, nullptr);
    const _GUID expectEvent = {0x04dccc54u, 0, 0, {0}};
    const _GUID expectFrame = {0x04e23a55u, 0, 0, {0}};
    EXPECT_EQ(std::memcmp(MbFrame::IEvent::IEvent_ID, &expectEvent, sizeof(_GUID)), 0);
    EXPECT_EQ(std::memcmp(MbFrame::IRtmFrame::IRtmFrame_ID, &expectFrame, sizeof(_GUID)), 0);
    const _GUID zero = {0, 0, 0, {0}};
    EXPECT_EQ(std::memcmp(&CLSID_NULL, &zero, sizeof(_GUID)), 0);
}

TEST(BusVirtualTables, OperationsSitAtTheirContractPositions) {
    EXPECT_EQ(slotOf(&IUnknown::QueryInterface), 1u);
    EXPECT_EQ(slotOf(&IUnknown::AddRef), 2u);
    EXPECT_EQ(slotOf(&IUnknown::Release), 3u);
    EXPECT_EQ(slotOf(&MbFrame::IEvent::GetUniqueID), 6u);
    EXPECT_EQ(slotOf(&MbFrame::IEvent::AsyncDroppable), 7u);
    EXPECT_EQ(slotOf(&MbFrame::IEvent::GetNativeEvent), 8u);
    EXPECT_EQ(slotOf(&MbFrame::IPlugin::GetUniqueID), 6u);
    EXPECT_EQ(slotOf(&MbFrame::IPlugin::GetVersion), 7u);
    EXPECT_EQ(slotOf(&MbFrame::IPlugin::OnAdvised), 8u);
    EXPECT_EQ(slotOf(&MbFrame::IPlugin::OnUnadvised), 9u);
    EXPECT_EQ(slotOf(&MbFrame::IPlugin::OnEvent), 10u);
    EXPECT_EQ(slotOf(&MbFrame::IRtmFrame::Release), 3u);
    EXPECT_EQ(slotOf(&MbFrame::IRtmFrame::Advise), 8u);
    EXPECT_EQ(slotOf(&MbFrame::IRtmFrame::Unadvise), 9u);
    EXPECT_EQ(slotOf(&MbFrame::IPluginSetting::RegisterEvents), 3u);
    EXPECT_EQ(slotOf(&MbFrame::IDispatch::Invoke), 1u);
}

TEST(BusNativeRecord, LayoutOfThe32BitBuild) {
#if defined(__i386__)
    EXPECT_EQ(sizeof(_RESPONSE_APP_REQUEST_INFO), 20u);
    EXPECT_EQ(offsetof(_RESPONSE_APP_REQUEST_INFO, data), 12u);
    EXPECT_EQ(offsetof(_RESPONSE_APP_REQUEST_INFO, sub_type), 16u);
#endif
    EXPECT_EQ(offsetof(_RESPONSE_APP_REQUEST_INFO, event_id), 2u);
}

TEST(BusNativeRecord, WritingTheEventIdKeepsTheUpperSixBits) {
    struct Case {
        uint16_t before;
        unsigned int id;
        uint16_t after;
    } cases[] = {
        {0x0000, 19, 19},
        {0xfc00, 20, 0xfc00 | 20},
        {0xffff, 19, 0xfc00 | 19},
        {0x8401, 1022, 0x8400 | 1022},
        {0x0000, 0x7ff, 0x3ff},  // only 10 bits of the ID are written
    };
    for (const Case& c : cases) {
        _RESPONSE_APP_REQUEST_INFO native;
        std::memset(&native, 0, sizeof(native));
        native.event_id = c.before;
        mb_set_event_id(native, c.id);
        EXPECT_EQ(native.event_id, c.after) << std::hex << c.before << " " << c.id;
        EXPECT_EQ(mb_event_id(native), c.id & 0x3ffu);
    }
}

TEST(BusSubscriptions, TableListsTheThreeEventsInOrder) {
    const uint32_t expected[3][2] = {{20, 1}, {19, 1}, {1022, 1}};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(b_RegisterEvent[i].event_id, expected[i][0]);
        EXPECT_EQ(b_RegisterEvent[i].flag, expected[i][1]);
    }
}

TEST(BusPlugins, IdentityVersionAndNullArguments) {
    struct Case {
        MbFrame::IPlugin* plugin;
        unsigned char id[16];
    } cases[] = {
        {Register::GetInstance(),
         {0x3b, 0xc4, 0x56, 0x48, 0xdd, 0xc4, 0x87, 0x41, 0x21, 0x9b, 0x41, 0xab, 0xad, 0x56, 0x87, 0xa9}},
        {WhitelistInvoke::GetInstance(),
         {0x9d, 0x67, 0xe2, 0x11, 0x5d, 0x66, 0x80, 0x77, 0xe2, 0x8e, 0xe9, 0xdd, 0x3e, 0xe6, 0xf9, 0x86}},
    };
    for (Case& c : cases) {
        unsigned char id[16];
        std::memset(id, 0xaa, sizeof(id));
        EXPECT_EQ(c.plugin->GetUniqueID(&id), 0);
        EXPECT_EQ(std::memcmp(id, c.id, 16), 0);
        unsigned int version = 77;
        EXPECT_EQ(c.plugin->GetVersion(&version), 0);
        EXPECT_EQ(version, 1u);

        EXPECT_EQ(static_cast<unsigned int>(c.plugin->GetUniqueID(nullptr)), 0x84ce0002u);
        EXPECT_EQ(static_cast<unsigned int>(c.plugin->GetVersion(nullptr)), 0x84ce0002u);
        // The singletons aren't counted.
        EXPECT_EQ(c.plugin->AddRef(), 0);
        EXPECT_EQ(c.plugin->Release(), 0);
    }
    EXPECT_EQ(white_register, Register::GetInstance());
    EXPECT_EQ(wlist_invoke, WhitelistInvoke::GetInstance());
}

TEST(BusPlugins, QueryInterfaceAnswers) {
    void* out = reinterpret_cast<void*>(0x1234);
    EXPECT_EQ(Register::GetInstance()->QueryInterface(*MbFrame::IEvent::IEvent_ID, &out), 0);
    EXPECT_EQ(out, reinterpret_cast<void*>(0x1234)) << "Register writes nothing";
    EXPECT_EQ(static_cast<unsigned int>(WhitelistInvoke::GetInstance()->QueryInterface(CLSID_NULL, &out)),
              0x84ce0012u);
    EXPECT_EQ(out, reinterpret_cast<void*>(0x1234)) << "WhitelistInvoke writes nothing";
}

}  // namespace
