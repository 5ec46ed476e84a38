// SQL statements are learned by their shape: values, lists of values,
// layout and comments vary per request; the statement's structure does not.
#include <gtest/gtest.h>

#include "same_cases.h"

using namespace enginetest;

namespace {

const std::string kOrders = "mysql SELECT * FROM orders WHERE id=1";

SameCase sql(const char* rule, const std::string& learned, const std::string& probe, bool same) {
    return SameCase{rule, {learned}, {probe}, same};
}

}  // namespace

TEST(NormaliseSqlTest, ValuesListsLayoutAndCommentsFoldAway) {
    expectCases<RaspInterface>({
        sql("number", kOrders, "mysql SELECT * FROM orders WHERE id=2", true),
        sql("decimal and exponent", "mysql SELECT 1 FROM t WHERE p > 1.5", "mysql SELECT 1 FROM t WHERE p > 2e10",
            true),
        sql("negative after an operator", "mysql SELECT 1 FROM t WHERE b > -5", "mysql SELECT 1 FROM t WHERE b > 7",
            true),
        sql("negative after a keyword", "mysql SELECT -1", "mysql SELECT 4", true),
        sql("string", "mysql SELECT 1 FROM u WHERE n='bob'", "mysql SELECT 1 FROM u WHERE n='O''Brien'", true),
        sql("backslash escape", "mysql SELECT 1 FROM u WHERE n='a'", "mysql SELECT 1 FROM u WHERE n='it\\'s'", true),
        sql("double-quoted string", "mysql SELECT 1 FROM u WHERE n=\"a\"", "mysql SELECT 1 FROM u WHERE n='b'", true),
        sql("date", "mysql SELECT 1 FROM t WHERE d > DATE '2024-01-01'",
            "mysql SELECT 1 FROM t WHERE d > DATE '2025-12-31'", true),
        sql("timestamp", "mysql SELECT 1 FROM t WHERE d > '2024-01-01 10:00:00'",
            "mysql SELECT 1 FROM t WHERE d > '2024-05-17 23:59:59.999'", true),
        sql("hexadecimal", "mysql SELECT 1 FROM t WHERE h = 0x1F", "mysql SELECT 1 FROM t WHERE h = X'ABCD'", true),
        sql("charset introducer", "mysql SELECT 1 FROM t WHERE n = _utf8mb4'x'", "mysql SELECT 1 FROM t WHERE n = 'y'",
            true),
        sql("null and truth values", "mysql UPDATE t SET a = NULL, b = TRUE", "mysql UPDATE t SET a = 3, b = 'x'",
            true),
        sql("IN list length", "mysql SELECT * FROM p WHERE id IN (1,2,3)", "mysql SELECT * FROM p WHERE id IN (9)",
            true),
        sql("IN list of strings", "mysql SELECT * FROM o WHERE s IN ('paid','shipped')",
            "mysql SELECT * FROM o WHERE s IN ('paid', 'shipped', 'returned')", true),
        sql("tuple IN list", "mysql SELECT 1 FROM t WHERE (a,b) IN ((1,2),(3,4))",
            "mysql SELECT 1 FROM t WHERE (a,b) IN ((5,6))", true),
        sql("VALUES rows", "mysql INSERT INTO l (a,b) VALUES (1,'x'),(2,'y')",
            "mysql INSERT INTO l (a,b) VALUES (3,'z')", true),
        sql("LIMIT and OFFSET", "mysql SELECT * FROM p LIMIT 10 OFFSET 20", "mysql SELECT * FROM p LIMIT 50 OFFSET 0",
            true),
        sql("whitespace and keyword case", kOrders, "mysql select *\n   from ORDERS\twhere ID =  7", true),
        sql("block comment", kOrders, "mysql /* request 4f1c */ SELECT * FROM orders WHERE id=5", true),
        sql("line comments", kOrders, "mysql SELECT * FROM orders WHERE id=5 -- from cart\n# page 3", true),
        sql("closing semicolon", kOrders, "mysql SELECT * FROM orders WHERE id=5;", true),
        sql("bound parameter", kOrders, "mysql SELECT * FROM orders WHERE id=?", true),
        sql("named parameter", "oracle SELECT * FROM t WHERE id = :id", "oracle SELECT * FROM t WHERE id = 12", true),
        sql("numbered parameter", "postgre SELECT * FROM t WHERE id = $1", "postgre SELECT * FROM t WHERE id = 12",
            true),
        sql("server parameter", "sqlserver SELECT * FROM t WHERE id = @P0", "sqlserver SELECT * FROM t WHERE id = 12",
            true),
        sql("dollar quoting", "postgre SELECT $$a b$$", "postgre SELECT $x$c$x$", true),
        sql("unicode string", "sqlserver SELECT 1 FROM t WHERE n = N'x'", "sqlserver SELECT 1 FROM t WHERE n = 'y'",
            true),
        sql("alternative quoting", "oracle SELECT q'[it's]' FROM dual", "oracle SELECT 'x' FROM dual", true),
    });
}

TEST(NormaliseSqlTest, TheStatementsShapeStaysNew) {
    expectCases<RaspInterface>({
        sql("tautology", kOrders, "mysql SELECT * FROM orders WHERE id=1 OR 1=1", false),
        sql("union", kOrders, "mysql SELECT * FROM orders WHERE id=1 UNION SELECT user, pass FROM users", false),
        sql("new table", kOrders, "mysql SELECT * FROM users WHERE id=1", false),
        sql("stacked drop", kOrders, "mysql SELECT * FROM orders WHERE id=1; DROP TABLE users", false),
        sql("function for a value", kOrders, "mysql SELECT * FROM orders WHERE id=SLEEP(5)", false),
        sql("quote breaking out", "mysql SELECT 1 FROM u WHERE n='a' AND p='b'",
            "mysql SELECT 1 FROM u WHERE n='a'-- ' AND p='b'", false),
        sql("executed comment", "mysql SELECT 1 FROM t", "mysql SELECT 1 FROM t /*!50000 UNION SELECT 2 */", false),
        sql("IS NULL is syntax", "mysql SELECT 1 FROM t WHERE a IS NULL", "mysql SELECT 1 FROM t WHERE a IS 1", false),
        sql("subquery in IN", "mysql SELECT * FROM p WHERE id IN (1,2)",
            "mysql SELECT * FROM p WHERE id IN (SELECT id FROM users)", false),
        sql("quoted identifier keeps its case", "postgre SELECT 1 FROM \"Users\"", "postgre SELECT 1 FROM \"users\"",
            false),
        sql("double quotes name a column outside MySQL", "postgre SELECT \"a\" FROM t", "postgre SELECT \"b\" FROM t",
            false),
        sql("another statement", "mysql SELECT * FROM orders", "mysql DELETE FROM orders", false),
        sql("dialects differ", "mysql SELECT 1", "postgre SELECT 1", false),
        // Seen twice, a text may be remembered folded: only for its own dialect.
        {"dialects differ for a repeated text",
         {"mysql SELECT 1 FROM t WHERE n = \"a\"", "mysql SELECT 1 FROM t WHERE n = \"a\""},
         {"postgre SELECT 1 FROM t WHERE n = \"a\""},
         false},
    });
}

// A statement seen twice is remembered by its skeleton (values, blanks and
// leading comments collapsed): a statement with the same skeleton and
// another shape must still be folded for itself.
TEST(NormaliseSqlTest, ARememberedStatementStandsOnlyForItsOwnShape) {
    struct Case {
        const char* rule;
        std::string learned;
        std::string probe;
    };
    const Case cases[] = {
        {"digits in a quoted name", "postgre SELECT \"a 1\" FROM t", "postgre SELECT \"a 2\" FROM t"},
        {"blanks in a quoted name", "mysql SELECT `a  b` FROM t", "mysql SELECT `a b` FROM t"},
        {"digits in a bracketed name", "sqlserver SELECT [c 1] FROM t", "sqlserver SELECT [c 2] FROM t"},
        {"a line comment ends at its line break", "mysql SELECT a FROM t -- n\n WHERE b = 1",
         "mysql SELECT a FROM t -- n  WHERE b = 1"},
        {"a hash comment ends at its line break", "mysql SELECT a FROM t # n\nWHERE b = 1",
         "mysql SELECT a FROM t # n WHERE b = 1"},
        {"digits of a server variable", "mysql SELECT @@1 FROM t", "mysql SELECT @@2 FROM t"},
        {"an escaped quote", "mysql SELECT a FROM t WHERE n = 'p\\' OR b = ' LIMIT 1",
         "mysql SELECT a FROM t WHERE n = 'q' OR b = ' LIMIT 1"},
        {"a quote in a comment", "postgre SELECT a /* ' */, secret /* ' */ FROM t",
         "postgre SELECT a /* ' */, other /* ' */ FROM t"},
        {"a quote in dollar quoting", "postgre SELECT $$'$$, secret, $$'$$", "postgre SELECT $$'$$, other, $$'$$"},
        {"a quote in a double-quoted string", "mysql SELECT \"'\", secret, \"'\"", "mysql SELECT \"'\", other, \"'\""},
        {"a digit closing alternative quoting", "oracle SELECT q'1x1', a FROM dual",
         "oracle SELECT q'22x1', a FROM dual"},
    };
    for (const Case& c : cases) {
        EXPECT_FALSE(knows<RaspInterface>({c.learned, c.learned}, {c.probe}))
            << c.rule << "\n  learned: " << c.learned << "\n  probe:   " << c.probe;
    }
}

TEST(NormaliseSqlTest, AFedBackAlarmTeachesItsShape) {
    auto engine = startedEngine<RaspInterface>(1);
    feed(*engine, {kOrders});
    engine->elapseTime(60, 0);
    auto alarm = raspLine("mysql SELECT total FROM invoices WHERE id = 17 AND token = 'k3J9x'");
    ASSERT_TRUE(judgedBlack(*engine, *alarm));
    std::vector<_RASP_EVENTINFO> records;
    ASSERT_TRUE(Transformer().judgeAlarmEventType("[" + engine->getBlackLog(*alarm, 1) + "]", records));
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(engine->feedbackAlarm(records[0]), 0);
    EXPECT_FALSE(judgedBlack(*engine, *raspLine("mysql SELECT total FROM invoices WHERE id=18 AND token='zz'")));
    EXPECT_TRUE(judgedBlack(*engine, *raspLine("mysql SELECT total FROM invoices WHERE id=18 OR 1=1")));
}
