// The control socket's requests: what is taken and the sentence for what is not.
#include <gtest/gtest.h>

#include "control_request.h"

namespace {

using wlagent::ControlRequest;

TEST(ControlRequest, Accepted) {
    struct Case {
        const char* text;
        ControlRequest::Kind kind;
    } cases[] = {
        {"{\"cmd\":\"status\"}", ControlRequest::Kind::Status},
        {"{\"cmd\":\"models\",\"extra\":1}", ControlRequest::Kind::Models},
        {"{\"cmd\":\"model\",\"name\":\"web\",\"engine\":\"app\"}", ControlRequest::Kind::Model},
        {"{\"cmd\":\"alarms\"}", ControlRequest::Kind::Alarms},
        {"{\"cmd\":\"alarm\",\"id\":\"18446744073709551615\"}", ControlRequest::Kind::Alarm},
        {"{\"cmd\":\"module\",\"on\":false}", ControlRequest::Kind::Module},
    };
    for (const Case& c : cases) {
        ControlRequest request;
        EXPECT_EQ(wlagent::parseControlRequest(c.text, request), "") << c.text;
        EXPECT_EQ(request.kind, c.kind) << c.text;
    }
}

TEST(ControlRequest, AlarmFilterValues) {
    ControlRequest request;
    ASSERT_EQ(wlagent::parseControlRequest("{\"cmd\":\"alarms\",\"model\":\"m\",\"kind\":\"dns\",\"since\":1700000000,"
                                           "\"after\":12,\"limit\":5}",
                                           request),
              "");
    EXPECT_EQ(request.filter.model, "m");
    EXPECT_EQ(request.filter.kind, "dns");
    EXPECT_EQ(request.filter.since, 1700000000);
    EXPECT_EQ(request.filter.after, 12u);
    EXPECT_EQ(request.filter.limit, 5u);
}

TEST(ControlRequest, Refused) {
    struct Case {
        std::string text;
        const char* sentence;
    } cases[] = {
        {"", "the request is not a JSON object"},
        {"[\"status\"]", "the request is not a JSON object"},
        {"{\"cmd\":\"status\"", "the request is not a JSON object"},
        {"{}", "the request has no \"cmd\""},
        {"{\"cmd\":7}", "\"cmd\" must be a string"},
        {"{\"cmd\":\"reboot\"}", "unknown command \"reboot\""},
        {"{\"cmd\":\"model\"}", "\"model\" needs a \"name\""},
        {"{\"cmd\":\"model\",\"name\":\"w\",\"engine\":\"gpu\"}", "\"engine\" must be host or app"},
        {"{\"cmd\":\"alarm\",\"id\":\"12a\"}", "\"alarm\" needs an \"id\" of decimal digits"},
        {"{\"cmd\":\"alarm\",\"id\":\"123456789012345678901\"}", "\"alarm\" needs an \"id\" of decimal digits"},
        {"{\"cmd\":\"alarm\",\"id\":12}", "\"id\" must be a string"},
        {"{\"cmd\":\"module\",\"on\":1}", "\"module\" needs \"on\": true or false"},
        {"{\"cmd\":\"alarms\",\"limit\":0.5}", "\"limit\" must be a whole number from 0 to 5000"},
        {"{\"cmd\":\"alarms\",\"limit\":5001}", "\"limit\" must be a whole number from 0 to 5000"},
        {"{\"cmd\":\"alarms\",\"since\":-1}", "\"since\" must be a whole number from 0 to 1000000000000"},
        {"{\"cmd\":\"alarms\",\"model\":\"" + std::string(1025, 'x') + "\"}", "\"model\" is longer than 1024 bytes"},
        {"{\"cmd\":\"status\",\"pad\":\"" + std::string(wlagent::kMaxControlRequest, 'x') + "\"}",
         "the request is larger than 64 KiB"},
    };
    for (const Case& c : cases) {
        ControlRequest request;
        EXPECT_EQ(wlagent::parseControlRequest(c.text, request), c.sentence) << c.text.substr(0, 80);
    }
}

}  // namespace
