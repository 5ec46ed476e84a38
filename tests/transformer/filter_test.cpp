// Local-address filters: what is dropped, and only that.
#include <gtest/gtest.h>

#include "byte_image.h"
#include "event_records.h"
#include "log_capture.h"
#include "transformer.h"

namespace {

// A drop logs exactly one line naming the address; a pass logs nothing.
void expectLogged(const LogCapture& log, bool dropped, const std::string& address) {
    const std::vector<LoggedLine> lines = log.lines();
    ASSERT_EQ(lines.size(), dropped ? 1u : 0u) << log.dump();
    if (dropped) {
        EXPECT_EQ(lines[0].level, 3);
        EXPECT_EQ(lines[0].text, "match local Ip success, event has been filter, dstIp: " + address);
    }
}

TEST(TransformerFilterBaseEvent, DropsOnlyConnectionsToALocalAddress) {
    struct Case {
        uint16_t type;
        std::string dstIp;
        std::set<std::string> local;
        bool dropped;
    };
    const std::string longIp(40, '1');
    const Case cases[] = {
        {15, "10.0.0.1", {"192.168.0.1", "10.0.0.1"}, true},
        {15, "10.0.0.10", {"10.0.0.1"}, false},
        {15, longIp, {longIp.substr(0, 31)}, true},  // the stored address is cut to 31
        {16, "10.0.0.1", {"10.0.0.1"}, false},
    };
    Transformer transformer;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.dstIp);
        LogCapture log;
        auto event = baseRecord();
        event->event_type = c.type;
        stringToWchart(event->detail.connect.dst_ip, 32, c.dstIp);
        std::set<std::string> local = c.local;
        EXPECT_EQ(transformer.filterBaseEvent(*event, local), c.dropped);
        EXPECT_EQ(local, c.local);
        expectLogged(log, c.dropped, c.dstIp.substr(0, 31));
    }
}

TEST(TransformerFilterRaspEvent, ComparesTheHostNameOfAddressActions) {
    Transformer transformer;
    std::set<std::string> local = {"10.0.0.1"};
    _RASP_EVENTINFO event = raspRecord();
    event.action_type = 1;
    event.hostName = "db.local";
    event.dst_ip = "10.0.0.1";  // not compared
    EXPECT_FALSE(transformer.filterRaspEvent(event, local));
    event.hostName = "10.0.0.1";
    LogCapture log;
    EXPECT_TRUE(transformer.filterRaspEvent(event, local));
    expectLogged(log, true, "10.0.0.1");
}

}  // namespace
