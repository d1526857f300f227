#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "PairingHarness.h"

namespace velmorand {
namespace {

using testing::PairingHarness;
using Field = PairingModel::Field;

class PairingModelTest : public ::testing::Test {
  protected:
    void persist(const std::function<void(SharedConfig::Values&)>& change) {
        auto values = h.config.load();
        change(values);
        h.config.persist(values);
    }

    PairingHarness h;
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
    persist([](auto& values) {
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

    persist([](auto& values) { values.bridgeUrl = ""; });
    model.refresh();
    EXPECT_EQ(model.bridgeUrl(), "https://bridge.test");
    h.config.clear();
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

struct RelayCase {
    const char* region;
    const char* typedOverride;
    const char* storedOverride;
};

class SaveRelay : public PairingModelTest, public ::testing::WithParamInterface<RelayCase> {};

TEST_P(SaveRelay, StoresTheRegionAsTypedAndTheOverrideTrimmedButUnchecked) {
    h.storePairing("K", "Desk");
    persist([](auto& values) {
        values.codec = "h264";
        values.fps = 30;
    });
    const auto before = h.config.load();
    model.setRelayRegion(GetParam().region);
    model.setRelayOverride(GetParam().typedOverride);
    model.saveRelay();

    auto expected = before;
    expected.relayRegion = GetParam().region;
    expected.relayOverride = GetParam().storedOverride;
    EXPECT_EQ(h.config.load(), expected);
    EXPECT_EQ(model.relayOverride(), GetParam().typedOverride);
    EXPECT_EQ(model.status(), "Relay preference saved — applies on next broadcast start.");
}

INSTANTIATE_TEST_SUITE_P(
    Overrides, SaveRelay,
    ::testing::Values(RelayCase{"eu", "  wss://relay.test/x \n", "wss://relay.test/x"},
                      RelayCase{"us", "http://other.test", "http://other.test"},
                      RelayCase{" mars ", "not a url", "not a url"}, RelayCase{"auto", "   ", ""},
                      RelayCase{"", "", ""}));

TEST_F(PairingModelTest, UnpairClearsEverythingButTheBridgeUrlAndSaysSo) {
    h.storePairing("K", "Desk");
    persist([](auto& values) {
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

struct CopyCase {
    const char* field;
    std::optional<std::string> storedKey;
    std::optional<std::string> copied;
};

class CopyPairURL : public PairingModelTest, public ::testing::WithParamInterface<CopyCase> {};

TEST_P(CopyPairURL, CopiesTheTypedElseStoredKeyUnencoded) {
    if (GetParam().storedKey) {
        persist([&](auto& values) { values.accessKey = GetParam().storedKey; });
    }
    model.copyPairURL(GetParam().field);
    if (GetParam().copied) {
        EXPECT_EQ(h.pasteboard.strings,
                  std::vector<std::string>{model.pairLinkPrefix() + *GetParam().copied});
        EXPECT_EQ(model.status(), "Copied pair URL.");
    } else {
        EXPECT_TRUE(h.pasteboard.strings.empty());
        EXPECT_EQ(model.status(), "Paste an access key first.");
    }
}

INSTANTIATE_TEST_SUITE_P(Keys, CopyPairURL,
                         ::testing::Values(CopyCase{"", "S", "S"}, CopyCase{" \n", " S2 ", "S2"},
                                           CopyCase{" A b ", "S", "A b"},
                                           CopyCase{"T", std::nullopt, "T"},
                                           CopyCase{"", std::nullopt, std::nullopt},
                                           CopyCase{"  ", "  ", std::nullopt}));

TEST_F(PairingModelTest, AScannedCodeWithoutKeyLeavesTheFieldAndSaysSo) {
    std::string field = "typed";
    model.applyScannedCode(field, "https://app.test/pair?mykey=abc");
    EXPECT_EQ(field, "typed");
    EXPECT_EQ(model.status(), "QR had no pair key.");
    EXPECT_FALSE(model.busy());
    EXPECT_TRUE(h.http.requests().empty());
}

TEST_F(PairingModelTest, AScannedCodeWithKeyFillsTheFieldAndPairs) {
    std::string field = "typed";
    model.applyScannedCode(field, "https://app.test/pair?key=a%2Bb");
    EXPECT_EQ(field, "a+b");
    EXPECT_EQ(model.status(), "Pairing…");
    ASSERT_TRUE(h.queue.waitAndRun());
    const auto sent = h.http.requestsTo(testing::kDefaultAppURL);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(nlohmann::json::parse(*sent[0].body)["accessKey"], "a+b");
}

}  // namespace
}  // namespace velmorand
