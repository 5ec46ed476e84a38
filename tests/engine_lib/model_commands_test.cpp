// The result codes of the manager's commands and feedback.
#include <gtest/gtest.h>

#include "engine_test_support.h"

using namespace enginetest;

TEST(ModelCommandsTest, InteractResultCodes) {
    auto engine = makeBaseEngine();
    ASSERT_TRUE(engine->initModel(startCommand("shop", 1, "/usr/sbin/shopd", {10}).get()));
    const struct {
        int oprType;
        const char* name;
        unsigned short switchValue;
        int expected;
    } cases[] = {
        {USR_OPR_RELEARN, "shop", 0, 0},    {USR_OPR_RELEARN, "none", 0, -1},
        {USR_OPR_QUERY, "shop", 0, 0},      {USR_OPR_QUERY, "none", 0, -1},
        {USR_OPR_STUDY_TIME, "shop", 0, 0}, {USR_OPR_STUDY_TIME, "none", 0, -1},
        {USR_OPR_SWITCH, "shop", 1, 0},     {USR_OPR_SWITCH, "shop", 7, -1},
        {USR_OPR_SWITCH, "none", 1, -1},    {5, "shop", 0, -1},
        {USR_OPR_DELETE, "none", 0, -2},    {USR_OPR_DELETE, "shop", 0, 0},
        {USR_OPR_DELETE, "shop", 0, -2},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(engine->interactModel(command(c.oprType, c.name, 1, c.switchValue).get()), c.expected)
            << "oprType " << c.oprType << " on " << c.name;
    }
    EXPECT_EQ(engine->interactModel(nullptr), -1);
    EXPECT_EQ(engine->getModelStatus("shop"), "ERROR") << "deleted";
    auto feedback = fileEvent(10, "/etc/passwd");
    setText(feedback->model_name, "shop");
    EXPECT_EQ(engine->feedbackAlarm(*feedback), -1) << "feedback for a model no longer there";
}
