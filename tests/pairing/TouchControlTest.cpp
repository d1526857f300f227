#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "PairingHarness.h"
#include "velmorand/pairing/JsonError.h"

namespace velmorand {
namespace {

using std::chrono::duration;
using testing::answer;
using testing::transportError;

const std::string kBridgeURL = std::string(testing::kDefaultAppURL) + "/api/agent/wda";
constexpr const char* kLocalURL = "http://127.0.0.1:8100/status";
constexpr const char* kQueued = "Queued — WDA starts in ~30s";
constexpr const char* kIdle = "Touch control: idle — tap Start (or use the dashboard)";
constexpr const char* kStopped = "Touch control stopped — tap Start to restart";

// A model whose store holds `accessKey` and `appURL` and nothing else.
struct Harness : testing::PairingHarness {
    explicit Harness(std::optional<std::string> accessKey = "K",
                     std::optional<std::string> appURL = std::nullopt) {
        update([&](auto& values) {
            values.accessKey = accessKey;
            values.appURL = appURL;
        });
    }
};

TEST(TouchControl, StartWithoutAKeyAsksForPairing) {
    Harness h("");
    h.model->startWda();
    EXPECT_EQ(h.model->wdaStatus(), "Pair this device first (access key required)");
    EXPECT_FALSE(h.model->bridgeBusy());
    EXPECT_TRUE(h.http.requests().empty());
    EXPECT_TRUE(h.queue.pendingDelays().empty());
}

TEST(TouchControl, StartPostsTheKeyThenWaitsEightSecondsBeforeTheFollowUpCheck) {
    Harness h;
    h.http.route("POST", kBridgeURL, answer(202, R"j({"message":"Queued (3 ahead)"})j"));
    h.http.route("GET", kBridgeURL, answer(200, R"({"wdaStatus":"idle"})"));
    h.model->startWda();
    EXPECT_TRUE(h.model->bridgeBusy());
    EXPECT_EQ(h.model->wdaStatus(), "Queuing touch control on Velmorand Mac…");
    const auto posts = h.http.requests("POST");
    ASSERT_EQ(posts.size(), 1u);
    EXPECT_EQ(posts[0].url, kBridgeURL);
    EXPECT_EQ(posts[0].timeout, std::chrono::seconds(30));
    EXPECT_EQ(
        posts[0].headers,
        (std::vector<std::pair<std::string, std::string>>{{"Content-Type", "application/json"}}));
    EXPECT_EQ(nlohmann::json::parse(*posts[0].body), nlohmann::json({{"accessKey", "K"}}));

    h.queue.advance(duration<double>(7.9));
    EXPECT_TRUE(h.http.requests("GET").empty());
    EXPECT_EQ(h.model->wdaStatus(), "Queued (3 ahead)");
    EXPECT_TRUE(h.model->bridgeBusy());

    h.queue.advance(duration<double>(0.2));
    EXPECT_EQ(h.http.requests("GET", kBridgeURL).size(), 1u);
    EXPECT_FALSE(h.model->bridgeBusy());
    EXPECT_EQ(h.model->wdaStatus(), kIdle);
}

TEST(TouchControl, ASecondStartRunsAlongsideAndTheFirstWaitClearsBusy) {
    Harness h;
    h.http.route("POST", kBridgeURL, answer(200, ""));
    h.model->startWda();
    h.queue.advance(duration<double>(3));
    h.model->startWda();
    h.queue.advance(duration<double>(5.5));
    EXPECT_FALSE(h.model->bridgeBusy());
    EXPECT_EQ(h.http.requests("POST").size(), 2u);
    EXPECT_EQ(h.queue.pendingDelays().size(), 1u);
}

TEST(TouchControl, AStatusCheckWithoutKeyDependsOnThePairedFlag) {
    Harness h(std::nullopt);
    h.update([](auto& values) {
        values.deviceToken = "tok";
        values.relayWsUrl = "wss://relay.test";
    });
    h.model->refresh();
    EXPECT_EQ(h.model->wdaStatus(), "Missing access key — re-pair this device");
    h.config.clear();
    h.model->refresh();
    EXPECT_EQ(h.model->wdaStatus(), "");
    EXPECT_TRUE(h.http.requests().empty());
}

TEST(TouchControl, TheStatusCheckSetsOnlyTheTouchControlLine) {
    const auto notJson = "Can't reach Velmorand: " + JsonParseError().description();
    const auto active = answer(200, R"({"enabled":true,"wdaStatus":"active"})");
    const struct {
        HttpOutcome service;
        // The local server's answer when it must be asked (with a 2-second limit).
        std::optional<HttpOutcome> local;
        std::string text;
    } cases[] = {
        {transportError("Timed out."), {}, "Can't reach Velmorand: Timed out."},
        {answer(503, R"({"wdaStatus":"active"})"), {}, "Status check failed (503)"},
        {answer(200, "[1]"), {}, "Status check failed (200)"},
        {answer(200, "nope"), {}, notJson},
        {answer(204, std::nullopt), {}, notJson},
        {answer(200, R"({"enabled":false,"wdaStatus":"active"})"),
         {},
         "Touch server offline — ask Velmorand ops"},
        {answer(200, R"({"enabled":0,"wdaStatus":"starting"})"),
         {},
         "Starting touch control on Velmorand Mac…"},
        {answer(200, R"({"wdaStatus":"starting","wdaDetail":"Boot"})"), {}, "Boot"},
        {answer(200, R"({"wdaStatus":"starting","wdaDetail":""})"), {}, ""},
        {answer(200, R"({"wdaStatus":"error","wdaDetail":7})"),
         {},
         "Touch start failed — try again"},
        {answer(200, R"({"wdaStatus":"error","wdaDetail":"No Mac"})"), {}, "No Mac"},
        {answer(200, R"({"wdaStatus":"ACTIVE"})"), {}, kIdle},
        {answer(200, "{}"), {}, kIdle},
        {answer(200, R"({"wdaStatus":"idle","wdaDetail":"x"})"), {}, kIdle},
        {active, answer(200, R"({"value":{"ready":true}})"), "Touch control: active"},
        {active, answer(200, R"({"value":{"ready":false}})"), kStopped},
        {active, answer(200, R"({"value":{"ready":1}})"), kStopped},
        {active, answer(200, R"({"value":true})"), kStopped},
        {active, answer(201, R"({"value":{"ready":true}})"), kStopped},
        {active, answer(204, std::nullopt), kStopped},
        {active, transportError("timed out"), kStopped},
    };
    Harness h;
    h.model->setStatus("pairing line");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const auto asked = h.http.requests("GET", kLocalURL).size();
        h.http.route("GET", kBridgeURL, c.service);
        h.http.route("GET", kLocalURL, c.local.value_or(transportError("unexpected")));
        h.model->refreshWdaStatus();
        h.queue.runReady();
        EXPECT_EQ(h.model->wdaStatus(), c.text);
        EXPECT_EQ(h.model->status(), "pairing line");
        const auto local = h.http.requests("GET", kLocalURL);
        ASSERT_EQ(local.size(), asked + (c.local ? 1 : 0));
        if (c.local) {
            EXPECT_EQ(local.back().url, kLocalURL);
            EXPECT_EQ(local.back().timeout, std::chrono::seconds(2));
        }
    }
}

}  // namespace
}  // namespace velmorand
