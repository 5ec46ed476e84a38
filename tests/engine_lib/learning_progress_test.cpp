// The status shows how learning goes: new features in the last hour of
// learning time, and whether the model is stable.
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include "event_script.h"

using namespace enginetest;

namespace {

struct Progress {
    unsigned long long perHour;
    bool stable;
};

Progress progressOf(RaspInterface& engine) {
    rapidjson::Document status;
    status.Parse(engine.getModelStatus("shop").c_str());
    return Progress{status["new_features_per_hour"].GetUint64(), status["stable"].GetBool()};
}

// Each minute of learning, the number of new features it brings.
struct Minute {
    unsigned newFeatures;
    unsigned long long perHourAfter;
    bool stableAfter;
};

void learnMinutes(RaspInterface& engine, const std::vector<Minute>& minutes, unsigned& next) {
    for (std::size_t m = 0; m < minutes.size(); ++m) {
        SCOPED_TRACE("minute " + std::to_string(m));
        for (unsigned i = 0; i < minutes[m].newFeatures; ++i) {
            std::string line = "write /var/shop/" + std::string(1, static_cast<char>('a' + next % 26)) +
                               std::string(1 + next / 26, 'x') + ".html";
            feed(engine, {line, line});  // the second is nothing new
            ++next;
        }
        engine.elapseTime(60, 0);
        Progress progress = progressOf(engine);
        EXPECT_EQ(progress.perHour, minutes[m].perHourAfter);
        EXPECT_EQ(progress.stable, minutes[m].stableAfter);
    }
}

}  // namespace

TEST(LearningProgressTest, StableOnceTheLastQuarterOfTheLearningPeriodBroughtNothingNew) {
    auto engine = startedEngine<RaspInterface>(8);  // a quarter is two minutes
    EXPECT_FALSE(progressOf(*engine).stable) << "nothing learned yet";
    unsigned next = 0;
    learnMinutes(*engine,
                 {{3, 3, false},
                  {1, 4, false},
                  {0, 4, false},
                  {0, 4, true},
                  {2, 6, false},
                  {0, 6, false},
                  {0, 6, true},
                  {0, 6, true}},
                 next);
    EXPECT_NE(engine->getModelStatus("shop").find("FILTER_PEROID"), std::string::npos);
    feed(*engine, {"write /var/shop/zzz.html"});
    EXPECT_TRUE(progressOf(*engine).stable) << "alarms in filtering are no learning";

    ASSERT_EQ(engine->interactModel(command(USR_OPR_RELEARN, "shop", 8).get()), 0);
    Progress relearned = progressOf(*engine);
    EXPECT_EQ(relearned.perHour, 0u);
    EXPECT_FALSE(relearned.stable);
}

TEST(LearningProgressTest, TheHourlyFigureForgetsWhatIsOlderThanAnHour) {
    auto engine = startedEngine<RaspInterface>(120);
    unsigned next = 0;
    std::vector<Minute> minutes(62, Minute{0, 5, false});  // a quarter is 30 minutes
    minutes[0] = {5, 5, false};
    minutes[30] = {2, 7, false};
    for (std::size_t m = 31; m < 59; ++m) minutes[m].perHourAfter = 7;
    for (std::size_t m = 59; m < 62; ++m) minutes[m] = {0, 2, m >= 60};  // minute 0 left the hour
    learnMinutes(*engine, minutes, next);
}
