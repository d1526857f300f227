#include "velmorand/relay/RelayOutbound.h"

#include <limits>

#include <gtest/gtest.h>

namespace velmorand {
namespace {

using Outbound = RelayOutbound<std::string>;

struct Sent {
    std::string socket;
    std::optional<std::string> text;
    std::optional<Bytes> binary;
};

// Records each transmit and keeps its release for the test to call.
struct Recorder {
    std::vector<Sent> sent;
    std::vector<Outbound::Release> releases;

    auto transmit() {
        return [this](const std::string& socket, const std::optional<std::string>& text,
                      const std::optional<Bytes>& binary, Outbound::Release release) {
            sent.push_back({socket, text, binary});
            releases.push_back(std::move(release));
        };
    }
};

TEST(RelayOutbound, SendsOnlyWhileASocketIsSet) {
    auto outbound = Outbound::make();
    Recorder r;
    outbound->send("dropped", std::nullopt, r.transmit());
    outbound->replace("a");
    outbound->send("one", std::nullopt, r.transmit());
    outbound->send(std::nullopt, Bytes{1, 2}, r.transmit());
    outbound->replace(std::nullopt);
    outbound->send("dropped too", std::nullopt, r.transmit());

    ASSERT_EQ(r.sent.size(), 2u);
    EXPECT_EQ(r.sent[0].socket, "a");
    EXPECT_EQ(r.sent[0].text, "one");
    EXPECT_FALSE(r.sent[0].binary);
    EXPECT_EQ(r.sent[1].binary, (Bytes{1, 2}));
}

TEST(RelayOutbound, ReleaseFreesItsOwnReservationOnly) {
    auto outbound = Outbound::make();
    Recorder r;
    outbound->replace("a");
    outbound->send("x", std::nullopt, r.transmit(), 100);
    outbound->send("y", std::nullopt, r.transmit(), 20);
    EXPECT_EQ(outbound->bytes(), 120);
    r.releases[0]();
    r.releases[0]();
    EXPECT_EQ(outbound->bytes(), 20);
    EXPECT_EQ(outbound->reservationCount(), 1u);
}

TEST(RelayOutbound, LateReleaseAfterReplaceChangesNothing) {
    auto outbound = Outbound::make();
    Recorder r;
    outbound->replace("a");
    outbound->send("x", std::nullopt, r.transmit(), 100);
    outbound->replace("b");
    EXPECT_EQ(outbound->bytes(), 0);
    EXPECT_EQ(outbound->reservationCount(), 0u);

    outbound->send("y", std::nullopt, r.transmit(), 30);
    r.releases[0]();
    EXPECT_EQ(outbound->bytes(), 30);
    EXPECT_EQ(outbound->reservationCount(), 1u);
    r.releases[1]();
    EXPECT_EQ(outbound->bytes(), 0);
}

TEST(RelayOutbound, ReleaseDoesNotKeepTheOutboundAlive) {
    auto outbound = Outbound::make();
    Recorder r;
    outbound->replace("a");
    outbound->send("x", std::nullopt, r.transmit(), 10);
    std::weak_ptr<Outbound> weak = outbound;
    outbound.reset();
    EXPECT_TRUE(weak.expired());
    r.releases[0]();
}

TEST(RelayOutbound, TransmitMayReenterTheLock) {
    auto outbound = Outbound::make();
    outbound->replace("a");
    std::vector<std::string> order;
    outbound->send("outer", std::nullopt,
                   [&](const std::string& socket, const auto& text, const auto&, auto release) {
                       order.push_back(socket + ":" + *text);
                       release();
                       outbound->send("inner", std::nullopt,
                                      [&](const std::string& s, const auto& t, const auto&,
                                          auto innerRelease) {
                                          order.push_back(s + ":" + *t);
                                          innerRelease();
                                      });
                       outbound->replace("b");
                   });
    outbound->send("after", std::nullopt,
                   [&](const std::string& socket, const auto& text, const auto&, auto) {
                       order.push_back(socket + ":" + *text);
                   });
    EXPECT_EQ(order, (std::vector<std::string>{"a:outer", "a:inner", "b:after"}));
    EXPECT_EQ(outbound->bytes(), 0);
}

TEST(RelayOutboundDeath, ByteCountOverflowStopsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto outbound = Outbound::make();
    Recorder r;
    outbound->replace("a");
    outbound->send("x", std::nullopt, r.transmit(), std::numeric_limits<std::int64_t>::max());
    EXPECT_DEATH(outbound->send("y", std::nullopt, r.transmit(), 1), "");
}

}  // namespace
}  // namespace velmorand
