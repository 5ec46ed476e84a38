// File paths are learned by directory, name pattern and extension: the
// numbers, hashes, UUIDs, timestamps and temporary names in them vary.
#include <gtest/gtest.h>

#include "same_cases.h"

using namespace enginetest;

namespace {

// The same path rule holds for host file events and the runtime
// application's file actions.
std::vector<SameCase> pathCases(const std::string& kind) {
    auto c = [&kind](const char* rule, const std::string& learned, const std::string& probe, bool same) {
        return SameCase{rule, {kind + " " + learned}, {kind + " " + probe}, same};
    };
    return {
        c("number", "/var/shop/invoices/INV-1001.pdf", "/var/shop/invoices/INV-73.pdf", true),
        c("number in a word", "/var/shop/cache/page7731.html", "/var/shop/cache/page12.html", true),
        c("numeric directory", "/proc/1234/status", "/proc/99/status", true),
        c("hexadecimal", "/var/shop/cache/9f86d081884c7d65.cache", "/var/shop/cache/5e884898da280471.cache", true),
        c("hexadecimal of digits only", "/var/shop/cache/a3f9c2e1b4d5.bin", "/var/shop/cache/830142957710.bin", true),
        c("UUID", "/var/shop/upload/7f3c9a2e-41d8-4b7e-9c2a-1e5f6a7b8c9d.jpg",
          "/var/shop/upload/0B1C2D3E-AAAA-4bbb-8ccc-000000000000.jpg", true),
        c("date", "/var/log/shop/app-2024-05-17.log", "/var/log/shop/app-2025-01-02.log", true),
        c("timestamp with fraction and zone", "/var/shop/export/run-2024-05-17T10:22:33Z.csv",
          "/var/shop/export/run-2024-05-18T01:02:03.456+02:00.csv", true),
        c("random identifier", "/var/lib/php/sessions/sess_k3j9x2m8z8a7b6c5d4e3f2g1h0",
          "/var/lib/php/sessions/sess_q1w2e3r4t5y6u7i8o9p0a1s2d3", true),
        c("Python temporary name", "/tmp/tmpk3j_2x9a", "/tmp/tmpabqzwxyo", true),
        c("mktemp temporary name", "/srv/work/tmp.Xy12AbCd9Q", "/srv/work/tmp.a8B7c6D5e4", true),
        c("PHP upload", "/var/lib/php/upload/phpA1b2C3", "/var/lib/php/upload/phpZ9y8X7", true),
        c("PHP upload in a temporary directory", "/tmp/phpA1b2C3", "/tmp/phplvlhyt", true),
        c("C library tmpnam", "/var/spool/shop/fileAbc123", "/var/spool/shop/fileQ7r8S9", true),
        c("random name in a temporary directory", "/tmp/shop-Ab3dEf/part", "/tmp/shop-x9Y8z7/part", true),
        c("Java temporary file", "/tmp/upload_8812736451293847561.tmp", "/tmp/upload_42.tmp", true),
        c("mkstemp tail after a prefix", "/var/shop/export/orders-20240517-Ab3dEf.csv",
          "/var/shop/export/orders-20240602-x9Y8z7.csv", true),
        c("Python tail after a prefix", "/var/shop/export/run.k3j_2x9a", "/var/shop/export/run.zz81qpa0", true),
        c("a tail of one case without digits is a word", "/var/shop/export/orders-report.csv",
          "/var/shop/export/orders-ledger.csv", false),
        c("new directory", "/var/shop/upload/1.jpg", "/var/shop/upload2/1.jpg", false),
        c("new extension", "/var/shop/upload/1.jpg", "/var/shop/upload/1.php", false),
        c("new name", "/etc/passwd", "/etc/shadow", false),
        c("words are names", "/var/shop/templates/cart.html", "/var/shop/templates/admin.html", false),
        c("capitals outside a temporary place", "/var/shop/templates/OrderList.html",
          "/var/shop/templates/UserList.html", false),
        c("traversal", "/var/shop/upload/1.jpg", "/var/shop/upload/../../../etc/passwd", false),
        c("a temporary prefix needs a random tail", "/usr/lib/tmpfiles.d/shop.conf", "/usr/lib/tmpwords.d/shop.conf",
          false),
    };
}

}  // namespace

TEST(NormalisePathTest, HostFileEventsFoldVariableRunsAndKeepDirectoriesAndExtensions) {
    expectCases<BaseInterface>(pathCases("file"));
}

TEST(NormalisePathTest, RuntimeApplicationFileActionsFollowTheSameRules) {
    expectCases<RaspInterface>(pathCases("write"));
    expectCases<RaspInterface>(
        {{"actions stay apart", {"write /var/shop/upload/1.jpg"}, {"delete /var/shop/upload/2.jpg"}, false}});
}

TEST(NormalisePathTest, AFedBackFileAlarmTeachesItsPattern) {
    auto engine = startedEngine<BaseInterface>(1);
    feed(*engine, {"file /var/shop/upload/1.jpg"});
    engine->elapseTime(60, 0);
    auto alarm = hostLine("file /var/shop/reports/daily-2024-05-17.pdf");
    ASSERT_TRUE(judgedBlack(*engine, *alarm));
    std::vector<_BASE_EVENTINFO> records;
    ASSERT_TRUE(Transformer().judgeAlarmEventType("[" + engine->getBlackLog(*alarm, 1) + "]", records));
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(engine->feedbackAlarm(records[0]), 0);
    EXPECT_FALSE(judgedBlack(*engine, *hostLine("file /var/shop/reports/daily-2024-05-18.pdf")));
    EXPECT_TRUE(judgedBlack(*engine, *hostLine("file /var/shop/reports/daily-2024-05-18.php")));
}
