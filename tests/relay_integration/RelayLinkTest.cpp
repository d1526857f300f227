#include <gtest/gtest.h>

#include "RecordingLog.h"
#include "RelayTestSupport.h"
#include "velmorand/qt/QtMainQueue.h"
#include "velmorand/qt/QtWebSocketSession.h"
#include "velmorand/relay/RelayClient.h"

namespace velmorand {
namespace {

using testing::pumpUntil;

// The TLS path end to end: RelayClient on the real WebSocket stack reaches the sandbox relay
// over wss, trusting the test CA, and answers a viewer's probe across it.
TEST(RelayLinkTest, OverWssTheTokenArrivesAndAProbeIsAnswered) {
    testing::RelayBench bench(true);
    ASSERT_TRUE(bench.pairing.relayWsUrl.starts_with("wss://")) << bench.pairing.relayWsUrl;
    QtMainQueue mainQueue;
    testing::RecordingLog log;
    int opens = 0;
    const auto client = RelayClient::make(bench.pairing.relayWsUrl, bench.pairing.deviceToken,
                                          {mainQueue, log, QtWebSocketSession::factory(), {}});
    client->onOpen = [&opens] { ++opens; };
    client->connect();
    ASSERT_TRUE(pumpUntil([&] { return bench.sandbox->deviceConnected() && opens == 1; }))
        << ::testing::PrintToString(log.lines());
    EXPECT_EQ(bench.sandbox->lastDeviceToken(), bench.pairing.deviceToken);

    testing::Viewer viewer(bench.pairing.relayWsUrl);
    viewer.send(R"({"type":"latency_ping","t":42,"viewerId":"viewer-a"})");
    EXPECT_EQ(viewer.next(), R"({"type":"latency_pong","t":42,"viewerId":"viewer-a"})");
    EXPECT_TRUE(log.lines().empty()) << ::testing::PrintToString(log.lines());
}

}  // namespace
}  // namespace velmorand
