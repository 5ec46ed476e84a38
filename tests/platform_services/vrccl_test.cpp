// The scriptable collector channel: init results in turn, and the filter
// that follows the subscriptions.
#include <gtest/gtest.h>

#include <vector>

#include "vrccl_action.h"
#include "vrccl_control.h"

namespace {

class ServicesVrcclTest : public ::testing::Test {
protected:
    void SetUp() override { vrccl_control_reset(); }
    void TearDown() override { vrccl_control_reset(); }
};

TEST_F(ServicesVrcclTest, InitReturnsTheScriptInTurnThenSucceeds) {
    const int script[] = {-1, 5, -1};
    vrccl_control_set_init_results(script, 3);
    const int expected[] = {-1, 5, -1, 0, 0};
    for (int want : expected) EXPECT_EQ(vrccl_action_init(), want);
    EXPECT_EQ(vrccl_control_init_calls(), 5);
    EXPECT_NE(vrccl_control_is_up(), 0);
}

TEST_F(ServicesVrcclTest, FilterFollowsAddsAndRemovesInOrder) {
    ASSERT_EQ(vrccl_action_init(), 0);
    struct Step {
        int action;
        int id;
        int rc;
    };
    const Step steps[] = {{260, 30, 0}, {260, 10, 0}, {260, 20, 0}, {259, 20, 0},
                          {260, 10, 0}, {259, 99, 0}, {1, 30, -1}};
    for (const Step& s : steps) EXPECT_EQ(vrccl_action_subscribe(s.action, s.id, -1), s.rc) << s.action;
    std::vector<int> ids(vrccl_control_filter(nullptr, 0));
    vrccl_control_filter(ids.data(), static_cast<int>(ids.size()));
    EXPECT_EQ(ids, (std::vector<int>{10, 30}));

    EXPECT_EQ(vrccl_control_subscribe_calls(nullptr, 0), 7) << "refused calls are logged too";
}

}  // namespace
