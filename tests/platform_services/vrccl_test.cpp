// The scriptable collector channel: init results in turn, the call log and
// the filter that follows the subscriptions while the channel is up.
#include <gtest/gtest.h>

#include <vector>

#include "vrccl_action.h"
#include "vrccl_control.h"

namespace {

class ServicesVrcclTest : public ::testing::Test {
protected:
    void SetUp() override { vrccl_control_reset(); }
    void TearDown() override { vrccl_control_reset(); }

    static std::vector<int> filter() {
        std::vector<int> ids(vrccl_control_filter(nullptr, 0));
        vrccl_control_filter(ids.data(), static_cast<int>(ids.size()));
        return ids;
    }
};

TEST_F(ServicesVrcclTest, InitReturnsTheScriptInTurnThenSucceeds) {
    const int script[] = {-1, 5, -1};
    vrccl_control_set_init_results(script, 3);
    const int expected[] = {-1, 5, -1, 0, 0};
    for (int want : expected) EXPECT_EQ(vrccl_action_init(), want);
    EXPECT_EQ(vrccl_control_init_calls(), 5);
    EXPECT_NE(vrccl_control_is_up(), 0);
}

TEST_F(ServicesVrcclTest, DefaultInitSucceedsAndFreeIsSafeAnytime) {
    vrccl_action_free();
    EXPECT_EQ(vrccl_action_init(), 0);
    vrccl_action_free();
    vrccl_action_free();
    EXPECT_EQ(vrccl_control_free_calls(), 3);
    EXPECT_EQ(vrccl_control_is_up(), 0);
}

TEST_F(ServicesVrcclTest, FilterFollowsAddsAndRemovesInOrder) {
    ASSERT_EQ(vrccl_action_init(), 0);
    struct Step {
        int action;
        int id;
    };
    const Step steps[] = {{260, 30}, {260, 10}, {260, 20}, {259, 20}, {260, 10}, {259, 99}};
    for (const Step& s : steps) EXPECT_EQ(vrccl_action_subscribe(s.action, s.id, -1), 0);
    EXPECT_EQ(filter(), (std::vector<int>{10, 30}));

    std::vector<vrccl_subscribe_call> calls(vrccl_control_subscribe_calls(nullptr, 0));
    ASSERT_EQ(calls.size(), 6u);
    EXPECT_EQ(vrccl_control_subscribe_calls(calls.data(), 2), 6) << "copies at most max, counts all";
    vrccl_control_subscribe_calls(calls.data(), static_cast<int>(calls.size()));
    for (size_t i = 0; i < calls.size(); ++i) {
        EXPECT_EQ(calls[i].action, steps[i].action);
        EXPECT_EQ(calls[i].id, steps[i].id);
        EXPECT_EQ(calls[i].reserved, -1);
    }
}

TEST_F(ServicesVrcclTest, FilterFollowsSubscriptionsWhetherOrNotTheChannelIsUp) {
    const int script[] = {-1};
    vrccl_control_set_init_results(script, 1);
    ASSERT_EQ(vrccl_action_init(), -1);
    EXPECT_EQ(vrccl_control_is_up(), 0);
    EXPECT_EQ(vrccl_action_subscribe(260, 7, -1), 0);
    EXPECT_EQ(vrccl_action_subscribe(260, 8, -1), 0);
    vrccl_action_free();
    EXPECT_EQ(vrccl_action_subscribe(259, 7, -1), 0);
    EXPECT_EQ(filter(), std::vector<int>{8});
    EXPECT_EQ(vrccl_action_subscribe(1, 8, -1), -1) << "unknown action";
    EXPECT_EQ(filter(), std::vector<int>{8});
    EXPECT_EQ(vrccl_control_subscribe_calls(nullptr, 0), 4) << "refused calls are recorded too";
}

TEST_F(ServicesVrcclTest, ResetForgetsEverything) {
    const int script[] = {3};
    vrccl_control_set_init_results(script, 1);
    vrccl_action_init();
    vrccl_action_init();
    vrccl_action_subscribe(260, 1, -1);
    vrccl_control_reset();
    EXPECT_EQ(vrccl_control_init_calls(), 0);
    EXPECT_EQ(vrccl_control_free_calls(), 0);
    EXPECT_EQ(vrccl_control_subscribe_calls(nullptr, 0), 0);
    EXPECT_TRUE(filter().empty());
    EXPECT_EQ(vrccl_control_is_up(), 0);
    EXPECT_EQ(vrccl_action_init(), 0) << "the script went too";
}

}  // namespace
