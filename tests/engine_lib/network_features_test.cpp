// Connections are learned by the name the application looked up for the
// address, and the destination port; DNS names and listening ports exactly.
#include <gtest/gtest.h>

#include "same_cases.h"

using namespace enginetest;

namespace {

const char kLookup[] = "dns api.pay.example 198.51.100.10";
const char kCall[] = "connect 198.51.100.10 443 tcp 51000";

}  // namespace

TEST(NetworkFeaturesTest, HostConnectionsGoByTheLookedUpNameAndPort) {
    expectCases<BaseInterface>({
        {"source port", {kLookup, kCall}, {"connect 198.51.100.10 443 tcp 39999"}, true},
        {"moved address",
         {kLookup, kCall},
         {"dns api.pay.example 198.51.100.77", "connect 198.51.100.77 443 tcp 40001"},
         true},
        {"one of several answers",
         {kLookup, kCall},
         {"dns api.pay.example 198.51.100.5;198.51.100.6, 2001:db8::6", "connect 2001:db8::6 443 tcp 40001"},
         true},
        {"an address never looked up", {kLookup, kCall}, {"connect 198.51.100.77 443 tcp 40001"}, false},
        {"another port", {kLookup, kCall}, {"connect 198.51.100.10 8443 tcp 40001"}, false},
        {"another protocol", {kLookup, kCall}, {"connect 198.51.100.10 443 udp 40001"}, false},
        {"another name for the address",
         {kLookup, kCall},
         {"dns evil.example 198.51.100.10", "connect 198.51.100.10 443 tcp 40001"},
         false},
        {"a raw address", {"connect 10.0.0.5 3306 tcp 50000"}, {"connect 10.0.0.5 3306 tcp 50001"}, true},
        {"another raw address", {"connect 10.0.0.5 3306 tcp 50000"}, {"connect 10.0.0.6 3306 tcp 50000"}, false},
    });
}

TEST(NetworkFeaturesTest, NamesAndListeningPortsAreKeptExactly) {
    expectCases<BaseInterface>({
        {"same name", {kLookup}, {"dns api.pay.example 203.0.113.1"}, true},
        {"another name", {kLookup}, {"dns api2.pay.example 198.51.100.10"}, false},
        {"a name with digits", {"dns n1.pay.example 1.1.1.1"}, {"dns n2.pay.example 1.1.1.1"}, false},
        {"same port", {"listen 8080 tcp"}, {"listen 8080 tcp"}, true},
        {"another port", {"listen 8080 tcp"}, {"listen 8081 tcp"}, false},
        {"another protocol", {"listen 8080 tcp"}, {"listen 8080 udp"}, false},
    });
    expectCases<RaspInterface>({
        {"same name", {"dns api.pay.example"}, {"dns api.pay.example"}, true},
        {"another name", {"dns api.pay.example"}, {"dns x1.pay.example"}, false},
        {"host and port", {"address api.pay.example 443"}, {"address api.pay.example 443"}, true},
        {"another port", {"address api.pay.example 443"}, {"address api.pay.example 8443"}, false},
        {"the host of a URL",
         {"address api.pay.example 443"},
         {"destination https://api.pay.example:443/v1/charges/17?token=k3J9 443"},
         true},
        {"another host of a URL", {"address api.pay.example 443"}, {"destination https://evil.example/x 443"}, false},
    });
}

TEST(NetworkFeaturesTest, AFedBackConnectionAlarmTeachesTheName) {
    auto engine = startedEngine<BaseInterface>(1);
    feed(*engine, {kLookup, kCall});
    engine->elapseTime(60, 0);
    judgedBlack(*engine, *hostLine("dns cdn.pay.example 203.0.113.8"));  // a new name: an alarm of its own
    auto alarm = hostLine("connect 203.0.113.8 443 tcp 41000");
    ASSERT_TRUE(judgedBlack(*engine, *alarm));
    std::vector<_BASE_EVENTINFO> records;
    ASSERT_TRUE(Transformer().judgeAlarmEventType("[" + engine->getBlackLog(*alarm, 1) + "]", records));
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(engine->feedbackAlarm(records[0]), 0);
    judgedBlack(*engine, *hostLine("dns cdn.pay.example 203.0.113.9"));
    EXPECT_FALSE(judgedBlack(*engine, *hostLine("connect 203.0.113.9 443 tcp 41001")))
        << "the feedback taught the name, not the address";
}
