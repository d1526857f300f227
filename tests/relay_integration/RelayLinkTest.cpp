#include <gtest/gtest.h>

#include <algorithm>

#include "RecordingLog.h"
#include "RelayTestSupport.h"
#include "velmorand/qt/QtMainQueue.h"
#include "velmorand/qt/QtWebSocketSession.h"
#include "velmorand/relay/RelayClient.h"

namespace velmorand {
namespace {

using testing::pumpUntil;
using testing::RelayBench;
using testing::Viewer;
using namespace std::chrono_literals;

// A RelayClient on the real WebSocket stack against the sandbox relay, over ws and wss.
class RelayLinkTest : public ::testing::TestWithParam<bool> {
  protected:
    std::shared_ptr<RelayClient> connect(const std::string& token,
                                         RelayClient::ReconnectPolicy policy = {0.05, 0.2, 0.01}) {
        client_ = RelayClient::make(bench_.pairing().relayWsUrl, token,
                                    {mainQueue_, log_, QtWebSocketSession::factory(), {}});
        client_->setReconnectPolicy(policy);
        client_->onOpen = [this] { ++opens_; };
        client_->onAuthRejected = [this] { ++authRejections_; };
        client_->onControl = [this](const Control& control) { controls_.push_back(control); };
        client_->onNeedStream = [this](std::optional<std::string> prefer) {
            needStreams_.push_back(prefer);
        };
        client_->connect();
        return client_;
    }

    bool linked(std::size_t connections = 1) {
        return pumpUntil([&] {
            return bench_.sandbox().deviceConnected() &&
                   bench_.sandbox().deviceConnections() == connections &&
                   opens_ >= static_cast<int>(connections);
        });
    }

    std::vector<std::string> logLinesStartingWith(const std::string& prefix) const {
        std::vector<std::string> found;
        for (const auto& line : log_.lines()) {
            if (line.rfind(prefix, 0) == 0) {
                found.push_back(line);
            }
        }
        return found;
    }

    RelayBench bench_{GetParam(), 50ms};
    QtMainQueue mainQueue_;
    testing::RecordingLog log_;
    int opens_ = 0;
    int authRejections_ = 0;
    std::vector<Control> controls_;
    std::vector<std::optional<std::string>> needStreams_;
    // Last: its session thread ends before the rest goes.
    std::shared_ptr<RelayClient> client_;
};

TEST_P(RelayLinkTest, ConnectsWithTheIssuedTokenInItsHeaderAndAnswersPings) {
    connect(bench_.pairing().deviceToken);
    ASSERT_TRUE(linked());
    EXPECT_EQ(bench_.sandbox().lastDeviceToken(), bench_.pairing().deviceToken);
    ASSERT_TRUE(pumpUntil([&] { return bench_.sandbox().devicePongs() >= 2; }));
    EXPECT_EQ(opens_, 1);
    EXPECT_EQ(authRejections_, 0);
}

TEST_P(RelayLinkTest, ViewerFramesReachTheCallbacksAndProbesAreAnsweredTextOrBinary) {
    connect(bench_.pairing().deviceToken);
    ASSERT_TRUE(linked());
    Viewer viewer(bench_.pairing().relayWsUrl);

    viewer.sendText(R"({"type":"latency_ping","t":42,"viewerId":"viewer-a"})");
    EXPECT_EQ(viewer.next(), R"({"type":"latency_pong","t":42,"viewerId":"viewer-a"})");
    viewer.sendBinary(R"({"type":"latency_ping","t":7})");
    EXPECT_EQ(viewer.next(), R"({"type":"latency_pong","t":7})");

    viewer.sendText(R"({"type":"tap","x":1,"y":2})");
    viewer.sendBinary(R"({"type":"need_stream","prefer":"h264"})");
    viewer.sendBinary("\xff\xfe{}");  // not UTF-8: dropped
    viewer.sendBinary(R"({"type":"key","key":"home"})");
    ASSERT_TRUE(pumpUntil([&] { return controls_.size() == 2; }));
    EXPECT_EQ(controls_[0], (Control{Control::Tap{1, 2}}));
    EXPECT_EQ(controls_[1], Control{Control::Key{"home"}});
    EXPECT_EQ(needStreams_, (std::vector<std::optional<std::string>>{"h264"}));
}

TEST_P(RelayLinkTest, CloseWith4401IsReportedOnceAndTheClientReconnects) {
    if (GetParam()) {
        // Qt's TLS socket sometimes reports the server's hang-up before the close frame that
        // preceded it has been read, and the frame is lost; about one run in ten.
        GTEST_SKIP() << "known fault: Qt's TLS socket may drop the close frame at hang-up";
    }
    connect(bench_.pairing().deviceToken);
    ASSERT_TRUE(linked());

    ASSERT_TRUE(bench_.sandbox().closeDevice(4401, "revoked"));
    ASSERT_TRUE(linked(2));
    EXPECT_EQ(authRejections_, 1) << ::testing::PrintToString(log_.lines());
    EXPECT_EQ(logLinesStartingWith("[relay-client] closed code=4401"),
              std::vector<std::string>{"[relay-client] closed code=4401 revoked"});
}

TEST_P(RelayLinkTest, AnUnknownTokenIsRejectedOnEveryAttempt) {
    connect("not-a-token");
    ASSERT_TRUE(pumpUntil([&] { return authRejections_ >= 2; }));
    EXPECT_EQ(bench_.sandbox().lastDeviceToken(), "not-a-token");
    EXPECT_EQ(bench_.sandbox().deviceConnections(), 0u);
    EXPECT_FALSE(logLinesStartingWith("[relay-client] closed code=4401 unauthorized").empty());
}

TEST_P(RelayLinkTest, ReconnectsWithGrowingBackOffWhileTheServerIsAwayAndOpensWhenItIsBack) {
    connect(bench_.pairing().deviceToken, {0.1, 0.4, 0.01});
    ASSERT_TRUE(linked());

    bench_.sandbox().suspend();
    ASSERT_TRUE(pumpUntil(
        [&] { return logLinesStartingWith("[relay-client] reconnecting in").size() >= 4; }));
    std::string error;
    ASSERT_TRUE(bench_.sandbox().resume(&error)) << error;
    ASSERT_TRUE(linked(2));

    // The proven link reset the base: the floor first, doubling up to the ceiling.
    const auto waits = logLinesStartingWith("[relay-client] reconnecting in");
    ASSERT_GE(waits.size(), 4u);
    EXPECT_EQ(std::vector<std::string>(waits.begin(), waits.begin() + 4),
              (std::vector<std::string>{
                  "[relay-client] reconnecting in 0.1s", "[relay-client] reconnecting in 0.2s",
                  "[relay-client] reconnecting in 0.4s", "[relay-client] reconnecting in 0.4s"}));
    EXPECT_FALSE(logLinesStartingWith("[relay-client] recv error: ").empty());
    EXPECT_EQ(authRejections_, 0);
}

INSTANTIATE_TEST_SUITE_P(Transports, RelayLinkTest, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "wss" : "ws"; });

}  // namespace
}  // namespace velmorand
