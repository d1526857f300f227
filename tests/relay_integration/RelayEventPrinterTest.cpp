#include "RelayEventPrinter.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "ManualMainQueue.h"
#include "RecordingLog.h"
#include "velmorand/relay/RelayClient.h"

namespace velmorand::cli {
namespace {

using Json = nlohmann::ordered_json;

// The lines the command prints for frames fed straight into the client's dispatcher.
class RelayEventPrinterTest : public ::testing::Test {
  protected:
    RelayEventPrinterTest() {
        RelayEventPrinter::attach(*client_,
                                  [this](const std::string& line) { lines_.push_back(line); });
    }

    std::vector<std::string> linesFor(const std::string& frame) {
        lines_.clear();
        client_->handleText(frame);
        return lines_;
    }

    testing::ManualMainQueue queue_;
    testing::RecordingLog log_;
    // Never connected, so it never needs a session.
    std::shared_ptr<RelayClient> client_ = RelayClient::make(
        "ws://unused", "token",
        {queue_, log_, [](auto) { return std::unique_ptr<WebSocketSession>(); }, {}});
    std::vector<std::string> lines_;
};

struct Case {
    const char* frame;
    const char* line;
};

TEST_F(RelayEventPrinterTest, EveryCallbackPrintsOneLineWithEventFirstAndItsPayload) {
    const Case cases[] = {
        {R"({"type":"tap","x":1,"y":2})", R"({"event":"control","control":"tap","x":1.0,"y":2.0})"},
        {R"({"type":"double_tap","x":-1.5})",
         R"({"event":"control","control":"doubleTap","x":-1.5,"y":0.0})"},
        {R"({"type":"long_press","x":5,"y":6})",
         R"({"event":"control","control":"longPress","x":5.0,"y":6.0,"ms":500})"},
        {R"({"type":"swipe","from":{"x":1,"y":2},"to":{"x":3,"y":4},"ms":80})",
         R"({"event":"control","control":"swipe","from":{"x":1.0,"y":2.0},"to":{"x":3.0,"y":4.0},"ms":80})"},
        {R"({"type":"touch_down","x":1,"y":1})",
         R"({"event":"control","control":"touchDown","x":1.0,"y":1.0})"},
        {R"({"type":"touch_move","x":2,"y":2})",
         R"({"event":"control","control":"touchMove","x":2.0,"y":2.0})"},
        {R"({"type":"touch_up","x":3,"y":3})",
         R"({"event":"control","control":"touchUp","x":3.0,"y":3.0})"},
        {R"({"type":"text","value":"héllo \"you\""})",
         R"({"event":"control","control":"text","value":"héllo \"you\""})"},
        {R"({"type":"key","key":"home"})", R"({"event":"control","control":"key","value":"home"})"},
        {R"({"type":"button","name":"volumeUp"})",
         R"({"event":"control","control":"button","value":"volumeUp"})"},
        {R"({"type":"open_url","url":"https://example.com/a"})",
         R"({"event":"control","control":"openURL","value":"https://example.com/a"})"},
        {R"({"type":"launch_app","bundleID":" com.example.app\n"})",
         R"({"event":"control","control":"launchApp","value":"com.example.app"})"},
        {R"({"type":"kill_app"})", R"({"event":"control","control":"killApp","value":""})"},
        {R"({"type":"paste","value":"","text":"b"})",
         R"({"event":"control","control":"setClipboard","value":"b"})"},
        {R"({"type":"push_media"})",
         R"({"event":"control","control":"pushMedia","fileName":"file","mime":"application/octet-stream","dataB64":""})"},
        {R"({"type":"need_stream"})", R"({"event":"need_stream","prefer":null})"},
        {R"({"type":"need_stream","prefer":"webrtc"})",
         R"({"event":"need_stream","prefer":"webrtc"})"},
        {R"({"type":"encode_settings","fps":29.5,"quality":0.4})",
         R"({"event":"encode_settings","fps":30,"quality":0.4,"scale":null,"codec":null})"},
        {R"({"type":"encode_settings","fps":-2.5,"scale":1,"codec":"h264"})",
         R"({"event":"encode_settings","fps":-3,"quality":null,"scale":1.0,"codec":"h264"})"},
        {R"({"type":"stream_control"})", R"({"event":"stream_control","streaming":true})"},
        {R"({"type":"stream_control","streaming":false})",
         R"({"event":"stream_control","streaming":false})"},
        {R"({"type":"request_idr"})", R"({"event":"request_idr"})"},
        {R"({"type":"stream_quality"})", R"({"event":"stream_quality","tier":"auto"})"},
        {R"({"type":"stream_quality","tier":""})", R"({"event":"stream_quality","tier":""})"},
        {R"({"type":"qos","tier":""})",
         R"({"event":"qos","rttMs":0,"lossPct":0.0,"tier":null,"decodeQueue":0,"jitterMs":0})"},
        {R"({"type":"qos","rttMs":80,"lossPct":1.5,"tier":"high","decodeQueue":2,"jitterMs":9})",
         R"({"event":"qos","rttMs":80,"lossPct":1.5,"tier":"high","decodeQueue":2,"jitterMs":9})"},
        {R"({"type":"relay_qos","congestion":0.25})", R"({"event":"relay_qos","congestion":0.25})"},
        {R"({"type": "webrtc_offer","sdp":"v=0","nested":{"a":[1,null]}})",
         R"({"event":"webrtc_signal","message":{"nested":{"a":[1,null]},"sdp":"v=0","type":"webrtc_offer"}})"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(linesFor(c.frame), std::vector<std::string>{c.line}) << c.frame;
    }
}

TEST_F(RelayEventPrinterTest, ProbesStatusNoticesAndUndecodableFramesPrintNothing) {
    for (const char* frame :
         {R"({"type":"ping"})", R"({"type":"latency_ping","t":1})", R"({"type":"device_offline"})",
          R"({"type":"error","message":"x"})", R"({"type":"need_apps"})", R"({"type":"TAP"})",
          R"({"type":"tap","x":"1"})", "[1,2]", "not json"}) {
        EXPECT_TRUE(linesFor(frame).empty()) << frame;
    }
}

TEST_F(RelayEventPrinterTest, LinkEventsHaveNoPayload) {
    client_->onOpen();
    client_->onAuthRejected();
    EXPECT_EQ(lines_,
              (std::vector<std::string>{R"({"event":"open"})", R"({"event":"auth_rejected"})"}));
}

}  // namespace
}  // namespace velmorand::cli
