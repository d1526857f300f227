#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "PairingHarness.h"
#include "velmorand/pairing/JsonError.h"
#include "velmorand/platform/UrlComponents.h"

namespace velmorand {
namespace {

using testing::answer;
using testing::kDefaultAppURL;
using testing::PairingHarness;
using testing::transportError;

const std::string kBridgeURL = std::string(kDefaultAppURL) + "/api/agent/wda";
constexpr const char* kLocalURL = "http://127.0.0.1:8100/status";
constexpr const char* kIdle = "Touch control: idle — tap Start (or use the dashboard)";
constexpr const char* kStopped = "Touch control stopped — tap Start to restart";

class TouchControlTest : public ::testing::Test {
  protected:
    void storeKey(std::optional<std::string> accessKey,
                  std::optional<std::string> appURL = std::nullopt) {
        auto values = h.config.load();
        values.accessKey = std::move(accessKey);
        values.appURL = std::move(appURL);
        h.config.persist(values);
    }

    std::vector<HttpRequest> requests(const std::string& method, const std::string& url) const {
        std::vector<HttpRequest> matching;
        for (auto& request : h.http.requestsTo(url)) {
            if (request.method == method) {
                matching.push_back(request);
            }
        }
        return matching;
    }

    PairingHarness h;
    PairingModel& model = *h.model;
};

TEST_F(TouchControlTest, StartWithoutAKeyAsksForPairing) {
    storeKey("");
    model.startWda();
    EXPECT_EQ(model.wdaStatus(), "Pair this device first (access key required)");
    EXPECT_FALSE(model.bridgeBusy());
    EXPECT_TRUE(h.http.requests().empty());
    EXPECT_TRUE(h.queue.pendingDelays().empty());
}

TEST_F(TouchControlTest, AnUnusableBaseUrlEndsSilently) {
    storeKey("K", "https://bad host");
    const auto seen = testing::recordAnnouncements(model);
    model.startWda();
    model.refreshWdaStatus();
    EXPECT_TRUE(seen->empty());
    EXPECT_TRUE(h.http.requests().empty());
}

TEST_F(TouchControlTest, StartPostsTheKeyThenWaitsEightSecondsBeforeTheFollowUpCheck) {
    storeKey("K");
    h.http.route("POST", kBridgeURL, answer(202, R"j({"message":"Queued (3 ahead)"})j"));
    h.http.route("GET", kBridgeURL, answer(200, R"({"wdaStatus":"idle"})"));

    model.startWda();
    EXPECT_TRUE(model.bridgeBusy());
    EXPECT_EQ(model.wdaStatus(), "Queuing touch control on Velmorand Mac…");
    const auto posts = requests("POST", kBridgeURL);
    ASSERT_EQ(posts.size(), 1u);
    EXPECT_EQ(posts[0].url, kBridgeURL);
    EXPECT_EQ(posts[0].timeout, std::chrono::seconds(30));
    EXPECT_EQ(
        posts[0].headers,
        (std::vector<std::pair<std::string, std::string>>{{"Content-Type", "application/json"}}));
    EXPECT_EQ(nlohmann::json::parse(*posts[0].body), nlohmann::json({{"accessKey", "K"}}));

    h.queue.runReady();
    EXPECT_EQ(model.wdaStatus(), "Queued (3 ahead)");
    EXPECT_TRUE(model.bridgeBusy());
    EXPECT_EQ(h.queue.pendingDelays(), std::vector<double>{8.0});

    h.queue.advance(std::chrono::duration<double>(7.9));
    EXPECT_TRUE(requests("GET", kBridgeURL).empty());
    EXPECT_EQ(model.wdaStatus(), "Queued (3 ahead)");
    EXPECT_TRUE(model.bridgeBusy());

    h.queue.advance(std::chrono::duration<double>(0.2));
    EXPECT_EQ(requests("GET", kBridgeURL).size(), 1u);
    EXPECT_FALSE(model.bridgeBusy());
    EXPECT_EQ(model.wdaStatus(), kIdle);
}

TEST_F(TouchControlTest, ASecondStartRunsAlongsideAndTheFirstWaitClearsBusy) {
    storeKey("K");
    h.http.route("POST", kBridgeURL, answer(200, ""));
    model.startWda();
    h.queue.advance(std::chrono::duration<double>(3));
    model.startWda();
    h.queue.advance(std::chrono::duration<double>(5.5));
    EXPECT_FALSE(model.bridgeBusy());
    EXPECT_EQ(requests("POST", kBridgeURL).size(), 2u);
    EXPECT_EQ(h.queue.pendingDelays().size(), 1u);
}

struct StartCase {
    const char* name;
    HttpOutcome outcome;
    const char* text;
};

class StartAnswer : public TouchControlTest, public ::testing::WithParamInterface<StartCase> {};

TEST_P(StartAnswer, IsShownUntilTheFollowUp) {
    storeKey("K");
    h.http.route("POST", kBridgeURL, GetParam().outcome);
    model.startWda();
    h.queue.runReady();
    EXPECT_EQ(model.wdaStatus(), GetParam().text);
    EXPECT_TRUE(model.bridgeBusy());
    EXPECT_EQ(h.queue.pendingDelays(), std::vector<double>{8.0});
}

INSTANTIATE_TEST_SUITE_P(
    Answers, StartAnswer,
    ::testing::Values(StartCase{"message", answer(202, R"j({"message":"Queued (3 ahead)"})j"),
                                "Queued (3 ahead)"},
                      StartCase{"emptyBody", answer(200, ""), "Queued — WDA starts in ~30s"},
                      StartCase{"noBody", answer(204, std::nullopt), "Queued — WDA starts in ~30s"},
                      StartCase{"messageNotText", answer(200, R"({"message":3,"error":"x"})"),
                                "Queued — WDA starts in ~30s"},
                      StartCase{"error", answer(409, R"({"error":"Device busy"})"), "Device busy"},
                      StartCase{"html", answer(500, "<html>oops</html>"), "Start refused (500)"},
                      StartCase{"messageOnRefusal", answer(403, R"({"message":"no"})"),
                                "Start refused (403)"},
                      StartCase{"notHttp", answer(0, std::nullopt), "Start refused (0)"},
                      StartCase{"transport", transportError("Could not connect to the server."),
                                "Start failed: Could not connect to the server."}),
    [](const auto& info) { return std::string(info.param.name); });

struct BaseCase {
    const char* name;
    std::optional<std::string> storedAppURL;
    const char* endpoint;
};

class BridgeBase : public TouchControlTest, public ::testing::WithParamInterface<BaseCase> {};

TEST_P(BridgeBase, IsTheStoredElseDefaultUrlWithoutOuterSlashes) {
    storeKey("a b&c", GetParam().storedAppURL);
    model.startWda();
    model.refreshWdaStatus();
    const auto sent = h.http.requests();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].url, GetParam().endpoint);

    EXPECT_EQ(sent[1].method, "GET");
    EXPECT_EQ(sent[1].timeout, HttpRequest::kDefaultTimeout);
    EXPECT_FALSE(sent[1].body);
    EXPECT_TRUE(sent[1].url.starts_with(std::string(GetParam().endpoint) + "?"));
    const auto components = UrlComponents::parse(sent[1].url);
    ASSERT_TRUE(components);
    ASSERT_EQ(components->queryItems.size(), 1u);
    EXPECT_EQ(components->queryItems[0].name, "accessKey");
    EXPECT_EQ(components->queryItems[0].value, "a b&c");
}

INSTANTIATE_TEST_SUITE_P(
    Bases, BridgeBase,
    ::testing::Values(BaseCase{"none", std::nullopt, "https://app.velmorand.test/api/agent/wda"},
                      BaseCase{"stored", "https://b.test", "https://b.test/api/agent/wda"},
                      BaseCase{"twoSlashes", "https://b.test//", "https://b.test/api/agent/wda"},
                      BaseCase{"slashesBothEnds", "/x/", "x/api/agent/wda"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(TouchControlTest, AStatusCheckWithoutKeyDependsOnThePairedFlag) {
    auto values = h.config.load();
    values.deviceToken = "tok";
    values.relayWsUrl = "wss://relay.test";
    h.config.persist(values);
    model.refresh();
    EXPECT_EQ(model.wdaStatus(), "Missing access key — re-pair this device");
    h.config.clear();
    model.refresh();
    EXPECT_EQ(model.wdaStatus(), "");
    EXPECT_TRUE(h.http.requests().empty());
}

struct StatusCase {
    const char* name;
    HttpOutcome service;
    // The local server's answer when it is asked; absent when it must not be.
    std::optional<HttpOutcome> local;
    std::string text;
};

class StatusAnswer : public TouchControlTest, public ::testing::WithParamInterface<StatusCase> {};

TEST_P(StatusAnswer, SetsTheTouchControlLine) {
    storeKey("K");
    h.http.route("GET", kBridgeURL, GetParam().service);
    if (GetParam().local) {
        h.http.route("GET", kLocalURL, *GetParam().local);
    }
    model.setStatus("pairing line");
    model.refreshWdaStatus();
    h.queue.runReady();
    EXPECT_EQ(model.wdaStatus(), GetParam().text);
    EXPECT_EQ(model.status(), "pairing line");

    const auto local = requests("GET", kLocalURL);
    if (GetParam().local) {
        ASSERT_EQ(local.size(), 1u);
        EXPECT_EQ(local[0].url, kLocalURL);
        EXPECT_EQ(local[0].timeout, std::chrono::seconds(2));
    } else {
        EXPECT_TRUE(local.empty());
    }
}

StatusCase reported(const char* name, HttpOutcome service, std::string text) {
    return StatusCase{name, std::move(service), std::nullopt, std::move(text)};
}

StatusCase active(const char* name, HttpOutcome local, std::string text) {
    return StatusCase{name, answer(200, R"({"enabled":true,"wdaStatus":"active"})"),
                      std::move(local), std::move(text)};
}

INSTANTIATE_TEST_SUITE_P(
    ServiceAnswers, StatusAnswer,
    ::testing::Values(
        reported("transport", transportError("The request timed out."),
                 "Can't reach Velmorand: The request timed out."),
        reported("serverError", answer(503, R"({"wdaStatus":"active"})"),
                 "Status check failed (503)"),
        reported("array", answer(200, "[1]"), "Status check failed (200)"),
        reported("notJson", answer(200, "nope"),
                 "Can't reach Velmorand: " + JsonParseError().description()),
        reported("noBody", answer(204, std::nullopt),
                 "Can't reach Velmorand: " + JsonParseError().description()),
        reported("disabled", answer(200, R"({"enabled":false,"wdaStatus":"active"})"),
                 "Touch server offline — ask Velmorand ops"),
        reported("enabledNotBool", answer(200, R"({"enabled":0,"wdaStatus":"starting"})"),
                 "Starting touch control on Velmorand Mac…"),
        reported("startingDetail", answer(200, R"({"wdaStatus":"starting","wdaDetail":"Boot"})"),
                 "Boot"),
        reported("startingEmptyDetail", answer(200, R"({"wdaStatus":"starting","wdaDetail":""})"),
                 ""),
        reported("error", answer(200, R"({"wdaStatus":"error","wdaDetail":7})"),
                 "Touch start failed — try again"),
        reported("errorDetail", answer(200, R"({"wdaStatus":"error","wdaDetail":"No Mac"})"),
                 "No Mac"),
        reported("capitals", answer(200, R"({"wdaStatus":"ACTIVE"})"), kIdle),
        reported("none", answer(200, "{}"), kIdle),
        reported("idleDetailIgnored", answer(200, R"({"wdaStatus":"idle","wdaDetail":"x"})"),
                 kIdle)),
    [](const auto& info) { return std::string(info.param.name); });

INSTANTIATE_TEST_SUITE_P(
    LocalAnswers, StatusAnswer,
    ::testing::Values(active("ready", answer(200, R"({"value":{"ready":true}})"),
                             "Touch control: active"),
                      active("notReady", answer(200, R"({"value":{"ready":false}})"), kStopped),
                      active("readyAsNumber", answer(200, R"({"value":{"ready":1}})"), kStopped),
                      active("readyMissing", answer(200, R"({"value":{}})"), kStopped),
                      active("valueNotObject", answer(200, R"({"value":true})"), kStopped),
                      active("otherStatus", answer(201, R"({"value":{"ready":true}})"), kStopped),
                      active("noContent", answer(204, std::nullopt), kStopped),
                      active("timeout", transportError("timed out"), kStopped)),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace velmorand
