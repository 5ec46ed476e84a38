// Runtime-application events: learning and matching per action, no delay.
#include <gtest/gtest.h>

#include "engine_test_support.h"

using namespace enginetest;

namespace {

const unsigned long long kPid = 3100;

struct ActionCase {
    unsigned short action;
    const char* learned;
    const char* unknown;
};

const ActionCase kActions[] = {
    {0, "db.shop.local", "evil.example"},
    {1, "payments.local", "attacker.example"},
    {2, "/usr/bin/convert in.png out.png", "/bin/sh -c id"},
    {3, "/var/shop/upload/1.png", "/var/www/shell.jsp"},
    {4, "/etc/shop/app.conf", "/etc/shadow"},
    {5, "/var/shop/tmp/1", "/var/shop/db"},
    {7, "SELECT * FROM cart WHERE id=?", "DROP TABLE cart"},
    {10, "SELECT 1", "EXEC xp_cmdshell 'dir'"},
};

class RaspVerdictTest : public ::testing::Test {
protected:
    void SetUp() override {
        engine = makeRaspEngine();
        ASSERT_TRUE(engine->initModel(startCommand("web", 1, "/usr/bin/java", {kPid}).get()));
    }
    std::unique_ptr<RaspInterface> engine;
};

}  // namespace

TEST_F(RaspVerdictTest, EachActionIsLearnedThenMatched) {
    for (const ActionCase& c : kActions) {
        auto event = raspEvent(kPid, c.action, c.learned);
        engine->processEvent(*event);
        EXPECT_EQ(event->origin_log_flag, 1) << c.learned;
        EXPECT_EQ(event->model_status, "LEARN_PEROID");
        EXPECT_EQ(event->model_name, "web");
        EXPECT_EQ(event->match_verdict, 1);
    }
    engine->elapseTime(60, 0);
    for (const ActionCase& c : kActions) {
        SCOPED_TRACE(c.action);
        auto known = raspEvent(kPid, c.action, c.learned);
        engine->processEvent(*known);
        EXPECT_EQ(known->model_status, "FILTER_PEROID");
        EXPECT_EQ(known->match_verdict, 1);
        EXPECT_EQ(known->origin_log_flag, 0);

        auto unknown = raspEvent(kPid, c.action, c.unknown);
        engine->processEvent(*unknown);
        EXPECT_EQ(unknown->match_verdict, 0) << "black at once: this path has no delay";
    }
}

TEST_F(RaspVerdictTest, SameSubjectUnderAnotherActionIsUnknown) {
    auto write = raspEvent(kPid, 3, "/var/shop/data");
    engine->processEvent(*write);
    engine->elapseTime(60, 0);
    auto remove = raspEvent(kPid, 5, "/var/shop/data");
    engine->processEvent(*remove);
    EXPECT_EQ(remove->match_verdict, 0);
}

TEST_F(RaspVerdictTest, AddressIsJudgedByHostAndPort) {
    auto event = raspEvent(kPid, 1, "payments.local");
    engine->processEvent(*event);
    engine->elapseTime(60, 0);
    auto otherPort = raspEvent(kPid, 1, "payments.local");
    otherPort->port = "9090";
    engine->processEvent(*otherPort);
    EXPECT_EQ(otherPort->match_verdict, 0);
}

TEST_F(RaspVerdictTest, EventsOutsideAnyActiveModelStayWhite) {
    engine->elapseTime(60, 0);
    auto stranger = raspEvent(kPid + 1, 2, "/bin/sh");
    engine->processEvent(*stranger);
    EXPECT_EQ(stranger->match_verdict, 1);
    EXPECT_EQ(stranger->model_status, "");

    auto hostName = raspEvent(kPid, 17, "");
    engine->processEvent(*hostName);
    EXPECT_EQ(hostName->match_verdict, 1) << "host event names carry no action subject";

    ASSERT_EQ(engine->interactModel(command(USR_OPR_SWITCH, "web", 0, USR_SWITCH_OFF).get()), 0);
    auto off = raspEvent(kPid, 2, "/bin/sh");
    engine->processEvent(*off);
    EXPECT_EQ(off->match_verdict, 1);
    EXPECT_EQ(off->origin_log_flag, 0);
}
