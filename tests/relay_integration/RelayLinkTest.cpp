#include <gtest/gtest.h>

#include "RecordingLog.h"
#include "RelayTestSupport.h"
#include "velmorand/qt/QtMainQueue.h"
#include "velmorand/qt/QtWebSocketSession.h"
#include "velmorand/relay/RelayClient.h"

namespace velmorand {
namespace {

using testing::pumpUntil;
using namespace std::chrono_literals;

// A RelayClient on the real WebSocket stack against the sandbox relay, over ws and wss.
class RelayLinkTest : public ::testing::TestWithParam<bool> {
  protected:
    void connect(const std::string& token,
                 RelayClient::ReconnectPolicy policy = {0.05, 0.2, 0.01}) {
        client_ = RelayClient::make(bench_.pairing.relayWsUrl, token,
                                    {mainQueue_, log_, QtWebSocketSession::factory(), {}});
        client_->setReconnectPolicy(policy);
        client_->onOpen = [this] { ++opens_; };
        client_->onAuthRejected = [this] { ++authRejections_; };
        client_->onControl = [this](const Control& control) { controls_.push_back(control); };
        client_->onNeedStream = [this](auto prefer) { needStreams_.push_back(prefer); };
        client_->connect();
    }
    bool linked(std::size_t connections = 1) {
        return pumpUntil([&] {
            return bench_.sandbox->deviceConnections() == connections &&
                   bench_.sandbox->deviceConnected() && opens_ >= static_cast<int>(connections);
        });
    }
    std::vector<std::string> logged(const std::string& prefix) const {
        std::vector<std::string> found;
        for (const auto& line : log_.lines()) {
            if (line.starts_with("[relay-client] " + prefix)) {
                found.push_back(line.substr(15));
            }
        }
        return found;
    }

    testing::RelayBench bench_{GetParam(), 50ms};
    QtMainQueue mainQueue_;
    testing::RecordingLog log_;
    int opens_ = 0;
    int authRejections_ = 0;
    std::vector<Control> controls_;
    std::vector<std::optional<std::string>> needStreams_;
    // Last: its session thread ends before the rest goes.
    std::shared_ptr<RelayClient> client_;
};

TEST_P(RelayLinkTest, ConnectsWithTheTokenAnswersProbesAndDeliversViewerFrames) {
    connect(bench_.pairing.deviceToken);
    ASSERT_TRUE(linked());
    EXPECT_EQ(bench_.sandbox->lastDeviceToken(), bench_.pairing.deviceToken);
    ASSERT_TRUE(pumpUntil([&] { return bench_.sandbox->devicePongs() >= 2; }));

    testing::Viewer viewer(bench_.pairing.relayWsUrl);
    viewer.send(R"({"type":"latency_ping","t":42,"viewerId":"viewer-a"})");
    EXPECT_EQ(viewer.next(), R"({"type":"latency_pong","t":42,"viewerId":"viewer-a"})");
    viewer.send(R"({"type":"latency_ping","t":7})", true);
    EXPECT_EQ(viewer.next(), R"({"type":"latency_pong","t":7})");
    viewer.send(R"({"type":"tap","x":1,"y":2})");
    viewer.send(R"({"type":"need_stream","prefer":"h264"})", true);
    viewer.send("\xff\xfe{}", true);  // not UTF-8: dropped
    viewer.send(R"({"type":"key","key":"home"})", true);
    ASSERT_TRUE(pumpUntil([&] { return controls_.size() == 2; }));
    EXPECT_EQ(controls_, (std::vector{Control{Control::Tap{1, 2}}, Control{Control::Key{"home"}}}));
    EXPECT_EQ(needStreams_, (std::vector<std::optional<std::string>>{"h264"}));
    EXPECT_EQ(opens_, 1);
    EXPECT_EQ(authRejections_, 0);
}

TEST_P(RelayLinkTest, KeepsReconnectingWhileTheServerIsAwayAndOpensWhenItIsBack) {
    connect(bench_.pairing.deviceToken, {0.1, 0.4, 0.01});
    ASSERT_TRUE(linked());
    bench_.sandbox->suspend();
    ASSERT_TRUE(pumpUntil([&] { return logged("reconnecting in").size() >= 4; }));
    std::string error;
    ASSERT_TRUE(bench_.sandbox->resume(&error)) << error;
    ASSERT_TRUE(linked(2));
    EXPECT_FALSE(logged("recv error: ").empty());
    EXPECT_EQ(authRejections_, 0);
}

INSTANTIATE_TEST_SUITE_P(Transports, RelayLinkTest, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "wss" : "ws"; });

}  // namespace
}  // namespace velmorand
