// From what a back-end saw to a full record, over a /proc tree made by the
// test: paths, process facts, hashes and their cache.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <fstream>

#include "enricher.h"

namespace {

using wlc::EventKind;
using wlc::HostEvent;

const char kAbcMd5[] = "900150983cd24fb0d6963f7d28e17f72";
const char kAbcSha256[] = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

class CollectorEnricher : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* dir : {"", "/proc", "/work", "/work/sub", "/bin"}) ::mkdir((m_root + dir).c_str(), 0755);
        writeFile(m_root + "/bin/prog", "abc");
        writeFile(m_root + "/work/kept.txt", "x");
        ::chmod((m_root + "/work/kept.txt").c_str(), 0640);
        addProcess(10, 11, std::string("prog\0--x\0", 9), m_root + "/work");
        addProcess(11, 1, "shell\0", m_root);
    }
    void TearDown() override { ASSERT_EQ(std::system(("rm -rf " + m_root).c_str()), 0); }

    void addProcess(int pid, int ppid, const std::string& cmdline, const std::string& cwd) {
        std::string dir = m_root + "/proc/" + std::to_string(pid);
        ::mkdir(dir.c_str(), 0755);
        ::mkdir((dir + "/fd").c_str(), 0755);
        ASSERT_EQ(::symlink((m_root + "/bin/prog").c_str(), (dir + "/exe").c_str()), 0);
        ASSERT_EQ(::symlink(cwd.c_str(), (dir + "/cwd").c_str()), 0);
        ASSERT_EQ(::symlink((m_root + "/work/sub").c_str(), (dir + "/fd/5").c_str()), 0);
        writeFile(dir + "/cmdline", cmdline);
        writeFile(dir + "/status", "Name:\tprog\nPPid:\t" + std::to_string(ppid) + "\nUid:\t0\t0\t0\t0\n");
    }
    std::optional<wlc::ActionRecord> enrich(HostEvent event) { return m_enricher.enrich(event); }
    static HostEvent event(EventKind kind, int32_t pid, std::string path = {}, int32_t dirFd = AT_FDCWD) {
        HostEvent e;
        e.kind = kind;
        e.pid = pid;
        e.timeNs = 1763800000123456789ull;
        e.path = std::move(path);
        e.dirFd = dirFd;
        return e;
    }

    std::string m_root = wlc::normalisePath(::testing::TempDir() + "/wlc-enrich-" + std::to_string(::getpid()));
    wlc::FileHasher m_hasher;
    wlc::ProcessTable m_processes{m_hasher, m_root + "/proc"};
    wlc::Enricher m_enricher{m_processes};
};

TEST_F(CollectorEnricher, ProcessCreationNamesTheNewProgramAndItsParent) {
    HostEvent exec = event(EventKind::ProcessCreation, 10, "/bin/prog");
    exec.ppid = 11;
    exec.cmdline = "prog --x --seen-by-the-kernel";
    auto record = enrich(exec);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->time, 1763800000u);
    EXPECT_EQ(record->process.pid, 10);
    EXPECT_EQ(record->process.path, m_root + "/bin/prog");
    EXPECT_EQ(record->process.cmdline, "prog --x --seen-by-the-kernel") << "what the kernel saw wins";
    EXPECT_EQ(record->process.user, "root");
    EXPECT_EQ(record->process.md5, kAbcMd5);
    EXPECT_EQ(record->process.sha256, kAbcSha256);
    EXPECT_EQ(record->parent.pid, 11);
    EXPECT_EQ(record->parent.cmdline, "shell");
    EXPECT_EQ(record->parent.md5, kAbcMd5);
    EXPECT_EQ(m_hasher.filesRead(), 1u) << "one program, hashed once";
}

TEST_F(CollectorEnricher, FilePathsAreMadeAbsoluteAndDescribed) {
    struct Case {
        EventKind kind;
        std::string path;
        int32_t dirFd;
        std::string expected;
        std::string permissions;
    };
    const std::string work = m_root + "/work";
    const Case cases[] = {
        {EventKind::FileModification, "kept.txt", AT_FDCWD, work + "/kept.txt", "0640"},
        {EventKind::FileCreation, "./sub/../kept.txt", AT_FDCWD, work + "/kept.txt", "0640"},
        {EventKind::FileCreation, "new.txt", 5, work + "/sub/new.txt", ""},
        {EventKind::FileTimeChange, work + "//./kept.txt", AT_FDCWD, work + "/kept.txt", "0640"},
        {EventKind::FileDeletion, work + "/kept.txt", AT_FDCWD, work + "/kept.txt", ""},
    };
    for (const Case& c : cases) {
        auto record = enrich(event(c.kind, 10, c.path, c.dirFd));
        ASSERT_TRUE(record) << c.path;
        EXPECT_EQ(record->file.path, c.expected) << c.path;
        EXPECT_EQ(record->file.permissions, c.permissions) << c.path << ": a deleted or missing file has none";
        EXPECT_EQ(record->file.owner, c.permissions.empty() ? "" : "root") << c.path;
        EXPECT_EQ(record->process.cmdline, "prog --x");
    }
    HostEvent rename = event(EventKind::FileRenaming, 10, "kept.txt");
    rename.path2 = "sub/moved.txt";
    auto record = enrich(rename);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->file.oldPath, work + "/kept.txt");
    EXPECT_EQ(record->file.path, work + "/sub/moved.txt");
    // A process that is gone keeps the path it gave.
    EXPECT_EQ(enrich(event(EventKind::FileCreation, 99, "rel.txt"))->file.path, "rel.txt");
}

TEST_F(CollectorEnricher, NetworkEventsAsTheRecordWritesThem) {
    HostEvent connect = event(EventKind::Connection, 10);
    connect.family = AF_INET6;
    connect.protocol = IPPROTO_TCP;
    inet_pton(AF_INET6, "::ffff:192.0.2.7", connect.dstAddr.data());
    inet_pton(AF_INET6, "fe80::1", connect.srcAddr.data());
    connect.dstPort = 443;
    connect.srcPort = 50000;
    auto record = enrich(connect);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->net.protocol, "tcp");
    EXPECT_EQ(record->net.dstIp, "192.0.2.7") << "an IPv4-mapped address reads as IPv4";
    EXPECT_EQ(record->net.srcIp, "fe80::1");
    EXPECT_EQ(record->net.dstPort, 443);
    EXPECT_EQ(record->net.srcPort, 50000);

    HostEvent listen = event(EventKind::Listening, 10);
    listen.family = AF_INET;
    listen.protocol = IPPROTO_UDP;
    inet_pton(AF_INET, "127.0.0.1", listen.srcAddr.data());
    listen.srcPort = 8080;
    record = enrich(listen);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->net.dstIp, "127.0.0.1") << "the listened address goes where the module reads it";
    EXPECT_EQ(record->net.dstPort, 8080);
    EXPECT_EQ(record->net.protocol, "udp");

    HostEvent dns = event(EventKind::DnsQuery, 10);
    dns.payload = {0, 1, 1, 0, 0, 1, 0, 0, 0, 0, 0, 0, 3, 'w', 'w', 'w', 0, 0, 1, 0, 1};
    EXPECT_EQ(enrich(dns)->dns.name, "www");
    dns.payload.resize(14);
    EXPECT_FALSE(enrich(dns)) << "a cut query is no record";
    EXPECT_EQ(m_enricher.unparsableDns(), 1u);
}

TEST_F(CollectorEnricher, AForkedChildIsKnownUntilItExits) {
    HostEvent fork = event(EventKind::Fork, 12);
    fork.ppid = 10;
    EXPECT_FALSE(enrich(fork)) << "bookkeeping only";
    auto record = enrich(event(EventKind::FileCreation, 12, "/x"));
    ASSERT_TRUE(record);
    EXPECT_EQ(record->process.pid, 12);
    EXPECT_EQ(record->process.cmdline, "prog --x") << "a child runs its parent's program until it execs";
    EXPECT_FALSE(enrich(event(EventKind::Exit, 12)));
    EXPECT_EQ(enrich(event(EventKind::FileCreation, 12, "/x"))->process.cmdline, "");
}

TEST(CollectorPaths, LexicalNormalisation) {
    const std::pair<const char*, const char*> cases[] = {
        {"/a/b/../c", "/a/c"}, {"/a//b/./c/", "/a/b/c"}, {"/../..", "/"}, {"/", "/"}, {"/a/b/../../..", "/"},
    };
    for (const auto& c : cases) EXPECT_EQ(wlc::normalisePath(c.first), c.second) << c.first;
}

TEST(CollectorHashes, CachedUntilTheFileChanges) {
    std::string path = ::testing::TempDir() + "/wlc-hash-" + std::to_string(::getpid());
    writeFile(path, "abc");
    wlc::FileHasher hasher;
    EXPECT_EQ(hasher.hashPath(path).md5, kAbcMd5);
    EXPECT_EQ(hasher.hashPath(path).sha256, kAbcSha256);
    EXPECT_EQ(hasher.filesRead(), 1u);
    writeFile(path, "abd");
    struct timeval later[2] = {{1, 0}, {2, 0}};  // a new modification time, whatever the clock's grain
    ASSERT_EQ(::utimes(path.c_str(), later), 0);
    EXPECT_NE(hasher.hashPath(path).md5, kAbcMd5);
    EXPECT_EQ(hasher.filesRead(), 2u);
    EXPECT_TRUE(hasher.hashPath("/nonexistent/file").md5.empty());
    ::unlink(path.c_str());
}

}  // namespace
