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

TEST_F(PairingModelTest, RefreshOfAFreshInstallReadsAsUnpaired) {
    model.refresh();
    EXPECT_FALSE(model.paired());
    EXPECT_EQ(model.deviceName(), "");
    EXPECT_EQ(model.relayRegion(), "auto");
    EXPECT_EQ(model.relayOverride(), "");
    EXPECT_EQ(model.bridgeUrl(), "");
    EXPECT_EQ(model.wdaStatus(), "");
    EXPECT_TRUE(h.http.requests().empty());
}

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

TEST_F(PairingModelTest, SaveRelayStoresTheRegionAsTypedAndTheOverrideTrimmedButUnchecked) {
    h.storePairing("K", "Desk");
    h.update([](auto& values) {
        values.codec = "h264";
        values.fps = 30;
    });
    const char* cases[][3] = {// region, typed override, stored override
                              {"eu", "  wss://relay.test/x \n", "wss://relay.test/x"},
                              {"us", "http://other.test", "http://other.test"},
                              {" mars ", "not a url", "not a url"},
                              {"auto", "   ", ""}};
    for (const auto& [region, typed, stored] : cases) {
        SCOPED_TRACE(typed);
        auto expected = h.config.load();
        expected.relayRegion = region;
        expected.relayOverride = stored;
        model.setRelayRegion(region);
        model.setRelayOverride(typed);
        model.saveRelay();
        EXPECT_EQ(h.config.load(), expected);
        EXPECT_EQ(model.relayOverride(), typed);
        EXPECT_EQ(model.status(), "Relay preference saved — applies on next broadcast start.");
    }
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

TEST_F(PairingModelTest, BroadcastExtensionIdPrefersTheFoundExtension) {
    h.extensionID = "found.upload";
    EXPECT_EQ(model.broadcastExtensionID(), "found.upload");
    h.extensionID.reset();
    h.bundle.identifier = "a.b.c";
    EXPECT_EQ(model.broadcastExtensionID(), "a.b.c.broadcast");
    h.bundle.identifier.reset();
    EXPECT_EQ(model.broadcastExtensionID(), "co.velmorand.connect.broadcast");
}

TEST_F(PairingModelTest, CopyPairUrlTakesTheTypedElseStoredKeyUnencoded) {
    const struct {
        const char* field;
        std::optional<std::string> storedKey;
        const char* copied;
    } cases[] = {{"", "S", "S"},           {" \n", " S2 ", "S2"},       {" A b ", "S", "A b"},
                 {"T", std::nullopt, "T"}, {"", std::nullopt, nullptr}, {"  ", "  ", nullptr}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.field);
        h.update([&](auto& values) { values.accessKey = c.storedKey; });
        h.pasteboard.strings.clear();
        model.copyPairURL(c.field);
        if (c.copied) {
            EXPECT_EQ(h.pasteboard.strings,
                      std::vector<std::string>{model.pairLinkPrefix() + c.copied});
            EXPECT_EQ(model.status(), "Copied pair URL.");
        } else {
            EXPECT_TRUE(h.pasteboard.strings.empty());
            EXPECT_EQ(model.status(), "Paste an access key first.");
        }
    }
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
