#include "velmorand/peer/PeerSessions.h"

#include <gtest/gtest.h>

#include <algorithm>

#include <nlohmann/json.hpp>

#include "../stream/StreamFakes.h"
#include "ManualMainQueue.h"
#include "RecordingLog.h"

namespace velmorand {
namespace {

using Json = nlohmann::json;
using Lines = std::vector<std::string>;

const std::string kOffer =
    "v=0\r\nm=video 9 UDP/TLS/RTP/SAVPF 106\r\na=mid:0\r\na=recvonly\r\n"
    "a=rtpmap:106 H264/90000\r\na=fmtp:106 packetization-mode=1;profile-level-id=42e01f\r\n";

// A connection the test drives: what the device handed it, and its events to raise.
struct FakePeer : PeerConnection {
    struct Record {
        Setup setup;
        Events events;
        std::vector<IceCandidate> candidates;
        std::vector<std::size_t> sent;
        bool acceptsUnits = true;
        bool destroyed = false;
    };
    explicit FakePeer(std::shared_ptr<Record> record) : record(std::move(record)) {}
    ~FakePeer() override { record->destroyed = true; }
    void addCandidate(const IceCandidate& candidate) override {
        record->candidates.push_back(candidate);
    }
    bool send(std::span<const std::uint8_t> unit) override {
        record->sent.push_back(unit.size());
        return record->acceptsUnits;
    }
    std::shared_ptr<Record> record;
};

class PeerSessionsTest : public ::testing::Test {
  protected:
    // Hands a message from the relay over and runs what it posts.
    void relay(const Json& message) {
        sessions_.handle(message);
        queue_.runReady();
    }
    void offer(const std::string& viewer, const std::string& sdp = kOffer) {
        relay({{"type", "webrtc_offer"}, {"viewerId", viewer}, {"sdp", sdp}});
    }
    void candidate(const std::string& viewer, const std::string& line) {
        relay({{"type", "webrtc_ice"},
               {"viewerId", viewer},
               {"candidate", line},
               {"sdpMid", "0"},
               {"sdpMLineIndex", 0}});
    }
    // Raises one of the newest connection's events, as its own thread would.
    template <typename Raise>
    void raise(std::size_t peer, Raise&& event) {
        event(peers_.at(peer)->events);
        queue_.runReady();
    }
    // The types of the messages sent since the last call, with their viewers and reasons.
    Lines sent() {
        Lines out;
        for (const auto& text : std::exchange(signals_, {})) {
            const auto message = Json::parse(text);
            std::string line =
                message["type"].get<std::string>() + " " + message["viewerId"].get<std::string>();
            if (message.contains("reason")) {
                line += ": " + message["reason"].get<std::string>();
            }
            out.push_back(line);
        }
        return out;
    }
    void sendFrame(bool keyFrame, FrameCodec codec = FrameCodec::h264) {
        const std::vector<std::uint8_t> unit(keyFrame ? 9 : 3, 0);
        fanOut_.send({.codec = codec, .keyFrame = keyFrame}, unit, 1'000'000);
        queue_.runReady();
    }
    // Frames that went on to the relay.
    std::size_t relayed() { return relay_.await(0).size(); }

    testing::ManualMainQueue queue_;
    testing::RecordingLog log_;
    testing::FakeSink relay_;
    PeerFanOut fanOut_{relay_};
    std::vector<std::shared_ptr<FakePeer::Record>> peers_;
    Lines signals_;
    int keyFrames_ = 0;
    bool h264_ = true;
    std::optional<std::string> startFails_;
    PeerSessions sessions_{{
        .mainQueue = queue_,
        .log = log_,
        .makePeer = [this](PeerConnection::Setup setup, PeerConnection::Events events)
            -> std::variant<std::unique_ptr<PeerConnection>, std::string> {
            if (startFails_) {
                return *startFails_;
            }
            auto record = std::make_shared<FakePeer::Record>();
            record->setup = std::move(setup);
            record->events = std::move(events);
            peers_.push_back(record);
            return std::make_unique<FakePeer>(record);
        },
        .signal = [this](const std::string& message) { signals_.push_back(message); },
        .requestKeyFrame = [this] { ++keyFrames_; },
        .streamIsH264 = [this] { return h264_; },
        .fanOut = fanOut_,
    }};
};

TEST_F(PeerSessionsTest, AnswersTricklesAndConnectsOneViewer) {
    offer("v1");
    ASSERT_EQ(peers_.size(), 1u);
    EXPECT_EQ(peers_[0]->setup.payloadType, 106);
    // Candidates that come before the answer wait for it, in order.
    candidate("v1", "candidate:1 1 udp 1 127.0.0.1 5000 typ host");
    candidate("v1", "");
    EXPECT_TRUE(peers_[0]->candidates.empty());
    raise(0, [](auto& events) { events.onAnswer("v=0 answer"); });
    EXPECT_EQ(sent(), Lines{"webrtc_answer v1"});
    ASSERT_EQ(peers_[0]->candidates.size(), 2u);
    EXPECT_EQ(peers_[0]->candidates[1].candidate, "");
    candidate("v1", "candidate:2 1 udp 1 127.0.0.1 5001 typ host");
    EXPECT_EQ(peers_[0]->candidates.size(), 3u);
    // The device's candidates name the offer's video section.
    raise(0, [](auto& events) {
        events.onCandidate({"candidate:9 1 udp 1 127.0.0.1 9 typ host", "", 0});
    });
    const auto candidateSent = Json::parse(signals_.at(0));
    EXPECT_EQ(candidateSent["sdpMid"], "0");
    EXPECT_EQ(sent(), Lines{"webrtc_ice v1"});

    // Until it is connected, the peer gets nothing; then nothing before a key frame.
    sendFrame(true);
    EXPECT_TRUE(peers_[0]->sent.empty());
    raise(0, [](auto& events) { events.onConnected(); });
    EXPECT_EQ(sent(), Lines{"webrtc_connected v1"});
    EXPECT_EQ(keyFrames_, 1);
    sendFrame(false);
    sendFrame(true);
    sendFrame(false);
    EXPECT_EQ(peers_[0]->sent, (std::vector<std::size_t>{9, 3}));
    EXPECT_EQ(relayed(), 4u);
}

TEST_F(PeerSessionsTest, OffersItCannotAnswerAreRefusedWithTheReason) {
    const auto refused = [](const std::string& reason) {
        return Lines{"webrtc_error v1: " + reason};
    };
    offer("v1", "garbage");
    EXPECT_EQ(sent(), refused("the offer is not a session description"));
    relay({{"type", "webrtc_offer"}, {"viewerId", "v1"}, {"sdp", std::string(70'000, 'v')}});
    EXPECT_EQ(sent(), refused("the offer is larger than 64 KiB"));
    relay({{"type", "webrtc_offer"}, {"viewerId", "v1"}});
    EXPECT_EQ(sent(), refused("the offer has no session description"));
    relay({{"type", "webrtc_offer"}, {"viewerId", "v1"}, {"sdp", kOffer}, {"iceServers", "stun"}});
    EXPECT_EQ(sent(), refused("the offer's iceServers are not a list of up to 8"));
    startFails_ = "no webrtcbin";
    offer("v1");
    EXPECT_EQ(sent(), refused("the device could not start a peer connection: no webrtcbin"));
    startFails_.reset();
    h264_ = false;
    offer("v1");
    EXPECT_EQ(sent(),
              refused("peer-to-peer needs the H.264 stream, and this broadcast streams JPEG"));
    // Without a usable viewer id there is nobody to tell.
    relay({{"type", "webrtc_offer"}, {"viewerId", std::string(65, 'v')}, {"sdp", kOffer}});
    relay({{"type", "webrtc_offer"}, {"viewerId", "tab\there"}, {"sdp", kOffer}});
    relay({{"type", "webrtc_offer"}, {"sdp", kOffer}});
    EXPECT_EQ(sent(), Lines{});
    EXPECT_TRUE(peers_.empty());
    // No log line carries an offer.
    for (const auto& line : log_.lines()) {
        EXPECT_EQ(line.find("rtpmap"), std::string::npos) << line;
    }
}

TEST_F(PeerSessionsTest, AFifthViewerAndAFloodOfOffersStayOnRelayFrames) {
    for (const char* viewer : {"v1", "v2", "v3", "v4", "v5"}) {
        offer(viewer);
    }
    EXPECT_EQ(peers_.size(), 4u);
    EXPECT_EQ(sent(),
              Lines{"webrtc_error v5: the device already streams peer-to-peer to 4 viewers"});
    // A viewer that offers again replaces its own session, within the cap.
    offer("v4");
    EXPECT_EQ(peers_.size(), 5u);
    EXPECT_TRUE(peers_[3]->destroyed);
    EXPECT_EQ(sessions_.sessionCount(), 4u);
    // Offers beyond the window's count (the refused fifth counts too) are refused until it ends.
    for (std::size_t count = 6; count < PeerSessions::kMaxOffersPerWindow; ++count) {
        offer("v4");
    }
    EXPECT_EQ(sent(), Lines{});
    // Each is told; the log hears of the flood once. Invalid offers count as well.
    offer("v4");
    relay({{"type", "webrtc_offer"}, {"viewerId", "v6"}});
    const std::string tooMany = "too many offers at once; try again in a few seconds";
    EXPECT_EQ(sent(), (Lines{"webrtc_error v4: " + tooMany, "webrtc_error v6: " + tooMany}));
    EXPECT_EQ(std::ranges::count_if(
                  log_.lines(), [&](const auto& line) { return line.find(tooMany) != line.npos; }),
              1);
    queue_.advance(PeerSessions::kOfferWindow);
    offer("v4");
    EXPECT_EQ(sent(), Lines{});
}

TEST_F(PeerSessionsTest, ASessionEndsWhenClosedFailedOrNeverConnected) {
    offer("v1");
    offer("v2");
    offer("v3");
    raise(0, [](auto& events) { events.onConnected(); });
    raise(1, [](auto& events) { events.onConnected(); });
    sent();
    relay({{"type", "webrtc_close"}, {"viewerId", "v1"}});
    EXPECT_TRUE(peers_[0]->destroyed);
    EXPECT_EQ(sent(), Lines{});
    raise(1, [](auto& events) { events.onFailed("ICE failed"); });
    EXPECT_TRUE(peers_[1]->destroyed);
    EXPECT_EQ(sent(), Lines{"webrtc_error v2: ICE failed"});
    queue_.advance(PeerSessions::kConnectTimeout);
    EXPECT_TRUE(peers_[2]->destroyed);
    EXPECT_EQ(sent(), Lines{"webrtc_error v3: no peer-to-peer connection within 15 s"});
    // Events of a session that is over change nothing.
    raise(1, [](auto& events) { events.onConnected(); });
    raise(0, [](auto& events) { events.onAnswer("late"); });
    EXPECT_EQ(sent(), Lines{});
    EXPECT_EQ(sessions_.sessionCount(), 0u);
    // A stream that leaves H.264 ends them all, and says so.
    offer("v4");
    sessions_.closeAll("the stream switched to JPEG");
    EXPECT_EQ(sent(), Lines{"webrtc_error v4: the stream switched to JPEG"});
    // A connected viewer that keeps reporting stays however long; one that falls silent goes.
    offer("v5");
    const auto last = peers_.size() - 1;
    raise(last, [](auto& events) { events.onConnected(); });
    for (int report = 0; report < 4; ++report) {
        queue_.advance(PeerSessions::kSilenceLimit * 0.75);
        raise(last, [](auto& events) { events.onHeard(); });
    }
    EXPECT_EQ(sessions_.sessionCount(), 1u);
    queue_.advance(PeerSessions::kSilenceLimit);
    EXPECT_EQ(sent(), (Lines{"webrtc_connected v5",
                             "webrtc_error v5: the viewer stopped answering for 20 s"}));
}

TEST_F(PeerSessionsTest, KeyFrameRequestsReachTheEncoderAtMostOncePerInterval) {
    offer("v1");
    raise(0, [](auto& events) { events.onConnected(); });
    EXPECT_EQ(keyFrames_, 1);
    // Requests within the interval are held, and answered together when it ends.
    raise(0, [](auto& events) { events.onKeyFrameWanted(); });
    raise(0, [](auto& events) { events.onKeyFrameWanted(); });
    EXPECT_EQ(keyFrames_, 1);
    queue_.advance(PeerSessions::kKeyFrameInterval);
    EXPECT_EQ(keyFrames_, 2);
    queue_.advance(PeerSessions::kKeyFrameInterval * 3);
    EXPECT_EQ(keyFrames_, 2);
    // A unit the peer had no room for leaves it waiting for a key frame, which it asks for.
    sendFrame(true);
    peers_[0]->acceptsUnits = false;
    sendFrame(false);
    peers_[0]->acceptsUnits = true;
    EXPECT_EQ(keyFrames_, 3);
    sendFrame(false);
    sendFrame(true);
    EXPECT_EQ(peers_[0]->sent, (std::vector<std::size_t>{9, 3, 9}));
    // JPEG frames never reach a peer.
    sendFrame(true, FrameCodec::jpeg);
    EXPECT_EQ(peers_[0]->sent.size(), 3u);
}

TEST_F(PeerSessionsTest, TheRelayGetsFramesOnlyWhileAViewerTakesThem) {
    const std::pair<Json, bool> cases[] = {
        {{{"type", "webrtc_relay_viewers"}, {"count", 0}}, false},
        {{{"type", "webrtc_relay_viewers"}, {"count", -1}}, false},
        {{{"type", "webrtc_relay_viewers"}, {"count", 2}}, true},
        // A viewer's word on the relay's viewers is no word at all.
        {{{"type", "webrtc_relay_viewers"}, {"count", 0}, {"viewerId", "v1"}}, true},
        {{{"type", "webrtc_relay_viewers"}, {"count", 0}}, false},
    };
    for (const auto& [message, taken] : cases) {
        relay(message);
        const auto before = relayed();
        sendFrame(true);
        EXPECT_EQ(relayed() - before, taken ? 1u : 0u) << message.dump();
    }
    // Only the way back to the relay asks for a key frame.
    EXPECT_EQ(keyFrames_, 1);
    // A lost link forgets what the relay said.
    sessions_.relayLost();
    sendFrame(true);
    EXPECT_EQ(relayed(), 3u);
}

}  // namespace
}  // namespace velmorand
