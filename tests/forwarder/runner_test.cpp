#include <gtest/gtest.h>

#include <chrono>
#include <set>
#include <string>
#include <vector>

#include "backoff.h"
#include "sink_runner.h"
#include "spool_writer.h"
#include "temp_dir.h"

using namespace wlforward;
using std::chrono::milliseconds;

namespace {

// A sink whose answers the test scripts: each call takes the next plan.
struct ScriptedSink : Sink {
    struct Plan {
        size_t take = SIZE_MAX;  // delivered (capped at the batch)
        size_t refuse = 0;
        std::string error;
    };
    std::vector<Plan> plans;  // then: take everything
    std::vector<std::string> received;
    std::vector<size_t> batchSizes;
    std::vector<std::string> files;
    const char* sinkName = "http";
    bool files_ = false;

    const char* name() const override { return sinkName; }
    SendResult send(const std::vector<Report>& batch) override {
        batchSizes.push_back(batch.size());
        Plan plan = plans.empty() ? Plan{} : plans.front();
        if (!plans.empty()) plans.erase(plans.begin());
        SendResult r;
        r.delivered = std::min(plan.take, batch.size());
        r.rejected = std::min(plan.refuse, batch.size() - r.delivered);
        r.error = plan.error;
        for (size_t i = 0; i < r.delivered; ++i) received.push_back(*batch[i].text);
        return r;
    }
    bool takesFiles() const override { return files_; }
    SendResult sendFile(const Upload& f) override {
        files.push_back(f.entry.file);
        return SendResult{1, 0, "", ""};
    }
};

struct Fixture : ::testing::Test {
    TempDir root;
    wlspool::Stream reports = wlspool::reportStream(root.path());
    wlspool::Stream uploads = wlspool::uploadStream(root.path());
    std::vector<std::string> log;
    wlspool::SpoolWriter writer{reports, wlspool::SpoolLimits{1 << 20, 4 << 20, false}, nullptr};

    void SetUp() override {
        std::string error;
        ASSERT_TRUE(writer.open(error)) << error;
    }
    void spool(int count, int from = 0) {
        std::string error;
        for (int i = from; i < from + count; ++i) {
            ASSERT_TRUE(
                writer.append("{\"type\":\"alarm\",\"host_uuid\":\"h\",\"n\":" + std::to_string(i) + "}", error));
        }
    }
    std::unique_ptr<SinkRunner> runner(Sink& sink, size_t batch = 10) {
        RunnerLimits limits;
        limits.batchLines = batch;
        limits.idle = milliseconds(250);
        limits.retryInitial = milliseconds(1000);
        limits.retryMax = milliseconds(8000);
        return std::make_unique<SinkRunner>(sink, reports, uploads, root.path() + "/var/spool/uploads", limits,
                                            [this](const std::string& l) { log.push_back(l); });
    }
    // Steps until idle, collecting the pauses asked for (no real waiting).
    std::vector<milliseconds> drive(SinkRunner& r, int maxSteps = 1000) {
        std::vector<milliseconds> pauses;
        for (int i = 0; i < maxSteps; ++i) {
            SinkRunner::Step s = r.step();
            pauses.push_back(r.pauseAfter(s));
            if (s == SinkRunner::Step::Idle) break;
        }
        return pauses;
    }
};

}  // namespace

TEST(Backoff, DoublesUpToTheMaximumAndStartsOverAfterReset) {
    struct Case {
        long initial, max;
        std::vector<long> expected;
    } cases[] = {
        {1000, 8000, {1000, 2000, 4000, 8000, 8000}},
        {300, 1000, {300, 600, 1000, 1000}},
        {500, 100, {500, 500}},  // a maximum below the start is the start
    };
    for (const Case& c : cases) {
        Backoff b{milliseconds(c.initial), milliseconds(c.max)};
        for (long e : c.expected) EXPECT_EQ(b.next().count(), e) << c.initial << "/" << c.max;
        b.reset();
        EXPECT_EQ(b.next().count(), c.initial);
    }
}

TEST_F(Fixture, DeliversEverythingInBatchesAndPersistsTheCursor) {
    spool(25);
    ScriptedSink sink;
    auto r = runner(sink);
    std::vector<milliseconds> pauses = drive(*r);
    EXPECT_EQ(sink.received.size(), 25u);
    EXPECT_EQ(sink.batchSizes, (std::vector<size_t>{10, 10, 5}));
    EXPECT_EQ(pauses.back(), milliseconds(250)) << "idle: looks again later";
    EXPECT_EQ(wlspool::readCursor(reports, "http"), writer.end());
    SinkCounters c = r->counters();
    EXPECT_EQ(c.sent, 25u);
    EXPECT_TRUE(c.up);

    // A new runner (a restart) starts where the last one stopped.
    spool(3, 25);
    ScriptedSink after;
    auto again = runner(after);
    drive(*again);
    ASSERT_EQ(after.received.size(), 3u);
    EXPECT_NE(after.received[0].find("\"n\":25"), std::string::npos);
}

TEST_F(Fixture, SinkDownBacksOffKeepsItsPlaceAndLosesNothing) {
    spool(12);
    ScriptedSink sink;
    sink.plans = {{0, 0, "refused"}, {0, 0, "refused"}, {0, 0, "refused"}, {0, 0, "refused"}, {0, 0, "refused"}};
    auto r = runner(sink);
    std::vector<milliseconds> pauses;
    for (int i = 0; i < 5; ++i) pauses.push_back(r->pauseAfter(r->step()));
    EXPECT_EQ(pauses, (std::vector<milliseconds>{milliseconds(1000), milliseconds(2000), milliseconds(4000),
                                                 milliseconds(8000), milliseconds(8000)}));
    SinkCounters down = r->counters();
    EXPECT_FALSE(down.up);
    EXPECT_EQ(down.failed, 5u);
    EXPECT_EQ(down.lastError, "refused");
    EXPECT_EQ(down.cursor, 0u);
    EXPECT_EQ(log.size(), 1u) << "the same error is told once";

    drive(*r);  // back up
    std::set<std::string> unique(sink.received.begin(), sink.received.end());
    EXPECT_EQ(unique.size(), 12u);
    EXPECT_TRUE(r->counters().up);
    // After a success the back-off starts over.
    sink.plans = {{0, 0, "again"}};
    spool(1, 12);
    EXPECT_EQ(r->pauseAfter(r->step()), milliseconds(1000));
}

TEST_F(Fixture, PartialDeliveryMovesTheCursorPastWhatWasTakenOnly) {
    spool(10);
    ScriptedSink sink;
    sink.plans = {{4, 0, "timeout after 4"}};
    auto r = runner(sink);
    EXPECT_EQ(r->step(), SinkRunner::Step::Failed);
    EXPECT_EQ(r->counters().sent, 4u);
    drive(*r);
    // Reports 0..9 once each: the four taken are not sent again.
    ASSERT_EQ(sink.received.size(), 10u);
    EXPECT_EQ(std::set<std::string>(sink.received.begin(), sink.received.end()).size(), 10u);
}

TEST_F(Fixture, RefusedReportsAreSkippedAndCountedWithoutStoppingTheRest) {
    spool(5);
    ScriptedSink sink;
    sink.plans = {{2, 1, ""}};  // the third is refused for good
    auto r = runner(sink);
    drive(*r);
    EXPECT_EQ(sink.received.size(), 4u);
    SinkCounters c = r->counters();
    EXPECT_EQ(c.sent, 4u);
    EXPECT_EQ(c.dropped, 1u);
    EXPECT_TRUE(c.up);
}

TEST_F(Fixture, OneSinkDownDoesNotHoldBackAnother) {
    spool(30);
    ScriptedSink down, fine;
    down.sinkName = "nats";
    down.plans.assign(100, ScriptedSink::Plan{0, 0, "connection refused"});
    auto a = runner(down);
    auto b = runner(fine);
    for (int i = 0; i < 10; ++i) {
        a->step();
        b->step();
    }
    EXPECT_EQ(fine.received.size(), 30u);
    EXPECT_EQ(down.received.size(), 0u);
    EXPECT_EQ(wlspool::readCursor(reports, "nats"), 0u);
    EXPECT_EQ(wlspool::readCursor(reports, "http"), writer.end());
}

TEST_F(Fixture, UploadsFollowTheManifestAndSkipBadOrMissingEntries) {
    wlspool::SpoolWriter manifest(uploads, wlspool::SpoolLimits{1 << 20, 4 << 20, false}, nullptr);
    std::string error;
    ASSERT_TRUE(manifest.open(error)) << error;
    std::filesystem::create_directories(root.path() + "/var/spool/uploads/kind3");
    writeFile(root.path() + "/var/spool/uploads/kind3/a.json", "[]");
    for (const char* line : {"{\"kind\":3,\"file\":\"kind3/a.json\",\"name\":\"a.json\"}",
                             "{\"kind\":3,\"file\":\"../../etc/passwd\",\"name\":\"passwd\"}",
                             "{\"kind\":3,\"file\":\"kind3/gone.json\",\"name\":\"gone.json\"}",
                             "{\"kind\":3,\"file\":\"kind3/a.json\",\"name\":\"a.json\"}"}) {
        ASSERT_TRUE(manifest.append(line, error));
    }
    ScriptedSink sink;
    sink.files_ = true;
    auto r = runner(sink);
    drive(*r);
    EXPECT_EQ(sink.files, (std::vector<std::string>{"kind3/a.json", "kind3/a.json"}));
    EXPECT_EQ(r->counters().filesSent, 2u);
    EXPECT_EQ(r->counters().dropped, 1u) << "the entry naming a path outside the uploads";
    EXPECT_EQ(wlspool::readCursor(uploads, "http"), manifest.end());
}
