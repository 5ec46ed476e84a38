// Local-address filters: what is dropped, and only that.
#include <gtest/gtest.h>

#include <algorithm>

#include "byte_image.h"
#include "log_capture.h"
#include "transformer.h"

namespace {

std::unique_ptr<_BASE_EVENTINFO> connection(uint16_t type, const std::string& dstIp) {
    auto event = clearedRecord();
    event->event_type = type;
    stringToWchart(event->detail.connect.dst_ip, 32, dstIp);
    return event;
}

TEST(TransformerFilterBaseEvent, DropsOnlyConnectionsToALocalAddress) {
    struct Case {
        const char* name;
        uint16_t type;
        std::string dstIp;
        std::set<std::string> local;
        bool dropped;
    };
    const std::string longIp(40, '1');
    const Case cases[] = {
        {"empty set", 15, "10.0.0.1", {}, false},
        {"listed", 15, "10.0.0.1", {"192.168.0.1", "10.0.0.1"}, true},
        {"loopback not listed", 15, "127.0.0.1", {"10.0.0.1"}, false},
        {"loopback listed", 15, "127.0.0.1", {"127.0.0.1"}, true},
        {"prefix only", 15, "10.0.0.10", {"10.0.0.1"}, false},
        {"longer", 15, "10.0.0.1", {"10.0.0.10"}, false},
        {"cut to 31", 15, longIp, {longIp.substr(0, 31)}, true},
        {"whole long text", 15, longIp, {longIp}, false},
        {"dns", 16, "10.0.0.1", {"10.0.0.1"}, false},
        {"file", 6, "10.0.0.1", {"10.0.0.1"}, false},
    };
    Transformer transformer;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        LogCapture log;
        auto event = connection(c.type, c.dstIp);
        std::set<std::string> local = c.local;
        ByteImage before(kRecordSize);
        std::memcpy(before.data(), event.get(), kRecordSize);
        EXPECT_EQ(transformer.filterBaseEvent(*event, local), c.dropped);
        EXPECT_EQ(local, c.local);
        EXPECT_TRUE(firstDifference(event.get(), before.data(), kRecordSize).empty());
        if (c.dropped) {
            ASSERT_EQ(log.lines().size(), 1u) << log.dump();
            EXPECT_EQ(log.lines()[0].level, 3);
            EXPECT_EQ(log.lines()[0].text,
                      "match local Ip success, event has been filter, dstIp: " + wcharToString(event->detail.connect.dst_ip));
        } else {
            EXPECT_EQ(log.lines().size(), 0u) << log.dump();
        }
    }
}

TEST(TransformerFilterRaspEvent, ComparesTheHostNameOfAddressActions) {
    struct Case {
        const char* name;
        uint16_t actionType;
        std::string hostName;
        std::string dstIp;
        std::set<std::string> local;
        bool dropped;
    };
    const Case cases[] = {
        {"empty set", 1, "10.0.0.1", "", {}, false},
        {"host listed", 1, "10.0.0.1", "", {"10.0.0.1"}, true},
        {"dst_ip is not compared", 1, "db.local", "10.0.0.1", {"10.0.0.1"}, false},
        {"empty host name", 1, "", "", {"10.0.0.1"}, false},
        {"empty string listed", 1, "", "", {""}, true},
        {"case matters", 1, "LOCALHOST", "", {"localhost"}, false},
        {"other action", 2, "10.0.0.1", "", {"10.0.0.1"}, false},
    };
    Transformer transformer;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        LogCapture log;
        _RASP_EVENTINFO event;
        transformer.initRaspInfo(event);
        event.action_type = c.actionType;
        event.hostName = c.hostName;
        event.dst_ip = c.dstIp;
        std::set<std::string> local = c.local;
        EXPECT_EQ(transformer.filterRaspEvent(event, local), c.dropped);
        EXPECT_EQ(log.count("match local Ip success, event has been filter, dstIp: " + c.hostName, 3),
                  c.dropped ? 1 : 0)
            << log.dump();
    }
}

TEST(TransformerEventOrder, CompSortsByKind) {
    std::vector<_BASE_EVENTINFO> events(4);
    const uint16_t kinds[] = {17, 1, 0xFFFF, 6};
    for (int i = 0; i < 4; ++i) events[i].event_type = kinds[i];
    std::sort(events.begin(), events.end(), comp);
    EXPECT_EQ(events[0].event_type, 1);
    EXPECT_EQ(events[1].event_type, 6);
    EXPECT_EQ(events[2].event_type, 17);
    EXPECT_EQ(events[3].event_type, 0xFFFF);  // unsigned: the largest
    EXPECT_FALSE(comp(events[1], events[1]));
}

}  // namespace
