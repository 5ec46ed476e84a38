// The portable back-end's parts on bytes the test builds; the live back-end
// runs in backend_live_test.cpp.
#include <linux/cn_proc.h>
#include <linux/connector.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/fanotify.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <unordered_map>
#include <vector>

#include "portable/fanotify_decode.h"
#include "portable/file_event_shaper.h"
#include "portable/inet_diag_decode.h"
#include "portable/mount_table.h"
#include "portable/proc_connector.h"
#include "portable/proc_info.h"
#include "portable/socket_tracker.h"
#include "portable/watch_set.h"

namespace {

using namespace wlc;
using namespace wlc::portable;

template <typename T>
void appendBytes(std::vector<uint8_t>& out, const T& value) {
    const auto* p = reinterpret_cast<const uint8_t*>(&value);
    out.insert(out.end(), p, p + sizeof(T));
}

// --- watch set ---------------------------------------------------------

TEST(PortableWatchSet, FollowsForksExitsAndSubscriptions) {
    enum Op { Watch, Unwatch, Fork, Exit };
    struct Step {
        Op op;
        int32_t a;
        int32_t b;
    };
    struct Case {
        const char* what;
        std::vector<Step> steps;
        std::vector<int32_t> watched;
    };
    const Case cases[] = {
        {"children and grandchildren inherit", {{Watch, 10, 0}, {Fork, 10, 11}, {Fork, 11, 12}}, {10, 11, 12}},
        {"an unwatched parent passes nothing on", {{Watch, 10, 0}, {Fork, 20, 21}}, {10}},
        {"exit removes only that process", {{Watch, 10, 0}, {Fork, 10, 11}, {Exit, 11, 0}}, {10}},
        {"a child outlives its exited root", {{Watch, 10, 0}, {Fork, 10, 11}, {Exit, 10, 0}}, {11}},
        {"unwatch takes the descendants along", {{Watch, 10, 0}, {Fork, 10, 11}, {Fork, 11, 12}, {Unwatch, 10, 0}}, {}},
        {"unwatch reaches past an exited middle",
         {{Watch, 10, 0}, {Fork, 10, 11}, {Fork, 11, 12}, {Exit, 11, 0}, {Unwatch, 10, 0}},
         {}},
        {"unwatch of an exited root still reaches its children",
         {{Watch, 10, 0}, {Fork, 10, 11}, {Exit, 10, 0}, {Unwatch, 10, 0}},
         {}},
        {"unwatch leaves other subscriptions",
         {{Watch, 10, 0}, {Watch, 20, 0}, {Fork, 20, 21}, {Unwatch, 10, 0}},
         {20, 21}},
        {"a subscribed descendant stays with its own children",
         {{Watch, 10, 0}, {Fork, 10, 11}, {Watch, 11, 0}, {Fork, 11, 12}, {Fork, 10, 13}, {Unwatch, 10, 0}},
         {11, 12}},
        {"unwatch of a pid watched only through its parent changes nothing",
         {{Watch, 10, 0}, {Fork, 10, 11}, {Unwatch, 11, 0}},
         {10, 11}},
        {"a fork reusing a pid whose exit was missed replaces it",
         {{Watch, 10, 0}, {Fork, 10, 11}, {Fork, 10, 11}, {Exit, 11, 0}},
         {10}},
        {"a new process reusing an exited root's pid leaves with it",
         {{Watch, 10, 0}, {Fork, 10, 11}, {Exit, 10, 0}, {Watch, 10, 0}, {Unwatch, 10, 0}},
         {}},
    };
    for (const Case& c : cases) {
        WatchSet set;
        for (const Step& step : c.steps) {
            switch (step.op) {
                case Watch: set.watch(step.a); break;
                case Unwatch: set.unwatch(step.a); break;
                case Fork: set.onFork(step.a, step.b); break;
                case Exit: set.onExit(step.a); break;
            }
        }
        EXPECT_EQ(set.watchedPids(), c.watched) << c.what;
        for (int32_t pid : c.watched) EXPECT_TRUE(set.isWatched(pid)) << c.what << " pid " << pid;
    }
}

TEST(PortableWatchSet, RefusesBeyondCapacityAndCountsIt) {
    WatchSet set(2);
    EXPECT_TRUE(set.watch(1));
    EXPECT_TRUE(set.onFork(1, 2));
    EXPECT_FALSE(set.onFork(1, 3));
    EXPECT_FALSE(set.watch(4));
    EXPECT_EQ(set.refused(), 2u);
    EXPECT_TRUE(set.onExit(2));
    EXPECT_FALSE(set.onExit(2));
    EXPECT_TRUE(set.onFork(1, 3));  // room again once a process left
    EXPECT_EQ(set.watchedPids(), (std::vector<int32_t>{1, 3}));
}

// --- /proc text ---------------------------------------------------------

TEST(PortableProcText, ParsesWhatTheBackendReads) {
    EXPECT_EQ(parseStatParent("42 (a) b (c) S 7 42 42 0").value_or(-1), 7);
    EXPECT_EQ(parseStatParent("42 (sh) Z 1 42").value_or(-1), 1);
    EXPECT_FALSE(parseStatParent("42 (sh").has_value());
    EXPECT_FALSE(parseStatParent("42 (sh) S").has_value());

    EXPECT_EQ(parseStatusUid("Name:\tx\nUid:\t1000\t0\t0\t0\nGid:\t5\n").value_or(0), 1000u);
    EXPECT_FALSE(parseStatusUid("Name:\tx\nGid:\t5\n").has_value());

    EXPECT_EQ(cmdlineText(std::string("ls\0-l\0/tmp\0", 11)), "ls -l /tmp");
    EXPECT_EQ(cmdlineText(""), "");

    struct Link {
        const char* text;
        uint64_t inode;  // 0: not a socket
    };
    const Link links[] = {{"socket:[12345]", 12345}, {"socket:[]", 0}, {"socket:[12a]", 0}, {"socket:[1", 0},
                          {"pipe:[12345]", 0},       {"/dev/null", 0}, {"socket:[+1]", 0},  {"socket:[ 1]", 0}};
    for (const Link& link : links) {
        EXPECT_EQ(parseSocketInode(link.text).value_or(0), link.inode) << link.text;
    }
    EXPECT_EQ(parsePidList("12 34\n 56 x 7"), (std::vector<int32_t>{12, 34, 56, 7}));
}

TEST(PortableMountTable, KeepsRealFilesystemsWholeMountsFirst) {
    const char* text =
        "22 27 0:21 / /proc rw,relatime - proc proc rw\n"
        "40 27 0:40 /sub /srv/bind rw shared:5 - ext4 /dev/vda rw\n"
        "27 1 254:0 / / rw,relatime shared:1 - ext4 /dev/vda rw\n"
        "41 31 0:38 / /sys/fs/cgroup/unified rw - cgroup2 cgroup2 rw\n"
        "50 27 0:50 / /mnt/with\\040space rw - tmpfs tmpfs rw\n"
        "broken line\n"
        "51 27 0:51 / /no/separator rw tmpfs tmpfs rw\n";
    auto all = parseMountInfo(text);
    ASSERT_EQ(all.size(), 5u);
    EXPECT_EQ(all[1].root, "/sub");
    EXPECT_EQ(all[4].mountPoint, "/mnt/with space");
    auto picked = markableMounts(all);
    std::vector<std::string> points;
    for (const auto& entry : picked) points.push_back(entry.mountPoint);
    EXPECT_EQ(points, (std::vector<std::string>{"/", "/mnt/with space", "/srv/bind"}));
}

// --- process events -----------------------------------------------------

std::vector<uint8_t> procMessage(uint32_t what, std::vector<int32_t> pids, uint32_t idx = CN_IDX_PROC) {
    proc_event event{};
    event.what = static_cast<decltype(event.what)>(what);
    std::memcpy(&event.event_data, pids.data(), pids.size() * sizeof(int32_t));
    cn_msg message{};
    message.id.idx = idx;
    message.id.val = CN_VAL_PROC;
    message.ack = 77;
    message.len = sizeof(event);
    nlmsghdr head{};
    head.nlmsg_len = NLMSG_LENGTH(sizeof(cn_msg) + sizeof(event));
    head.nlmsg_type = NLMSG_DONE;
    std::vector<uint8_t> out;
    appendBytes(out, head);
    appendBytes(out, message);
    appendBytes(out, event);
    out.resize(NLMSG_ALIGN(out.size()));
    return out;
}

TEST(PortableProcConnector, DecodesDatagrams) {
    auto bytes = procMessage(proc_event::PROC_EVENT_FORK, {5, 5, 6, 6});
    auto exec = procMessage(proc_event::PROC_EVENT_EXEC, {6, 6});
    bytes.insert(bytes.end(), exec.begin(), exec.end());
    auto foreign = procMessage(proc_event::PROC_EVENT_EXIT, {6, 6}, CN_IDX_PROC + 1);
    bytes.insert(bytes.end(), foreign.begin(), foreign.end());
    auto ack = procMessage(proc_event::PROC_EVENT_NONE, {13});
    bytes.insert(bytes.end(), ack.begin(), ack.end());

    std::size_t malformed = 0;
    auto events = decodeProcDatagram(bytes.data(), bytes.size(), malformed);
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(malformed, 1u);
    EXPECT_EQ(events[0].type, ProcEvent::Type::Fork);
    EXPECT_EQ(events[0].parentTgid, 5);
    EXPECT_EQ(events[0].tgid, 6);
    EXPECT_EQ(events[1].type, ProcEvent::Type::Exec);
    EXPECT_EQ(events[2].type, ProcEvent::Type::Ack);
    EXPECT_EQ(events[2].ackError, 13u);
    EXPECT_EQ(events[2].ack, 77u);

    // Cut short: the length claims more than there is.
    auto cut = procMessage(proc_event::PROC_EVENT_FORK, {5, 5, 6, 6});
    cut.resize(cut.size() - 8);
    malformed = 0;
    EXPECT_TRUE(decodeProcDatagram(cut.data(), cut.size(), malformed).empty());
    EXPECT_EQ(malformed, 1u);
}

TEST(PortableProcConnector, AppliesEventsToTheWatchSet) {
    WatchSet set;
    set.watch(100);
    auto event = [](ProcEvent::Type type, int32_t pid, int32_t tgid, int32_t parentTgid = 0) {
        ProcEvent e;
        e.type = type;
        e.pid = pid;
        e.tgid = tgid;
        e.parentPid = parentTgid;
        e.parentTgid = parentTgid;
        return e;
    };
    // Pids far above pid_max cannot exist, so /proc has nothing on them.
    const int32_t child = 0x7ffffff0;
    std::vector<HostEvent> out;
    std::vector<int32_t> pending;
    applyProcEvent(event(ProcEvent::Type::Fork, 101, 100, 100), set, out, pending);      // a thread
    applyProcEvent(event(ProcEvent::Type::Fork, child, child, 200), set, out, pending);  // unwatched parent
    EXPECT_TRUE(out.empty());
    EXPECT_FALSE(set.isWatched(child));

    applyProcEvent(event(ProcEvent::Type::Fork, child, child, 100), set, out, pending);
    applyProcEvent(event(ProcEvent::Type::Exec, child, child), set, out, pending);
    applyProcEvent(event(ProcEvent::Type::Exit, child + 1, child), set, out, pending);  // a thread ends
    applyProcEvent(event(ProcEvent::Type::Exit, child, child), set, out, pending);
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out[0].kind, EventKind::Fork);
    EXPECT_EQ(out[0].pid, child);
    EXPECT_EQ(out[0].ppid, 100);
    EXPECT_EQ(out[1].kind, EventKind::ProcessCreation);
    EXPECT_EQ(out[1].pid, child);
    EXPECT_EQ(out[1].uid, UINT32_MAX);  // gone: what cannot be read stays unknown
    EXPECT_GT(out[1].timeNs, 0u);
    EXPECT_TRUE(set.isWatched(child)) << "exits wait for applyExits";

    applyExits(pending, set, out);
    ASSERT_EQ(out.size(), 3u);
    EXPECT_EQ(out[2].kind, EventKind::Exit);
    EXPECT_FALSE(set.isWatched(child));
    EXPECT_TRUE(pending.empty());
}

// --- fanotify -----------------------------------------------------------

struct Record {
    uint8_t type;
    int32_t fsid;
    uint8_t handleByte;
    std::string name;
};

void appendFanEvent(std::vector<uint8_t>& out, uint64_t mask, int32_t pid, const std::vector<Record>& records) {
    std::vector<uint8_t> body;
    for (const Record& r : records) {
        std::vector<uint8_t> record(sizeof(fanotify_event_info_header));
        int32_t fsid[2] = {r.fsid, 0};
        appendBytes(record, fsid);
        uint32_t handleBytes = 8;
        int32_t handleType = 1;
        appendBytes(record, handleBytes);
        appendBytes(record, handleType);
        record.insert(record.end(), handleBytes, r.handleByte);
        record.insert(record.end(), r.name.begin(), r.name.end());
        record.push_back(0);
        record.resize((record.size() + 3) & ~std::size_t{3});
        fanotify_event_info_header head{r.type, 0, static_cast<uint16_t>(record.size())};
        std::memcpy(record.data(), &head, sizeof(head));
        body.insert(body.end(), record.begin(), record.end());
    }
    fanotify_event_metadata meta{};
    meta.event_len = static_cast<uint32_t>(sizeof(meta) + body.size());
    meta.vers = FANOTIFY_METADATA_VERSION;
    meta.metadata_len = sizeof(meta);
    meta.mask = mask;
    meta.fd = FAN_NOFD;
    meta.pid = pid;
    appendBytes(out, meta);
    out.insert(out.end(), body.begin(), body.end());
}

TEST(PortableFanotify, DecodesOnlyWantedEvents) {
    std::vector<uint8_t> bytes;
    appendFanEvent(bytes, FAN_CREATE, 7, {{FAN_EVENT_INFO_TYPE_DFID_NAME, 3, 0xaa, "a.txt"}});
    appendFanEvent(bytes, FAN_CREATE, 8, {{FAN_EVENT_INFO_TYPE_DFID_NAME, 3, 0xaa, "b.txt"}});
    appendFanEvent(bytes, FAN_Q_OVERFLOW, -1, {});
    appendFanEvent(
        bytes, FAN_RENAME, 7,
        {{FAN_EVENT_INFO_TYPE_OLD_DFID_NAME, 3, 0xaa, "old"}, {FAN_EVENT_INFO_TYPE_NEW_DFID_NAME, 3, 0xbb, "new"}});
    std::vector<uint8_t> broken;
    appendFanEvent(broken, FAN_DELETE, 7, {{FAN_EVENT_INFO_TYPE_DFID_NAME, 3, 0xaa, "x"}});
    broken[sizeof(fanotify_event_metadata) + 2] = 200;  // a record longer than its event
    bytes.insert(bytes.end(), broken.begin(), broken.end());

    FanotifyBatch batch;
    decodeFanotifyBuffer(
        bytes.data(), bytes.size(), [](int32_t pid) { return pid == 7; }, batch);
    ASSERT_EQ(batch.events.size(), 2u);
    EXPECT_EQ(batch.overflows, 1u);
    EXPECT_EQ(batch.malformed, 1u);
    const FanotifyEvent& created = batch.events[0];
    EXPECT_EQ(created.mask, uint64_t{FAN_CREATE});
    ASSERT_EQ(created.records.size(), 1u);
    EXPECT_EQ(created.records[0].name, "a.txt");
    EXPECT_EQ(created.records[0].fsid, fsidKey(3, 0));
    EXPECT_EQ(created.records[0].handle.size(), 16u);  // length, type and the 8 handle bytes
    ASSERT_EQ(batch.events[1].records.size(), 2u);
    EXPECT_EQ(batch.events[1].records[1].type, FAN_EVENT_INFO_TYPE_NEW_DFID_NAME);
    EXPECT_EQ(batch.events[1].records[1].name, "new");

    FanotifyBatch cut;
    decodeFanotifyBuffer(
        bytes.data(), 10, [](int32_t) { return true; }, cut);
    EXPECT_TRUE(cut.events.empty());
    EXPECT_EQ(cut.malformed, 1u);
}

struct ShapeStep {
    uint64_t mask;
    std::vector<Record> records;
    uint64_t atMs;
};

struct Shaped {
    std::vector<std::string> events;  // "kind path [path2]"
    uint64_t lost;
};

Shaped shapeAll(const std::vector<ShapeStep>& steps, uint64_t expireAtMs = 0) {
    // Handle byte 0xaa names /srv, 0xbb names /srv/sub/ (trailing slash), anything else is gone.
    FileEventShaper shaper(
        [](uint64_t fsid, const std::vector<uint8_t>& handle) -> std::optional<std::string> {
            if (fsid != fsidKey(3, 0)) return std::nullopt;
            if (handle.back() == 0xaa) return std::string("/srv");
            if (handle.back() == 0xbb) return std::string("/srv/sub/");
            return std::nullopt;
        },
        [](const std::string& path) { return path == "/srv/sub/b"; });
    std::vector<HostEvent> out;
    for (const ShapeStep& step : steps) {
        FanotifyEvent event;
        event.mask = step.mask;
        event.pid = 7;
        for (const Record& r : step.records) {
            FileHandleRecord record;
            record.type = r.type;
            record.fsid = fsidKey(r.fsid, 0);
            record.handle.assign(16, r.handleByte);
            record.name = r.name;
            event.records.push_back(record);
        }
        shaper.shape(event, step.atMs * 1000000, out);
    }
    if (expireAtMs) shaper.expire(expireAtMs * 1000000);
    Shaped shaped{{}, shaper.takeLost()};
    for (const HostEvent& e : out) {
        std::string line = std::to_string(static_cast<int>(e.kind)) + " " + e.path;
        if (!e.path2.empty()) line += " " + e.path2;
        shaped.events.push_back(line);
        EXPECT_EQ(e.pid, 7);
    }
    return shaped;
}

std::string line(EventKind kind, const std::string& path, const std::string& path2 = "") {
    return std::to_string(static_cast<int>(kind)) + " " + path + (path2.empty() ? "" : " " + path2);
}

TEST(PortableFanotify, ShapesFileEvents) {
    const Record a{FAN_EVENT_INFO_TYPE_DFID_NAME, 3, 0xaa, "a"};
    const Record b{FAN_EVENT_INFO_TYPE_DFID_NAME, 3, 0xbb, "b"};
    const Record gone{FAN_EVENT_INFO_TYPE_DFID_NAME, 3, 0x01, "a"};
    const Record otherFs{FAN_EVENT_INFO_TYPE_DFID_NAME, 9, 0xaa, "a"};
    const Record oldA{FAN_EVENT_INFO_TYPE_OLD_DFID_NAME, 3, 0xaa, "a"};
    const Record newB{FAN_EVENT_INFO_TYPE_NEW_DFID_NAME, 3, 0xbb, "b"};
    struct Case {
        const char* what;
        std::vector<ShapeStep> steps;
        std::vector<std::string> events;
        uint64_t lost;
        uint64_t expireAtMs;
    };
    const Case cases[] = {
        {"each kind",
         {{FAN_CREATE, {a}, 1}, {FAN_ATTRIB, {b}, 1}, {FAN_DELETE, {a}, 1}},
         {line(EventKind::FileCreation, "/srv/a"), line(EventKind::FileTimeChange, "/srv/sub/b"),
          line(EventKind::FileDeletion, "/srv/a")},
         0,
         0},
        {"writes collapse within a second",
         {{FAN_MODIFY, {a}, 1}, {FAN_MODIFY, {a}, 500}, {FAN_MODIFY, {a}, 1001}},
         {line(EventKind::FileModification, "/srv/a"), line(EventKind::FileModification, "/srv/a")},
         0,
         0},
        {"different files do not collapse",
         {{FAN_MODIFY, {a}, 1}, {FAN_MODIFY, {b}, 2}},
         {line(EventKind::FileModification, "/srv/a"), line(EventKind::FileModification, "/srv/sub/b")},
         0,
         0},
        {"writing a new file is part of creating it",
         {{FAN_CREATE | FAN_MODIFY, {a}, 1}, {FAN_MODIFY, {a}, 300}},
         {line(EventKind::FileCreation, "/srv/a")},
         0,
         0},
        {"merged bits come in order",
         {{FAN_DELETE | FAN_ATTRIB | FAN_CREATE, {a}, 1}},
         {line(EventKind::FileCreation, "/srv/a"), line(EventKind::FileTimeChange, "/srv/a"),
          line(EventKind::FileDeletion, "/srv/a")},
         0,
         0},
        {"a merged creation and deletion of a file that is there was a replacement",
         {{FAN_CREATE | FAN_DELETE, {b}, 1}, {FAN_CREATE | FAN_DELETE, {a}, 1}},
         {line(EventKind::FileDeletion, "/srv/sub/b"), line(EventKind::FileCreation, "/srv/sub/b"),
          line(EventKind::FileCreation, "/srv/a"), line(EventKind::FileDeletion, "/srv/a")},
         0,
         0},
        {"a rename names both sides",
         {{FAN_RENAME, {oldA, newB}, 1}},
         {line(EventKind::FileRenaming, "/srv/a", "/srv/sub/b")},
         0,
         0},
        {"rename halves pair up",
         {{FAN_MOVED_FROM, {a}, 1}, {FAN_MOVED_TO, {b}, 2}},
         {line(EventKind::FileRenaming, "/srv/a", "/srv/sub/b")},
         0,
         0},
        {"a late second half does not pair", {{FAN_MOVED_FROM, {a}, 1}, {FAN_MOVED_TO, {b}, 1500}}, {}, 2, 0},
        {"an unpaired first half expires as lost", {{FAN_MOVED_FROM, {a}, 1}}, {}, 1, 2000},
        {"a half still within its window is kept", {{FAN_MOVED_FROM, {a}, 1}}, {}, 0, 500},
        {"an unresolvable directory is lost", {{FAN_CREATE, {gone}, 1}, {FAN_DELETE, {otherFs}, 1}}, {}, 2, 0},
        {"a rename missing a side is lost", {{FAN_RENAME, {oldA}, 1}}, {}, 1, 0},
        {"directories are not file events", {{FAN_CREATE | FAN_ONDIR, {a}, 1}}, {}, 0, 0},
    };
    for (const Case& c : cases) {
        Shaped shaped = shapeAll(c.steps, c.expireAtMs);
        EXPECT_EQ(shaped.events, c.events) << c.what;
        EXPECT_EQ(shaped.lost, c.lost) << c.what;
    }
    EXPECT_EQ(joinPath("/", "etc"), "/etc");
    EXPECT_EQ(joinPath("/srv", "."), "/srv");
}

// --- sockets ------------------------------------------------------------

std::vector<uint8_t> diagReply(const std::vector<inet_diag_msg>& sockets, bool done) {
    std::vector<uint8_t> out;
    for (const inet_diag_msg& msg : sockets) {
        nlmsghdr head{};
        head.nlmsg_len = NLMSG_LENGTH(sizeof(msg));
        head.nlmsg_type = SOCK_DIAG_BY_FAMILY;
        appendBytes(out, head);
        appendBytes(out, msg);
        out.resize(NLMSG_ALIGN(out.size()));
    }
    if (done) {
        nlmsghdr head{};
        head.nlmsg_len = NLMSG_LENGTH(sizeof(int32_t));
        head.nlmsg_type = NLMSG_DONE;
        appendBytes(out, head);
        appendBytes(out, int32_t{0});
    }
    return out;
}

inet_diag_msg diagMsg(uint8_t family, uint8_t state, uint16_t sport, uint16_t dport, uint32_t inode) {
    inet_diag_msg msg{};
    msg.idiag_family = family;
    msg.idiag_state = state;
    msg.id.idiag_sport = htons(sport);
    msg.id.idiag_dport = htons(dport);
    msg.id.idiag_src[0] = htonl(0x7f000001);
    msg.id.idiag_dst[0] = htonl(0x7f000002);
    msg.idiag_uid = 33;
    msg.idiag_inode = inode;
    return msg;
}

TEST(PortableInetDiag, DecodesDumpReplies) {
    auto bytes =
        diagReply({diagMsg(AF_INET, TCP_LISTEN, 80, 0, 5), diagMsg(AF_INET6, TCP_ESTABLISHED, 4000, 443, 6)}, true);
    std::vector<DiagSocket> sockets;
    int error = -1;
    EXPECT_EQ(decodeDiagDatagram(bytes.data(), bytes.size(), IPPROTO_TCP, sockets, error), DumpStatus::Done);
    EXPECT_EQ(error, 0);
    ASSERT_EQ(sockets.size(), 2u);
    EXPECT_EQ(sockets[0].srcPort, 80);
    EXPECT_EQ(sockets[0].state, TCP_LISTEN);
    EXPECT_EQ(sockets[0].src[0], 127);
    EXPECT_EQ(sockets[0].src[3], 1);
    EXPECT_EQ(sockets[0].uid, 33u);
    EXPECT_EQ(sockets[1].family, AF_INET6);
    EXPECT_EQ(sockets[1].dstPort, 443);
    EXPECT_EQ(sockets[1].inode, 6u);
    EXPECT_EQ(sockets[1].protocol, IPPROTO_TCP);

    auto more = diagReply({diagMsg(AF_INET, TCP_LISTEN, 80, 0, 5)}, false);
    EXPECT_EQ(decodeDiagDatagram(more.data(), more.size(), IPPROTO_TCP, sockets, error), DumpStatus::More);

    std::vector<uint8_t> refusal;
    nlmsghdr head{};
    head.nlmsg_len = NLMSG_LENGTH(sizeof(nlmsgerr));
    head.nlmsg_type = NLMSG_ERROR;
    nlmsgerr err{};
    err.error = -ENOENT;
    appendBytes(refusal, head);
    appendBytes(refusal, err);
    EXPECT_EQ(decodeDiagDatagram(refusal.data(), refusal.size(), IPPROTO_UDP, sockets, error), DumpStatus::Failed);
    EXPECT_EQ(error, ENOENT);

    more.resize(more.size() - 4);
    EXPECT_EQ(decodeDiagDatagram(more.data(), more.size(), IPPROTO_TCP, sockets, error), DumpStatus::Failed);
}

DiagSocket sock(uint8_t protocol, uint8_t state, uint16_t sport, uint16_t dport, uint64_t inode) {
    DiagSocket s;
    s.family = AF_INET;
    s.protocol = protocol;
    s.state = state;
    s.src = {127, 0, 0, 1};
    s.dst = {127, 0, 0, 2};
    s.srcPort = sport;
    s.dstPort = dport;
    s.inode = inode;
    return s;
}

TEST(PortableSocketTracker, ReportsEachOutboundOrListeningSocketOnce) {
    const std::unordered_map<uint64_t, int32_t> owners = {{1, 10}, {2, 10}, {3, 11}, {4, 11}, {5, 10}};
    const DiagSocket listener = sock(IPPROTO_TCP, TCP_LISTEN, 8080, 0, 1);
    const DiagSocket accepted = sock(IPPROTO_TCP, TCP_ESTABLISHED, 8080, 50000, 2);
    const DiagSocket outbound = sock(IPPROTO_TCP, TCP_SYN_SENT, 41000, 5432, 3);
    const DiagSocket udpLoose = sock(IPPROTO_UDP, TCP_CLOSE, 5353, 0, 4);
    const DiagSocket udpConnected = sock(IPPROTO_UDP, TCP_ESTABLISHED, 5353, 53, 4);
    const DiagSocket foreign = sock(IPPROTO_TCP, TCP_ESTABLISHED, 42000, 22, 99);
    DiagSocket acceptedElsewhere = sock(IPPROTO_TCP, TCP_ESTABLISHED, 9090, 50001, 5);
    DiagSocket wildcardListener = sock(IPPROTO_TCP, TCP_LISTEN, 9090, 0, 98);  // not a watched process's
    wildcardListener.src = {};

    SocketTracker tracker;
    struct Round {
        std::vector<DiagSocket> snapshot;
        std::vector<std::string> expected;  // "kind pid port"
    };
    const Round rounds[] = {
        {{listener, accepted, outbound, udpLoose, foreign, acceptedElsewhere, wildcardListener},
         {"8 10 8080", "6 11 5432"}},
        {{listener, accepted, outbound, udpConnected}, {"6 11 53"}},  // already reported ones stay quiet
        {{accepted}, {}},
        {{listener, outbound}, {"8 10 8080", "6 11 5432"}},  // gone a round: a new socket on a reused inode
    };
    for (std::size_t i = 0; i < std::size(rounds); ++i) {
        std::vector<HostEvent> out;
        tracker.update(rounds[i].snapshot, owners, out);
        std::vector<std::string> got;
        for (const HostEvent& e : out) {
            got.push_back(std::to_string(static_cast<int>(e.kind)) + " " + std::to_string(e.pid) + " " +
                          std::to_string(e.dstPort));
            EXPECT_EQ(e.family, AF_INET);
            EXPECT_EQ(e.srcAddr[0], 127);
        }
        EXPECT_EQ(got, rounds[i].expected) << "round " << i;
    }
    EXPECT_LE(tracker.remembered(), 2u);
}

}  // namespace
