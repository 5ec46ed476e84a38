// A web shop's behaviour, request by request, in the notation of
// event_script.h: what its runtime-application probe reports and what the
// host sees of the same work. Every literal an operator would see vary
// varies: ids, tokens, timestamps, search terms, list lengths, upload and
// cache names, temporary files, addresses behind names, source ports. A
// day is a set of values: a second day shares no id, name or term with
// the first.
#ifndef ENGINE_LIB_SHOP_TRAFFIC_H
#define ENGINE_LIB_SHOP_TRAFFIC_H

#include <random>
#include <string>
#include <vector>

namespace enginetest {

struct ShopRequest {
    std::vector<std::string> rasp;
    std::vector<std::string> host;
};

class ShopTraffic {
public:
    ShopTraffic(unsigned seed, unsigned day) : m_random(seed), m_day(day) {}

    ShopRequest next() {
        ShopRequest r;
        session(r);
        unsigned kind = number(0, 99);
        if (kind < 30)
            productView(r);
        else if (kind < 50)
            search(r);
        else if (kind < 65)
            cartAdd(r);
        else if (kind < 73)
            checkout(r);
        else if (kind < 83)
            orderHistory(r);
        else if (kind < 91)
            login(r);
        else if (kind < 97)
            imageUpload(r);
        else
            adminExport(r);
        r.host.push_back("connect 10.0.0.5 3306 tcp " + std::to_string(number(32768, 60999)));
        if (number(0, 99) < 2) r.host.push_back(number(0, 1) ? "listen 8080 tcp" : "listen 9000 tcp");
        return r;
    }

private:
    unsigned number(unsigned low, unsigned high) {
        return std::uniform_int_distribution<unsigned>(low, high)(m_random);
    }
    std::string id() { return std::to_string(m_day * 100000 + number(1, 99999)); }
    template <std::size_t N>
    const char* pick(const char* const (&choices)[N]) {
        return choices[number(0, N - 1)];
    }
    std::string chars(std::size_t n, const char* alphabet) {
        std::string text;
        std::size_t size = std::char_traits<char>::length(alphabet);
        for (std::size_t i = 0; i < n; ++i) text.push_back(alphabet[number(0, static_cast<unsigned>(size - 1))]);
        return text;
    }
    std::string hex(std::size_t n) { return chars(n, "0123456789abcdef"); }
    std::string token(std::size_t n) { return chars(n, "abcdefghijklmnopqrstuvwxyz0123456789"); }
    std::string uuid() { return hex(8) + "-" + hex(4) + "-4" + hex(3) + "-a" + hex(3) + "-" + hex(12); }
    std::string pythonTemporary() { return "/tmp/tmp" + chars(8, "abcdefghijklmnopqrstuvwxyz0123456789_"); }
    std::string mkstempTail() { return chars(6, "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"); }
    std::string phpUpload() { return "/tmp/php" + mkstempTail(); }
    std::string two(unsigned value) { return (value < 10 ? "0" : "") + std::to_string(value); }
    std::string date(const char* separator = "-") {
        return std::to_string(2024 + m_day) + separator + two(1 + m_day * 5 % 12) + separator + two(number(1, 28));
    }
    std::string timestamp() {
        return date() + " " + two(number(0, 23)) + ":" + two(number(0, 59)) + ":" + two(number(0, 59));
    }
    std::string price() { return std::to_string(number(1, 999)) + "." + two(number(0, 99)); }
    std::string port() { return std::to_string(number(32768, 60999)); }

    // Values an ORM or a hand-written query puts in SQL text, some with
    // quotes, some in other scripts.
    std::string searchTerm() {
        static const char* const kTerms[2][6] = {
            {"red shoes", "summer dress", "O''Neill jacket", "caf\xc3\xa9 mug", "kids 3-5", "50% off"},
            {"wool scarf", "it\\'s new", "\xe6\x89\x8b\xe6\x9c\xba case", "USB-C 2m", "size 42", "d''Artagnan"}};
        return kTerms[m_day % 2][number(0, 5)];
    }

    // The same statement in the layouts different code paths produce.
    std::string layout(std::string sql) {
        switch (number(0, 3)) {
            case 0:
                for (char& c : sql) c = static_cast<char>(c == ' ' && number(0, 5) == 0 ? '\n' : c);
                return sql;
            case 1: return "/* request_id=" + uuid() + " */ " + sql;
            case 2: return sql + ";";
            default: return sql;
        }
    }
    void sql(ShopRequest& r, const std::string& text) { r.rasp.push_back("mysql " + layout(text)); }

    // Both streams see a file the application touches.
    void file(ShopRequest& r, const char* action, const std::string& path) {
        r.rasp.push_back(std::string(action) + " " + path);
        r.host.push_back("file " + path);
    }
    void run(ShopRequest& r, const std::string& program, const std::string& arguments) {
        r.rasp.push_back("execute " + program + " " + arguments);
        r.host.push_back("process " + program + " " + program + " " + arguments);
    }
    // The application resolves now and then and reuses the answer.
    void call(ShopRequest& r, const std::string& name, unsigned servicePort, std::string& cached) {
        if (cached.empty() || number(0, 9) == 0) {
            cached = m_day == 0 ? "198.51.100." + std::to_string(number(10, 19))
                                : "203.0.113." + std::to_string(number(20, 250));
            r.host.push_back("dns " + name + " " + cached + ";" + "198.51.100.9");
            r.rasp.push_back("dns " + name);
        }
        r.host.push_back("connect " + cached + " " + std::to_string(servicePort) + " tcp " + port());
        r.rasp.push_back("address " + name + " " + std::to_string(servicePort));
    }

    void session(ShopRequest& r) {
        file(r, "read", "/var/lib/php/sessions/sess_" + token(26));
        sql(r, "UPDATE sessions SET last_seen = '" + timestamp() + "' WHERE token = '" + token(32) + "'");
        r.host.push_back("connect 10.0.0.6 6379 tcp " + port());
    }
    void productView(ShopRequest& r) {
        std::string product = id();
        sql(r, "SELECT p.id, p.name, p.price, p.stock FROM products p WHERE p.id = " + product);
        sql(r, "SELECT i.url FROM images i WHERE i.product_id = " + product + " ORDER BY i.pos LIMIT " +
                   std::to_string(number(1, 8)));
        file(r, "read", "/var/shop/cache/" + hex(32) + ".cache");
    }
    void search(ShopRequest& r) {
        static const char* const kSorts[] = {"price", "name", "created_at"};
        static const char* const kDirections[] = {"ASC", "DESC"};
        std::string term = searchTerm();
        sql(r, "SELECT id, name, price FROM products WHERE name LIKE '%" + term + "%' OR description LIKE '%" + term +
                   "%' ORDER BY " + pick(kSorts) + " " + pick(kDirections) + " LIMIT " +
                   std::to_string(number(1, 5) * 10) + " OFFSET " + std::to_string(number(0, 20) * 20));
        file(r, "write", "/var/log/shop/search-" + date() + ".log");
    }
    void cartAdd(ShopRequest& r) {
        std::string cart = id();
        sql(r, "INSERT INTO cart_items (cart_id, product_id, qty, added_at) VALUES (" + cart + ", " + id() + ", " +
                   std::to_string(number(1, 5)) + ", NOW())");
        sql(r, "SELECT COUNT(*) FROM cart_items WHERE cart_id = " + cart);
    }
    void checkout(ShopRequest& r) {
        std::string order = id();
        sql(r, "INSERT INTO orders (customer_id, total, currency, created_at) VALUES (" + id() + ", " + price() +
                   ", 'EUR', '" + timestamp() + "')");
        std::string rows;
        std::string products;
        for (unsigned i = 0, n = number(1, 6); i < n; ++i) {
            std::string product = id();
            rows += (i ? "," : "") + std::string("(") + order + ", " + product + ", " + std::to_string(number(1, 3)) +
                    ", " + price() + ")";
            products += (i ? ", " : "") + product;
        }
        sql(r, "INSERT INTO order_lines (order_id, product_id, qty, price) VALUES " + rows);
        sql(r, "UPDATE inventory SET stock = stock - 1 WHERE product_id IN (" + products + ")");
        r.rasp.push_back("postgre INSERT INTO events (kind, at, payload) VALUES ('checkout', '" + timestamp() +
                         "', '{\"order\": " + order + ", \"note\": \"it''s a gift\"}')");
        call(r, "api.payments.example", 443, m_payments);
        call(r, "smtp.mailer.example", 587, m_mailer);
        std::string page = pythonTemporary() + ".html";
        std::string invoice = "/var/shop/invoices/INV-" + order + ".pdf";
        file(r, "write", page);
        run(r, "/usr/bin/wkhtmltopdf", "--quiet " + page + " " + invoice);
        file(r, "write", invoice);
        file(r, "delete", page);
        run(r, "/usr/sbin/sendmail", "-t -i");
    }
    void orderHistory(ShopRequest& r) {
        static const char* const kStatuses[] = {"'paid'", "'paid', 'shipped'", "'paid', 'shipped', 'returned'"};
        sql(r, "SELECT id, total, status FROM orders WHERE customer_id = " + id() + " AND status IN (" +
                   pick(kStatuses) + ") ORDER BY created_at DESC LIMIT 20 OFFSET " + std::to_string(number(0, 9) * 20));
    }
    void login(ShopRequest& r) {
        sql(r, "SELECT id, password_hash FROM users WHERE email = '" + token(8) + "@example.org' LIMIT 1");
        sql(r, "INSERT INTO audit_log (user_id, action, at, detail) VALUES (" + id() + ", 'login', '" + timestamp() +
                   "', X'" + hex(16) + "')");
        file(r, "write", "/var/lib/php/sessions/sess_" + token(26));
        file(r, "delete", "/var/lib/php/sessions/sess_" + token(26));
    }
    void imageUpload(ShopRequest& r) {
        static const char* const kWidths[] = {"64", "320", "800"};
        std::string upload = phpUpload();
        std::string image = "/var/shop/upload/" + uuid() + (number(0, 1) ? ".jpg" : ".png");
        std::string width = pick(kWidths);
        std::string thumb = "/var/shop/cache/thumb_" + hex(12) + "_" + width + ".jpg";
        file(r, "write", upload);
        file(r, "write", image);
        file(r, "delete", upload);
        run(r, "/usr/bin/convert",
            image + " -resize " + width + "x" + width + " -quality " + std::to_string(number(70, 90)) + " " + thumb);
        file(r, "write", thumb);
        sql(r, "INSERT INTO images (product_id, url, pos) VALUES (" + id() + ", '" + image.substr(10) + "', " +
                   std::to_string(number(0, 7)) + ")");
    }
    void adminExport(ShopRequest& r) {
        sql(r, "SELECT o.id, o.total, o.created_at FROM orders o WHERE o.created_at BETWEEN '" + date() + "' AND '" +
                   date() + "'");
        std::string csv = "/var/shop/export/orders-" + date("") + "-" + mkstempTail() + ".csv";
        file(r, "write", csv);
        run(r, "/bin/sh", "-c 'gzip -9 " + csv + " && mv " + csv + ".gz /var/backup/shop/'");
    }

    std::mt19937 m_random;
    unsigned m_day;
    std::string m_payments;
    std::string m_mailer;
};

}  // namespace enginetest

#endif
