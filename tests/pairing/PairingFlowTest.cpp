#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "PairingHarness.h"
#include "velmorand/pairing/JsonError.h"

namespace velmorand {
namespace {

using testing::answer;
using testing::kDefaultAppURL;
using testing::PairingHarness;
using Field = PairingModel::Field;

const std::string kHandshakeURL = std::string(kDefaultAppURL) + "/api/agent-handshake";
constexpr const char* kDeskAnswer =
    R"({"deviceToken":"tok","relayWsUrl":"wss://relay.test","deviceId":"dev","deviceName":"Desk"})";

class PairingFlowTest : public ::testing::Test {
  protected:
    PairingFlowTest() { h.classes.classes.insert("RTCPeerConnectionFactory"); }

    void answerHandshake(HttpOutcome outcome) {
        h.http.route("POST", kHandshakeURL, std::move(outcome));
    }

    // The handshakes sent so far, as JSON bodies.
    std::vector<nlohmann::json> handshakeBodies() const {
        std::vector<nlohmann::json> bodies;
        for (const auto& request : h.http.requestsTo(kHandshakeURL)) {
            bodies.push_back(nlohmann::json::parse(request.body.value_or("null")));
        }
        return bodies;
    }

    PairingHarness h;
    PairingModel& model = *h.model;
};

TEST_F(PairingFlowTest, SuccessStoresRefreshesThenReports) {
    answerHandshake(answer(200, kDeskAnswer));
    const auto seen = testing::recordAnnouncements(model);
    model.pair("  abc \n");
    EXPECT_TRUE(model.busy());
    EXPECT_EQ(model.status(), "Pairing…");
    ASSERT_GE(seen->size(), 2u);
    EXPECT_EQ((*seen)[0].field, Field::busy);
    EXPECT_EQ((*seen)[1].field, Field::status);
    EXPECT_EQ(h.config.load(), SharedConfig::Values{});

    ASSERT_TRUE(h.queue.waitAndRun());
    EXPECT_TRUE(model.paired());
    EXPECT_EQ(model.deviceName(), "Desk");
    EXPECT_EQ(model.status(), "Paired as Desk");
    EXPECT_FALSE(model.busy());

    // "Paired as" is announced only once the store and the mirror say paired; the flag drops
    // right after it.
    const auto success = std::find_if(seen->begin(), seen->end(), [](const auto& a) {
        return a.field == Field::status && a.status == "Pairing…";
    });
    ASSERT_NE(success, seen->end());
    EXPECT_TRUE(success->paired);
    EXPECT_TRUE(success->busy);
    ASSERT_NE(success + 1, seen->end());
    EXPECT_EQ((success + 1)->field, Field::busy);

    const auto stored = h.config.load();
    EXPECT_EQ(stored.accessKey, "abc");
    EXPECT_EQ(stored.appURL, kDefaultAppURL);
    EXPECT_EQ(stored.deviceToken, "tok");
    EXPECT_EQ(stored.relayWsUrl, "wss://relay.test");
    EXPECT_EQ(stored.deviceId, "dev");
    const auto expectedBody = nlohmann::json{{"accessKey", "abc"}, {"webrtc", true}};
    EXPECT_EQ(handshakeBodies(), std::vector<nlohmann::json>{expectedBody});
}

TEST_F(PairingFlowTest, ABlankKeyDoesNothingAtAll) {
    model.setStatus("before");
    const auto seen = testing::recordAnnouncements(model);
    model.pair(" \n\t ");
    model.pair("");
    EXPECT_TRUE(seen->empty());
    EXPECT_EQ(model.status(), "before");
    EXPECT_TRUE(h.http.requests().empty());
}

struct FailureCase {
    const char* name;
    HttpOutcome outcome;
    std::string status;
};

class PairingFailure : public PairingFlowTest, public ::testing::WithParamInterface<FailureCase> {};

TEST_P(PairingFailure, ReportsTheErrorAndKeepsTheEarlierPairing) {
    h.storePairing("old", "Old Phone");
    model.refresh();
    h.queue.runReady();
    const auto before = h.config.load();
    answerHandshake(GetParam().outcome);
    model.pair("new");
    ASSERT_TRUE(h.queue.waitAndRun());
    EXPECT_EQ(model.status(), GetParam().status);
    EXPECT_FALSE(model.busy());
    EXPECT_TRUE(model.paired());
    EXPECT_EQ(model.deviceName(), "Old Phone");
    EXPECT_EQ(h.config.load(), before);
}

INSTANTIATE_TEST_SUITE_P(
    Errors, PairingFailure,
    ::testing::Values(FailureCase{"refused", answer(401, R"({"error":"Invalid access key"})"),
                                  "Pairing failed: Handshake 401: Invalid access key"},
                      FailureCase{"network",
                                  testing::transportError("The Internet connection appears to be "
                                                          "offline."),
                                  "Pairing failed: The Internet connection appears to be offline."},
                      FailureCase{"decode", answer(200, R"({"deviceToken":"t"})"),
                                  "Pairing failed: Bad handshake response"},
                      FailureCase{"notJson", answer(200, "<html>"),
                                  "Pairing failed: " + JsonParseError().description()}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(PairingFlowTest, AsksForTheStoredRegionNotThePickersAndTheDefaultService) {
    auto values = h.config.load();
    values.relayRegion = "eu";
    values.appURL = "https://elsewhere.test";
    h.config.persist(values);
    model.setRelayRegion("us");
    h.classes.classes.clear();
    answerHandshake(answer(500, "down"));
    model.pair("k");
    ASSERT_TRUE(h.queue.waitAndRun());
    const auto expectedBody =
        nlohmann::json{{"accessKey", "k"}, {"webrtc", false}, {"preferredRegion", "eu"}};
    EXPECT_EQ(handshakeBodies(), std::vector<nlohmann::json>{expectedBody});
}

TEST_F(PairingFlowTest, WithoutAStoredRegionNoneIsSent) {
    model.setRelayRegion("us");
    answerHandshake(answer(500, "down"));
    model.pair("k");
    ASSERT_TRUE(h.queue.waitAndRun());
    ASSERT_EQ(handshakeBodies().size(), 1u);
    EXPECT_FALSE(handshakeBodies()[0].contains("preferredRegion"));
}

TEST_F(PairingFlowTest, TwoPairingsInFlightEachReportAndTheFirstToEndClearsBusy) {
    h.http.holdExchanges();
    model.pair("first");
    model.pair("second");
    ASSERT_TRUE(h.http.waitForParked(2));

    ASSERT_TRUE(h.http.release("first", answer(500, "boom")));
    ASSERT_TRUE(h.queue.waitAndRun());
    EXPECT_EQ(model.status(), "Pairing failed: Handshake 500: boom");
    EXPECT_FALSE(model.busy());

    ASSERT_TRUE(h.http.release("second", answer(200, kDeskAnswer)));
    ASSERT_TRUE(h.queue.waitAndRun());
    EXPECT_EQ(model.status(), "Paired as Desk");
    EXPECT_EQ(h.config.load().accessKey, "second");
}

TEST_F(PairingFlowTest, AnOutcomeArrivingAfterTheModelIsGoneIsDropped) {
    h.http.holdExchanges();
    model.pair("k");
    ASSERT_TRUE(h.http.waitForParked(1));
    h.model.reset();
    ASSERT_TRUE(h.http.release("k", answer(200, kDeskAnswer)));
    ASSERT_TRUE(h.queue.waitAndRun());
    EXPECT_EQ(h.config.load(), SharedConfig::Values{});
}

struct LinkCase {
    const char* url;
    std::optional<std::string> pairedWith;
};

class DeepLink : public PairingFlowTest, public ::testing::WithParamInterface<LinkCase> {};

TEST_P(DeepLink, PairsWithTheFirstKeyItemOnly) {
    answerHandshake(answer(200, kDeskAnswer));
    const auto seen = testing::recordAnnouncements(model);
    model.handleDeepLink(GetParam().url);
    if (!GetParam().pairedWith) {
        EXPECT_TRUE(seen->empty());
        EXPECT_TRUE(h.http.requests().empty());
        return;
    }
    ASSERT_TRUE(h.queue.waitAndRun());
    ASSERT_EQ(handshakeBodies().size(), 1u);
    EXPECT_EQ(handshakeBodies()[0]["accessKey"], *GetParam().pairedWith);
    EXPECT_EQ(model.status(), "Paired as Desk");
}

INSTANTIATE_TEST_SUITE_P(
    Links, DeepLink,
    ::testing::Values(
        LinkCase{"anything://open?foo=1&accessKey=K1&key=K2", "K1"},
        LinkCase{"https://app.test/pair?key=K2&accessKey=K1", "K2"},
        LinkCase{"x://y?key=a%2Bb", "a+b"}, LinkCase{"x://y?key=%20spaced%20", "spaced"},
        LinkCase{"x://y?key=", std::nullopt}, LinkCase{"x://y?key&accessKey=K", std::nullopt},
        LinkCase{"x://y?key=&accessKey=K", std::nullopt}, LinkCase{"x://y?Key=K", std::nullopt},
        LinkCase{"x://y?k=K", std::nullopt}, LinkCase{"x://y#key=K", std::nullopt},
        LinkCase{"x://y?key=%20", std::nullopt}, LinkCase{"not a link", std::nullopt}));

}  // namespace
}  // namespace velmorand
