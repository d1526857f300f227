// The relay client on the real Qt WebSocket stack against a scripted loopback relay: each fault
// must end in the exact log lines, one pending reconnect with the configured back-off, and a
// working link again once the relay is healthy.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "QtTestSupport.h"
#include "RecordingLog.h"
#include "ScopedEnv.h"
#include "ScriptedRelay.h"
#include "velmorand/qt/QtMainQueue.h"
#include "velmorand/qt/QtWebSocketSession.h"
#include "velmorand/relay/RelayClient.h"

namespace velmorand::testing {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAreArray;
using SocketThread = QtWebSocketSession::SocketThread;

// Delays draw from [base, base + 0.04), so each logs as its base: 0.1s, 0.2s, 0.4s, 0.4s.
const RelayClient::ReconnectPolicy kPolicy{0.1, 0.4, 0.04};
// Below the 0.35-second optimistic open, so an unanswered upgrade never reports the link up.
constexpr std::chrono::milliseconds kRequestTimeout{250};

std::string logged(const std::string& message) {
    return "[relay-client] " + message;
}

std::string recvError(const std::string& description) {
    return logged("recv error: " + description + " — reconnecting");
}

std::string reconnecting(const char* seconds) {
    return logged(std::string("reconnecting in ") + seconds + "s");
}

// What a relay that stops reading is given up for.
const std::string kStalled = "The peer has stopped reading what is sent to it";

// The Qt session, with a weak hold kept on every task it makes: which of them it let go.
struct TaskWatchingSession : WebSocketSession {
    TaskWatchingSession(std::unique_ptr<WebSocketSession> session,
                        std::vector<std::weak_ptr<WebSocketTask>>& tasks)
        : session(std::move(session)), tasks(tasks) {}
    std::shared_ptr<WebSocketTask> makeTask(const WebSocketRequest& request) override {
        auto task = session->makeTask(request);
        tasks.push_back(task);
        return task;
    }
    std::unique_ptr<WebSocketSession> session;
    std::vector<std::weak_ptr<WebSocketTask>>& tasks;
};

// One client on one scripted relay; every fixture below derives from it.
class Link {
  protected:
    explicit Link(SocketThread socketThread, std::optional<ScriptedServer::Tls> tls = std::nullopt)
        : socketThread_(socketThread), relay_(std::move(tls)) {}

    void start(std::chrono::milliseconds requestTimeout = kRequestTimeout) {
        auto watched = [this, factory = QtWebSocketSession::factory(socketThread_)](
                           std::shared_ptr<WebSocketSessionDelegate> delegate) {
            return std::make_unique<TaskWatchingSession>(factory(std::move(delegate)), tasks_);
        };
        client_ = RelayClient::make(relay_.base(), "device-token",
                                    {queue_, log_, std::move(watched), {}});
        client_->setReconnectPolicy(kPolicy);
        client_->setRequestTimeout(requestTimeout);
        client_->onOpen = [this] { ++opens_; };
        client_->onAuthRejected = [this] {
            ++authRejections_;
            controlsBeforeRejection_ = controls_;
        };
        client_->onControl = [this](const Control&) { ++controls_; };
        client_->connect();
    }

    // Up and proven by an answered probe; newLines() starts here.
    void startHealthy() {
        start();
        ASSERT_TRUE(pumpUntil([this] { return relay_.probesAnswered() == 1; }));
        ASSERT_EQ(opens_, 1);
        mark_ = log_.lines().size();
    }

    std::vector<std::string> newLines() const {
        const auto lines = log_.lines();
        return {lines.begin() + static_cast<std::ptrdiff_t>(std::min(mark_, lines.size())),
                lines.end()};
    }

    // Waits until `count` reconnects have been logged since the mark.
    bool waitForReconnects(int count) {
        return pumpUntil([&] {
            return std::ranges::count_if(newLines(), [](const auto& line) {
                       return line.starts_with(logged("reconnecting in "));
                   }) >= count;
        });
    }
    // Whether the link was given up for a stall since the mark.
    bool stalled() const { return std::ranges::count(newLines(), recvError(kStalled)) > 0; }

    // The relay turns healthy: the client must open again, answer its probe, and then stay put
    // (a second pending reconnect would show up as another connection).
    void expectRecovery() {
        const int opens = opens_;
        const int answered = relay_.probesAnswered();
        relay_.beHealthy();
        ASSERT_TRUE(pumpUntil([&] { return opens_ > opens && relay_.probesAnswered() > answered; }))
            << "no recovery";
        const int connections = relay_.connections();
        const auto lines = log_.lines().size();
        pumpFor(300ms);
        EXPECT_EQ(relay_.connections(), connections);
        EXPECT_EQ(log_.lines().size(), lines);
        EXPECT_EQ(opens_, opens + 1);
    }

    const SocketThread socketThread_;
    QtMainQueue queue_;
    RecordingLog log_;
    ScriptedRelay relay_;
    int opens_ = 0;
    int authRejections_ = 0;
    int controls_ = 0;
    int controlsBeforeRejection_ = -1;
    std::size_t mark_ = 0;
    std::vector<std::weak_ptr<WebSocketTask>> tasks_;
    // Last, so that it goes first: its session before the queue and the relay.
    std::shared_ptr<RelayClient> client_;
};

std::string threadName(SocketThread socketThread) {
    return socketThread == SocketThread::caller ? "CallerThread" : "OwnThread";
}

const auto kThreads = ::testing::Values(SocketThread::caller, SocketThread::own);

class RelayFaultsTest : public Link, public ::testing::TestWithParam<SocketThread> {
  protected:
    RelayFaultsTest() : Link(GetParam()) {}
};

TEST_P(RelayFaultsTest, UnansweredUpgradeTimesOutAndBacksOff) {
    // Well below the optimistic open, so that a loaded machine's late timer cannot reorder them.
    constexpr auto kShortTimeout = 100ms;
    relay_.answerUpgrades = false;
    start(kShortTimeout);
    ASSERT_TRUE(waitForReconnects(3));
    EXPECT_EQ(opens_, 0);
    client_->setRequestTimeout(kRequestTimeout);
    expectRecovery();

    const auto timedOut = recvError("The request timed out");
    EXPECT_THAT(log_.lines(),
                ElementsAreArray({timedOut, reconnecting("0.1"), timedOut, reconnecting("0.2"),
                                  timedOut, reconnecting("0.4")}));
    // Each attempt waited out the time-out, then at least the base delay.
    const auto& at = relay_.acceptedAt();
    ASSERT_EQ(at.size(), 4u);
    const std::chrono::milliseconds bases[] = {100ms, 200ms, 400ms};
    for (std::size_t i = 0; i < 3; ++i) {
        // The time-out starts a moment before the connection reaches the relay.
        EXPECT_GE(at[i + 1] - at[i], kShortTimeout + bases[i] - 20ms) << "attempt " << i + 1;
    }
    ASSERT_FALSE(relay_.upgradeRequests().empty());
    EXPECT_TRUE(relay_.upgradeRequests()[0].startsWith("GET /device HTTP/1.1\r\n"));
    EXPECT_TRUE(relay_.upgradeRequests()[0].toLower().contains("x-device-token: device-token"));
}

// A fault on a proven link: it must end the link with exactly these lines (so one reconnect, at
// the floor again), then the client must recover.
struct BrokenLink {
    const char* name;
    std::function<void(RelayPeer&)> fault;
    std::vector<std::string> lines;
    int authRejections = 0;
};

class RelayBrokenLinkTest : public Link,
                            public ::testing::TestWithParam<std::tuple<SocketThread, BrokenLink>> {
  protected:
    RelayBrokenLinkTest() : Link(std::get<0>(GetParam())) {}
};

TEST_P(RelayBrokenLinkTest, LogsOnceReconnectsOnceAndRecovers) {
    const BrokenLink& broken = std::get<1>(GetParam());
    startHealthy();
    broken.fault(*relay_.latest());
    ASSERT_TRUE(waitForReconnects(1));
    expectRecovery();
    EXPECT_THAT(newLines(), ElementsAreArray(broken.lines));
    EXPECT_EQ(authRejections_, broken.authRejections);
    // Only the link in use is still held: a relay that keeps breaking links costs no memory.
    ASSERT_EQ(tasks_.size(), 2u);
    EXPECT_TRUE(tasks_.front().expired());
}

QByteArray probeBytes(std::int64_t t) {
    return QByteArray::fromStdString(probeFrame(t));
}

const BrokenLink kBrokenLinks[] = {
    {"HangUpWithoutCloseFrame",
     [](RelayPeer& peer) { peer.hangUp(); },
     {recvError("The remote host closed the connection"), reconnecting("0.1")}},
    {"ResetMidFrame",
     [](RelayPeer& peer) {
         peer.sendRaw(frame(0x1, probeBytes(1)).left(20));
         pumpFor(100ms);
         peer.reset();
     },
     // Qt describes a reset as it does an orderly hang-up.
     {recvError("The remote host closed the connection"), reconnecting("0.1")}},
    {"InvalidUtf8Text",
     [](RelayPeer& peer) { peer.sendRaw(frame(0x1, "{\"type\":\"\xff\xfe\"}")); },
     {logged("closed code=1007 Invalid UTF-8 code encountered."), reconnecting("0.1")}},
    {"ReservedBits",
     [](RelayPeer& peer) { peer.sendRaw(frame(0x1, probeBytes(1), 0x40)); },
     {logged("closed code=1002 Rsv field is non-zero"), reconnecting("0.1")}},
    {"Close4401",
     [](RelayPeer& peer) { peer.sendClose(4401, "token rejected"); },
     {logged("closed code=4401 token rejected"), reconnecting("0.1")},
     1},
    // More messages at once than can wait to be handled.
    {"Flood",
     [](RelayPeer& peer) {
         QByteArray flood;
         for (std::size_t i = 0; i <= 5 * WebSocketLimits::kMaxWaitingMessages; ++i) {
             flood += frame(0x1, R"({"type":"device_online"})");
         }
         peer.sendRaw(flood);
     },
     {recvError("The peer sends faster than its messages can be handled"), reconnecting("0.1")}},
    // Refused by its header: nothing of its half gigabyte is read or kept.
    {"MessageOverTheLimit",
     [](RelayPeer& peer) {
         peer.sendRaw(frameHeader(0x1, 512ULL << 20) + QByteArray(64 * 1024, 'x'));
     },
     {logged("closed code=1009 Maximum framesize exceeded."), reconnecting("0.1")}},
};

INSTANTIATE_TEST_SUITE_P(, RelayBrokenLinkTest,
                         ::testing::Combine(kThreads, ::testing::ValuesIn(kBrokenLinks)),
                         [](const auto& info) {
                             return std::string(std::get<1>(info.param).name) +
                                    threadName(std::get<0>(info.param));
                         });

// A probe padded to 16 MiB in one frame: it must arrive whole to be answered.
QByteArray hugeProbe() {
    const std::size_t padding = 16 * 1024 * 1024 - probeFrame(16, "x").size() + 1;
    return frame(0x1, QByteArray::fromStdString(probeFrame(16, std::string(padding, 'x'))));
}

// Frames the client must shrug off on a proven link: no log line, no reconnect, and the next
// probe on the same link is answered, as is one the frame itself carries.
TEST_P(RelayFaultsTest, HarmlessFramesKeepTheLinkAndTheNextProbeIsAnswered) {
    startHealthy();
    RelayPeer& peer = *relay_.latest();
    const auto answered = [&peer](std::int64_t t) {
        return std::any_of(peer.received().begin(), peer.received().end(),
                           [t](const std::string& text) { return isProbeAnswer(text, t); });
    };
    const std::pair<QByteArray, std::int64_t> frames[] = {
        {frame(0x2, QByteArray("\x00\xff\xfe\x80garbage", 11)), 0},
        {frame(0x2, probeBytes(8)), 8},
        {hugeProbe(), 16},
    };
    std::int64_t next = 100;
    for (const auto& [bytes, carried] : frames) {
        peer.sendRaw(bytes);
        peer.sendText(probeFrame(++next));
        ASSERT_TRUE(pumpUntil([&] { return answered(next); })) << next;
        EXPECT_TRUE(carried == 0 || answered(carried)) << carried;
    }
    EXPECT_EQ(relay_.connections(), 1);
    EXPECT_THAT(newLines(), ::testing::IsEmpty());
    EXPECT_EQ(opens_, 1);
}

// The relay's last words, written together with its close: each is handed on before the close.
TEST_P(RelayFaultsTest, FramesWrittenWithTheCloseComeBeforeIt) {
    startHealthy();
    QByteArray lastWords;
    for (int i = 0; i < 5; ++i) {
        lastWords += frame(0x1, R"({"type":"tap","x":1,"y":2})");
    }
    lastWords += frame(0x1, R"({"type":"ping"})");
    lastWords += frame(0x8, QByteArray("\x11\x31", 2) + "rejected");
    relay_.latest()->sendRaw(lastWords);
    ASSERT_TRUE(waitForReconnects(1));
    EXPECT_EQ(controlsBeforeRejection_, 5);
    // The ping was handled too, though its answer may find the socket gone.
    auto lines = newLines();
    std::erase(lines, logged("send error: Socket is not connected"));
    EXPECT_THAT(lines,
                ElementsAreArray({logged("closed code=4401 rejected"), reconnecting("0.1")}));
}

// A relay that stops reading: what the device sends may pile up only so far, and a link that has
// written nothing for the longest stall is given up like a broken one.
TEST_P(RelayFaultsTest, ALinkThatStopsDrainingIsGivenUp) {
    startHealthy();
    relay_.latest()->stopReading();
    // Past the bound at once; slowly, through the stall (the extension's own choice of thread).
    const bool slowly = GetParam() == SocketThread::caller;
    const auto started = std::chrono::steady_clock::now();
    while (!stalled()) {
        ASSERT_LT(std::chrono::steady_clock::now() - started, 30s) << "never given up";
        client_->transmit(std::string(slowly ? 64 * 1024 : 1024 * 1024, 'x'), std::nullopt);
        pumpFor(slowly ? 50ms : 1ms);
    }
    ASSERT_TRUE(waitForReconnects(1));
    expectRecovery();
    // The sends the link took with it are one story, told once.
    EXPECT_THAT(newLines(), ElementsAreArray({logged("send error: " + kStalled),
                                              recvError(kStalled), reconnecting("0.1")}));
    EXPECT_EQ(std::chrono::steady_clock::now() - started >= WebSocketLimits::kLongestWriteStall,
              slowly);
}

INSTANTIATE_TEST_SUITE_P(, RelayFaultsTest, kThreads,
                         [](const auto& info) { return threadName(info.param); });

// The relay's link is TLS in use: what waits encrypted counts as much as what waits to be.
class TlsRelayFaultsTest : public Link, public ::testing::Test {
  protected:
    TlsRelayFaultsTest()
        : Link(SocketThread::own,
               ScriptedServer::Tls{testPki().serverCertificate, testPki().serverKey}) {}

    ScopedEnv trust_{"VELMORAND_CA_FILE", testPki().caCertificate.c_str()};
};

TEST_F(TlsRelayFaultsTest, ALinkThatStopsDrainingIsGivenUp) {
    startHealthy();
    relay_.latest()->stopReading();
    std::size_t sent = 0;
    while (!stalled()) {
        // Well past the bound, but not so far that a link never given up eats the machine.
        ASSERT_LT(sent, 4 * WebSocketLimits::kMaxUnwrittenBytes) << "never given up";
        client_->transmit(std::string(1024 * 1024, 'x'), std::nullopt);
        sent += 1024 * 1024;
        // Time for the socket's thread to take each piece, so that `sent` counts what the link
        // took rather than what still waits to reach it: a sanitizer build encrypts a mebibyte
        // in about 12 ms, and at a piece every 5 ms the count ran past twice the bound.
        pumpFor(50ms);
    }
    EXPECT_LT(sent, 2 * WebSocketLimits::kMaxUnwrittenBytes);
}

}  // namespace
}  // namespace velmorand::testing
