#include "velmorand/relay/RelayClient.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "FakeWebSocket.h"
#include "ManualMainQueue.h"
#include "RecordingLog.h"

namespace velmorand::testing {
namespace {

using Lines = std::vector<std::string>;
using namespace std::chrono_literals;

template <typename T>
std::string show(const std::optional<T>& value) {
    return value ? (std::ostringstream() << *value).str() : "-";
}

// A client on a manual main queue and fake sockets, every callback recorded as one line.
struct Harness {
    explicit Harness(std::string base = "wss://relay.example") {
        // Every jitter draw is 0.4: each delay is its base plus 0.2 s.
        client = RelayClient::make(std::move(base), "token-1",
                                   {queue, log, sockets.factory(), [] { return 0.4; }});
        client->setReconnectPolicy({1, 8, 0.5});
        auto& c = *client;
        c.onControl = [this](const Control& control) { add("control", control.name()); };
        c.onOpen = [this] { add("open"); };
        c.onNeedStream = [this](auto prefer) { add("needStream", show(prefer)); };
        c.onRequestIdr = [this] { add("requestIdr"); };
        c.onStreamQuality = [this](auto tier) { add("streamQuality", "'" + tier + "'"); };
        c.onQos = [this](auto rtt, auto loss, auto tier, auto decodeQueue, auto jitter) {
            add("qos", rtt, loss, show(tier), decodeQueue, jitter);
        };
        c.onRelayQos = [this](double congestion) { add("relayQos", congestion); };
        c.onAuthRejected = [this] { add("authRejected"); };
        c.onWebRtcSignal = [this](const nlohmann::json& message) { add("webrtc", message.dump()); };
        c.onEncodeSettings = [this](auto fps, auto quality, auto scale, auto codec) {
            add("encodeSettings", show(fps), show(quality), show(scale), show(codec));
        };
        c.onStreamControl = [this](bool on) { add("streamControl", on ? "on" : "off"); };
    }

    template <typename... Parts>
    void add(const Parts&... parts) {
        std::ostringstream out;
        ((out << parts << ' '), ...);
        events.push_back(out.str().substr(0, out.str().size() - 1));
    }
    FakeWebSocketTask& task() { return *sockets.tasks.back(); }
    void receive(std::string frame) {
        EXPECT_TRUE(task().deliverText(std::move(frame)));
        queue.runReady();
    }
    // Fails the current attempt, error then close, and checks that exactly one next attempt
    // comes, after `delay` seconds.
    void failAndReconnect(double delay) {
        const auto before = sockets.tasks.size();
        const auto failed = sockets.tasks.back();
        failed->fail("boom");
        sockets.close(failed, 1006);
        queue.advance(MainQueue::Duration(delay - 0.01));
        EXPECT_EQ(sockets.tasks.size(), before) << "reconnected before " << delay;
        queue.advance(0.02s);
        EXPECT_EQ(sockets.tasks.size(), before + 1) << "no reconnect after " << delay;
        EXPECT_TRUE(failed->cancelled);
    }
    Lines logged() const {
        auto lines = log.lines();
        for (auto& line : lines) {
            EXPECT_TRUE(line.starts_with("[relay-client] ")) << line;
            line.erase(0, 15);
        }
        return lines;
    }

    ManualMainQueue queue;
    RecordingLog log;
    FakeWebSockets sockets;
    std::shared_ptr<RelayClient> client;
    Lines events;
};

struct Row {
    std::string frame;
    Lines events;
    Lines sent = {};
};

TEST(Dispatch, RoutesEachFrameToItsReplyOrCallback) {
    const Row rows[] = {
        {R"({"type":"ping","t":5})", {}, {R"({"type":"pong"})"}},
        {R"({"type":"latency_ping"})", {}, {R"({"type":"latency_pong","t":0})"}},
        {R"({"type":"latency_ping","t":42,"viewerId":"viewer/a"})",
         {},
         {R"({"type":"latency_pong","t":42,"viewerId":"viewer\/a"})"}},
        {R"({"type":"need_stream"})", {"needStream -"}},
        {R"({"type":"need_stream","prefer":"webrtc"})", {"needStream webrtc"}},
        {R"({"type":"stream_control"})", {"streamControl on"}},
        {R"({"type":"stream_control","streaming":false})", {"streamControl off"}},
        // Frame rates round half away from zero.
        {R"({"type":"encode_settings","fps":29.5,"quality":0.4})", {"encodeSettings 30 0.4 - -"}},
        {R"({"type":"encode_settings","fps":-2.5,"scale":0.5,"codec":"h264"})",
         {"encodeSettings -3 - 0.5 h264"}},
        // A missing tier is "auto" for quality but absent for qos; an empty one differs too.
        {R"({"type":"stream_quality"})", {"streamQuality 'auto'"}},
        {R"({"type":"stream_quality","tier":""})", {"streamQuality ''"}},
        {R"({"type":"qos","tier":""})", {"qos 0 0 - 0 0"}},
        {R"({"type":"qos","rttMs":120,"lossPct":1.5,"tier":"low","decodeQueue":3,"jitterMs":7})",
         {"qos 120 1.5 low 3 7"}},
        {R"({"type":"relay_qos","congestion":0.75})", {"relayQos 0.75"}},
        {R"({"type":"request_idr","x":1})", {"requestIdr"}},
        {R"({"type":"tap","x":1,"y":2})", {"control tap"}},
        // Types match case and all; other frames, and what does not decode, are dropped silently.
        {R"({"type":"Ping"})", {}},
        {"garbage", {}},
        // Any frame holding the substring is signalling, once it parses as an object.
        {R"({"type": "webrtc_offer","sdp":"v=0"})",
         {R"(webrtc {"sdp":"v=0","type":"webrtc_offer"})"}},
        {R"({"type":"ping","inner":{"type":"webrtc_x"}})",
         {R"(webrtc {"inner":{"type":"webrtc_x"},"type":"ping"})"}},
        {R"({"type" : "webrtc_offer"})", {}},
        {R"([{"type":"webrtc_offer"}])", {}},
        // Signalling is small and shallow: the rest is not built into a tree, nor handed on.
        {R"({"type":"webrtc_offer","sdp":")" + std::string(256 * 1024, 'v') + R"("})", {}},
        {R"({"type":"webrtc_x","a":)" + std::string(32, '[') + std::string(32, ']') + "}", {}},
        {R"({"type":"webrtc_x","a":)" + std::string(31, '[') + std::string(31, ']') + "}",
         {R"(webrtc {"a":)" + std::string(31, '[') + std::string(31, ']') +
          R"(,"type":"webrtc_x"})"}},
        // The answer to a probe carries the viewer's id only as long as a relay's could be.
        {R"({"type":"latency_ping","t":1,"viewerId":")" + std::string(128, 'v') + R"("})",
         {},
         {R"({"type":"latency_pong","t":1,"viewerId":")" + std::string(128, 'v') + R"("})"}},
        {R"({"type":"latency_ping","t":1,"viewerId":")" + std::string(129, 'v') + R"("})", {}},
        {R"({"type":"latency_ping","t":1,"viewerId":")" + std::string(100, '/') + R"("})", {}},
    };
    Harness h;
    h.client->connect();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.frame);
        h.events.clear();
        h.task().sent.clear();
        h.client->handleText(row.frame);
        EXPECT_EQ(h.events, row.events);
        EXPECT_EQ(h.task().sent, row.sent);
    }
    EXPECT_EQ(h.log.lines(), Lines{});
}

TEST(Connection, BadUrlSchedulesAReconnect) {
    for (const char* base : {"relay.example", ""}) {
        Harness h(base);
        h.client->connect();
        EXPECT_TRUE(h.sockets.tasks.empty()) << base;
        EXPECT_EQ(h.logged(), (Lines{"bad relay url", "reconnecting in 1.2s"})) << base;
    }
}

TEST(Connection, EachFailureReconnectsOnceWithBackOffDoublingUpToTheCeiling) {
    Harness h;
    h.client->connect();
    h.client->connect();
    Lines expected;
    for (const char* delay : {"1.2", "2.2", "4.2", "8.2", "8.2"}) {
        h.failAndReconnect(std::stod(delay));
        expected.insert(expected.end(), {"recv error: boom — reconnecting",
                                         std::string("reconnecting in ") + delay + "s"});
    }
    EXPECT_EQ(h.logged(), expected);
    EXPECT_EQ(h.sockets.sessionsMade, 1);
}

TEST(Connection, OnlyTheServerProvesALinkAndResetsTheBackOff) {
    const std::pair<std::function<void(Harness&)>, double> cases[] = {
        {[](Harness& h) { h.receive(R"({"type":"device_online"})"); }, 1.2},
        {[](Harness& h) { (h.sockets.open(h.sockets.tasks.back()), h.queue.runReady()); }, 1.2},
        // The optimistic open, 0.35 s after connecting, proves nothing.
        {[](Harness& h) { h.queue.advance(0.35s); }, 4.2},
    };
    for (const auto& [prove, next] : cases) {
        Harness h;
        h.client->connect();
        h.failAndReconnect(1.2);
        h.failAndReconnect(2.2);
        prove(h);
        EXPECT_EQ(h.events, Lines{"open"});
        h.failAndReconnect(next);
    }
}

TEST(Connection, ConnectAbandonsOldTasksAndAPendingReconnect) {
    Harness h;
    h.client->connect();
    h.task().fail("boom");
    h.queue.runReady();
    for (int i = 0; i < 3; ++i) {
        h.client->connect();
    }
    auto stale = h.sockets.tasks[1];
    auto failing = h.sockets.tasks[2];
    EXPECT_FALSE(stale->cancelled || failing->cancelled);
    ASSERT_TRUE(stale->deliverText(R"({"type":"request_idr"})"));
    ASSERT_TRUE(failing->fail("late"));
    h.sockets.open(stale);
    h.sockets.close(stale, 1000, "bye");
    h.queue.advance(30s);
    EXPECT_EQ(h.logged(), (Lines{"recv error: boom — reconnecting", "reconnecting in 1.2s"}));
    EXPECT_EQ(h.events, Lines{"open"}) << "only the live attempt's timer";
    EXPECT_TRUE(stale->receives.empty()) << "a stale task's loop is not re-armed";
    EXPECT_EQ(h.sockets.tasks.size(), 4u);
}

TEST(Connection, CloseIsLoggedAndRejectedTokenStillReconnects) {
    const std::tuple<int, std::optional<std::string>, std::string, Lines> cases[] = {
        {4401, "token rejected", "closed code=4401 token rejected", {"authRejected"}},
        {1011, "\xff\xfe", "closed code=1011 ", {}},
    };
    for (const auto& [code, reason, line, events] : cases) {
        Harness h;
        h.client->connect();
        h.sockets.close(h.sockets.tasks.back(), code, reason);
        h.queue.advance(1.3s);
        EXPECT_EQ(h.events, events);
        EXPECT_EQ(h.logged(), (Lines{line, "reconnecting in 1.2s"}));
        EXPECT_EQ(h.sockets.tasks.size(), 2u);
    }
}

// Frames: header and payload in one binary message, numbered, their bytes held until the socket
// has written them.
TEST(Connection, FramesAreNumberedAndHeldAgainstTheBudgetUntilWritten) {
    Harness h;
    const std::vector<std::uint8_t> payload{0xFF, 0xD8, 0xFF, 0xD9};
    const auto sendFrame = [&](std::int64_t budget) {
        return h.client->sendFrame({.codec = FrameCodec::jpeg, .keyFrame = true}, payload, budget);
    };
    using Outcome = RelayClient::FrameOutcome;
    EXPECT_EQ(sendFrame(1000), Outcome::noSocket);
    h.client->connect();
    EXPECT_EQ(sendFrame(64), Outcome::sent);
    EXPECT_EQ(h.client->frameBytesInFlight(), 32);
    EXPECT_EQ(sendFrame(64), Outcome::sent);
    EXPECT_EQ(sendFrame(64), Outcome::overBudget);
    ASSERT_EQ(h.task().sent.size(), 2u);
    const auto& bytes = h.task().sent[1];
    const auto* data = reinterpret_cast<const std::uint8_t*>(bytes.data());
    const auto header = FrameHeader::read({data, bytes.size()});
    ASSERT_TRUE(header);
    EXPECT_EQ(header->sequence, 1u);
    EXPECT_EQ(std::vector<std::uint8_t>(data + FrameHeader::kSize, data + bytes.size()), payload);

    // Written, or failed: either way the bytes are free again; a failure is logged.
    h.task().sendCompletions[0](std::nullopt);
    h.task().sendCompletions[1](WebSocketError{"reset"});
    EXPECT_EQ(h.client->frameBytesInFlight(), 0);
    EXPECT_EQ(h.logged(), Lines{"send error: reset"});
}

}  // namespace
}  // namespace velmorand::testing
