// Open-process tracking: the mark-and-sweep of the collector's filter.

#include "models_fixture.h"
#include "vrccl_action.h"
#include "whitelist_api.h"

namespace {

std::string listen_json(const std::vector<std::pair<int, unsigned long long>>& sockets) {
    std::string json;
    for (const auto& socket : sockets)
        json += std::string(json.empty() ? "" : ",") + R"({"port":")" + std::to_string(socket.first) +
                R"(","process_id":")" + std::to_string(socket.second) + R"("})";
    return R"({"list":[)" + json + "]}";
}

typedef std::map<unsigned long long, bool> PidMarks;
typedef std::vector<std::pair<int, int>> Subscribed;

class TrackingTest : public ModelsTest {
protected:
    // The first call of each engine does nothing; this makes the next a full pass.
    void skip_first_calls() {
        whitelist_base_update_open_process();
        whitelist_rasp_update_open_process();
    }
    Subscribed subscribed() const {
        Subscribed result;
        for (const auto& s : models_double::subscriptions()) result.emplace_back(s.action, s.id);
        return result;
    }
};

TEST_F(TrackingTest, PassMarksWhatModelsHaveAndWithdrawsTheRest) {
    skip_first_calls();
    // 2147483001 came from a start command and is seen again, by two models;
    // 2147483002 is gone; 2147483003 is new.
    *g_model_pid = PidMarks{{2147483001, false}, {2147483002, false}};
    g_model_array->push_back(make_model("web", 5, {80}));
    g_model_array->push_back(make_model("api", 6, {81}));
    models_double::set_asset(5, listen_json({{80, 2147483001}, {80, 2147483003}, {81, 2147483001}}));
    EXPECT_EQ(whitelist_base_update_open_process(), 0);
    EXPECT_EQ(subscribed(), (Subscribed{{VRCCL_ACTION_ADD_PID, 2147483003}, {VRCCL_ACTION_DEL_PID, 2147483002}}));
    EXPECT_EQ(*g_model_pid, (PidMarks{{2147483001, false}, {2147483003, false}}));

    // The process stops listening: withdrawn at the end of the next pass.
    models_double::set_asset(5, listen_json({{80, 2147483001}}));
    whitelist_base_update_open_process();
    EXPECT_EQ(subscribed().back(), (std::pair<int, int>{VRCCL_ACTION_DEL_PID, 2147483003}));
    EXPECT_EQ(*g_model_pid, (PidMarks{{2147483001, false}}));
}

}  // namespace
