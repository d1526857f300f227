#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "PairingHarness.h"

namespace velmorand {
namespace {

using Field = PairingModel::Field;

class PairingModelTest : public ::testing::Test {
  protected:
    testing::PairingHarness h;
    PairingModel& model = *h.model;
};

TEST_F(PairingModelTest, RefreshMirrorsTheStoreAndKeepsTheLastKnownBridgeUrl) {
    h.storePairing("K", "Desk");
    h.update([](auto& values) {
        values.relayRegion = "eu";
        values.relayOverride = "wss://mine.test";
        values.bridgeUrl = "https://bridge.test";
    });
    model.refresh();
    EXPECT_TRUE(model.paired());
    EXPECT_EQ(model.deviceName(), "Desk");
    EXPECT_EQ(model.relayRegion(), "eu");
    EXPECT_EQ(model.relayOverride(), "wss://mine.test");
    EXPECT_EQ(model.bridgeUrl(), "https://bridge.test");

    h.update([](auto& values) { values.bridgeUrl = ""; });
    model.refresh();
    EXPECT_EQ(model.bridgeUrl(), "https://bridge.test");
}

TEST_F(PairingModelTest, RefreshAnnouncesEveryAssignmentEvenWithoutChangeAndLeavesStatusAlone) {
    model.setStatus("kept");
    const auto seen = testing::recordAnnouncements(model);
    model.refresh();
    model.refresh();
    std::vector<Field> fields;
    for (const auto& announcement : *seen) {
        fields.push_back(announcement.field);
    }
    const std::vector<Field> once = {Field::paired, Field::deviceName, Field::relayRegion,
                                     Field::relayOverride, Field::wdaStatus};
    std::vector<Field> twice = once;
    twice.insert(twice.end(), once.begin(), once.end());
    EXPECT_EQ(fields, twice);
    EXPECT_EQ(model.status(), "kept");
}

TEST_F(PairingModelTest, UnpairClearsEverythingButTheBridgeUrlAndSaysSo) {
    h.storePairing("K", "Desk");
    h.update([](auto& values) {
        values.relayRegion = "eu";
        values.bridgeUrl = "https://bridge.test";
    });
    model.refresh();
    model.unpair();
    EXPECT_EQ(model.status(), "Unpaired");
    EXPECT_FALSE(model.paired());
    EXPECT_EQ(model.deviceName(), "");
    EXPECT_EQ(model.relayRegion(), "auto");
    EXPECT_EQ(model.bridgeUrl(), "https://bridge.test");
    EXPECT_EQ(model.wdaStatus(), "");
    EXPECT_EQ(h.config.load(), SharedConfig::Values{});
}

TEST_F(PairingModelTest, AScannedCodeFillsTheFieldAndPairsOrSaysItHadNoKey) {
    std::string field = "typed";
    model.applyScannedCode(field, "https://app.test/pair?mykey=abc");
    EXPECT_EQ(field, "typed");
    EXPECT_EQ(model.status(), "QR had no pair key.");
    EXPECT_FALSE(model.busy());
    EXPECT_TRUE(h.http.requests().empty());

    model.applyScannedCode(field, "https://app.test/pair?key=a%2Bb");
    EXPECT_EQ(field, "a+b");
    EXPECT_EQ(model.status(), "Pairing…");
    ASSERT_TRUE(h.queue.waitAndRun());
    const auto sent = h.http.requests("POST");
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(nlohmann::json::parse(*sent[0].body)["accessKey"], "a+b");
}

}  // namespace
}  // namespace velmorand
