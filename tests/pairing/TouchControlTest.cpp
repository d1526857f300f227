#include <gtest/gtest.h>

#include "PairingHarness.h"
#include "velmorand/pairing/JsonError.h"

namespace velmorand {
namespace {

using testing::answer;
using testing::transportError;

const std::string kBridgeURL = std::string(testing::kDefaultAppURL) + "/api/agent/wda";
constexpr const char* kLocalURL = "http://127.0.0.1:8100/status";
constexpr const char* kIdle = "Touch control: idle — tap Start (or use the dashboard)";
constexpr const char* kStopped = "Touch control stopped — tap Start to restart";

TEST(TouchControl, TheStatusCheckSetsOnlyTheTouchControlLine) {
    const auto notJson = "Can't reach Velmorand: " + JsonParseError().description();
    const auto active = answer(200, R"({"enabled":true,"wdaStatus":"active"})");
    // clang-format off
    const struct {
        HttpOutcome service;
        // The local server's answer when it must be asked (with a 2-second limit).
        std::optional<HttpOutcome> local;
        std::string text;
        bool failure;  // a state the service could not report, or touch control cannot reach
    } cases[] = {
        {transportError("Timed out."), {}, "Can't reach Velmorand: Timed out.", true},
        {answer(503, R"({"wdaStatus":"active"})"), {}, "Status check failed (503)", true},
        {answer(200, "nope"), {}, notJson, true},
        {answer(200, "[]"), {}, "Status check failed (200)", true},
        {answer(200, R"({"enabled":false,"wdaStatus":"active"})"), {},
         "Touch server offline — ask Velmorand ops", true},
        {answer(200, R"({"wdaStatus":"error","wdaDetail":7})"), {},
         "Touch start failed — try again", true},
        {answer(200, R"({"wdaStatus":"error","wdaDetail":"No Mac"})"), {}, "No Mac", true},
        {answer(200, R"({"wdaStatus":"starting"})"), {},
         "Starting touch control on Velmorand Mac…", false},
        {answer(200, R"({"wdaStatus":"ACTIVE"})"), {}, kIdle, false},
        {active, answer(200, R"({"value":{"ready":true}})"), "Touch control: active", false},
        {active, answer(200, R"({"value":{"ready":false}})"), kStopped, false},
        {active, answer(200, R"({"value":{"ready":1}})"), kStopped, false},
        {active, answer(200, "<html>not JSON</html>"), kStopped, false},
    };
    // clang-format on
    testing::PairingHarness h;
    h.update([](auto& values) { values.accessKey = "K"; });
    h.model->setStatus("pairing line");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const auto asked = h.http.requests("GET", kLocalURL).size();
        h.http.route("GET", kBridgeURL, c.service);
        h.http.route("GET", kLocalURL, c.local.value_or(transportError("unexpected")));
        h.model->refreshWdaStatus();
        h.queue.runReady();
        EXPECT_EQ(h.model->wdaStatus(), c.text);
        EXPECT_EQ(h.model->touchControlFailed(), c.failure);
        EXPECT_EQ(h.model->status(), "pairing line");
        const auto local = h.http.requests("GET", kLocalURL);
        ASSERT_EQ(local.size(), asked + (c.local ? 1 : 0));
        if (c.local) {
            EXPECT_EQ(local.back().url, kLocalURL);
            EXPECT_EQ(local.back().timeout, std::chrono::seconds(2));
        }
    }
}

// The service's answer to a start is the line until the follow-up check replaces it.
TEST(TouchControl, AStartIsQueuedOrRefusedInTheServicesWords) {
    // The service's answer, the touch-control line, and whether it reports a failure.
    const std::tuple<HttpOutcome, std::string, bool> cases[] = {
        {answer(202, R"({"message":"Queued behind 2"})"), "Queued behind 2", false},
        {answer(200, "{}"), "Queued — WDA starts in ~30s", false},
        {answer(409, R"({"error":"No Mac is free"})"), "No Mac is free", true},
        {answer(500, "<html>"), "Start refused (500)", true},
        {transportError("Timed out."), "Start failed: Timed out.", true},
    };
    for (const auto& [outcome, text, failure] : cases) {
        testing::PairingHarness h;
        h.update([](auto& values) { values.accessKey = "K"; });
        h.http.route("POST", kBridgeURL, outcome);
        h.model->startWda();
        h.queue.runReady();
        EXPECT_EQ(h.model->wdaStatus(), text);
        EXPECT_EQ(h.model->touchControlFailed(), failure) << text;
    }
}

// Without an access key the service cannot be asked; a paired device is told how to mend that.
TEST(TouchControl, WithoutAnAccessKeyTheServiceIsNotAsked) {
    const struct {
        bool paired;
        std::string text;
        bool failure;
    } cases[] = {
        {true, "Missing access key — re-pair this device", true},
        {false, "", false},
    };
    for (const auto& c : cases) {
        testing::PairingHarness h;
        h.update([&c](auto& values) {
            values.accessKey = "";
            values.deviceToken = c.paired ? std::optional<std::string>("T") : std::nullopt;
            values.relayWsUrl = c.paired ? std::optional<std::string>("wss://relay") : std::nullopt;
        });
        h.model->refresh();
        h.model->refreshWdaStatus();
        h.queue.runReady();
        EXPECT_EQ(h.model->paired(), c.paired);
        EXPECT_EQ(h.model->wdaStatus(), c.text);
        EXPECT_EQ(h.model->touchControlFailed(), c.failure);
        EXPECT_TRUE(h.http.requests("GET", kBridgeURL).empty());
    }
}

}  // namespace
}  // namespace velmorand
