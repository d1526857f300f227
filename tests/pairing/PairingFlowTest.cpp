#include <gtest/gtest.h>

#include <algorithm>

#include <nlohmann/json.hpp>

#include "PairingHarness.h"
#include "velmorand/pairing/JsonError.h"

namespace velmorand {
namespace {

using testing::answer;
using testing::kDefaultAppURL;
using Field = PairingModel::Field;
using nlohmann::json;

const std::string kHandshakeURL = std::string(kDefaultAppURL) + "/api/agent-handshake";
constexpr const char* kDeskAnswer =
    R"({"deviceToken":"tok","relayWsUrl":"wss://relay.test","deviceId":"dev","deviceName":"Desk"})";

class PairingFlowTest : public ::testing::Test {
  protected:
    PairingFlowTest() {
        h.classes.classes.insert("RTCPeerConnectionFactory");
        h.http.route("POST", kHandshakeURL, answer(200, kDeskAnswer));
    }

    std::vector<json> handshakeBodies() const {
        std::vector<json> bodies;
        for (const auto& request : h.http.requests("POST", kHandshakeURL)) {
            bodies.push_back(json::parse(request.body.value_or("null")));
        }
        return bodies;
    }

    testing::PairingHarness h;
    PairingModel& model = *h.model;
};

TEST_F(PairingFlowTest, SuccessStoresRefreshesThenReports) {
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
    // "Paired as" is announced only once the store and the mirror say paired; busy drops after.
    const auto success = std::find_if(seen->begin(), seen->end(), [](const auto& a) {
        return a.field == Field::status && a.status == "Pairing…";
    });
    ASSERT_NE(success, seen->end());
    EXPECT_TRUE(success->paired);
    EXPECT_TRUE(success->busy);
    ASSERT_NE(success + 1, seen->end());
    EXPECT_EQ((success + 1)->field, Field::busy);

    const SharedConfig::Values stored{
        "abc", kDefaultAppURL, "tok", "wss://relay.test", "dev", "Desk", {}, {}, {}, {}, {}, {}, {},
        {}};
    EXPECT_EQ(h.config.load(), stored);
    EXPECT_EQ(handshakeBodies(), std::vector<json>{json({{"accessKey", "abc"}, {"webrtc", true}})});
}

TEST_F(PairingFlowTest, AFailureIsReportedAndTheEarlierPairingKept) {
    h.storePairing("old", "Old Phone");
    model.refresh();
    h.queue.runReady();
    const auto before = h.config.load();
    const std::pair<HttpOutcome, std::string> cases[] = {
        {answer(401, R"({"error":"Invalid access key"})"),
         "Pairing failed: Handshake 401: Invalid access key"},
        {testing::transportError("Offline."), "Pairing failed: Offline."},
        {answer(200, "<html>"), "Pairing failed: " + JsonParseError().description()},
    };
    for (const auto& [outcome, status] : cases) {
        SCOPED_TRACE(status);
        h.http.route("POST", kHandshakeURL, outcome);
        model.pair("new");
        ASSERT_TRUE(h.queue.waitAndRun());
        EXPECT_EQ(model.status(), status);
        EXPECT_FALSE(model.busy());
        EXPECT_TRUE(model.paired());
        EXPECT_EQ(model.deviceName(), "Old Phone");
        EXPECT_EQ(h.config.load(), before);
    }
}

TEST_F(PairingFlowTest, SendsTheStoredRegionNotThePickersToTheDefaultService) {
    model.setRelayRegion("us");
    model.pair("k");
    ASSERT_TRUE(h.queue.waitAndRun());
    h.update([](auto& values) {
        values.relayRegion = "eu";
        values.appURL = "https://elsewhere.test";
    });
    h.classes.classes.clear();
    model.pair("k");
    ASSERT_TRUE(h.queue.waitAndRun());
    EXPECT_EQ(
        handshakeBodies(),
        (std::vector<json>{{{"accessKey", "k"}, {"webrtc", true}},
                           {{"accessKey", "k"}, {"webrtc", false}, {"preferredRegion", "eu"}}}));
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

}  // namespace
}  // namespace velmorand
