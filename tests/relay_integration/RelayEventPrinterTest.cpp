#include "RelayEventPrinter.h"

#include <gtest/gtest.h>

#include "ManualMainQueue.h"
#include "RecordingLog.h"
#include "velmorand/relay/RelayClient.h"

namespace velmorand::cli {
namespace {

// The lines the command prints for frames fed straight into a client's dispatcher; the client
// is never connected, so it never needs a session.
struct RelayEventPrinterTest : ::testing::Test {
    RelayEventPrinterTest() {
        RelayEventPrinter::attach(*client,
                                  [this](const std::string& line) { lines.push_back(line); });
    }
    std::vector<std::string> linesFor(const std::string& frame) {
        lines.clear();
        client->handleText(frame);
        return lines;
    }

    testing::ManualMainQueue queue;
    testing::RecordingLog log;
    std::shared_ptr<RelayClient> client =
        RelayClient::make("ws://unused", "token", {queue, log, [](auto) { return nullptr; }, {}});
    std::vector<std::string> lines;
};

TEST_F(RelayEventPrinterTest, EveryCallbackPrintsOneLineWithEventFirstAndItsPayload) {
    const std::pair<const char*, std::string> cases[] = {
        {R"({"type":"tap","x":1,"y":2})", R"("control":"tap","x":1.0,"y":2.0)"},
        {R"({"type":"double_tap","x":-1.5})", R"("control":"doubleTap","x":-1.5,"y":0.0)"},
        {R"({"type":"long_press","x":5,"y":6})",
         R"("control":"longPress","x":5.0,"y":6.0,"ms":500)"},
        {R"({"type":"swipe","from":{"x":1,"y":2},"to":{"x":3,"y":4},"ms":80})",
         R"("control":"swipe","from":{"x":1.0,"y":2.0},"to":{"x":3.0,"y":4.0},"ms":80)"},
        {R"({"type":"touch_down","x":1,"y":1})", R"("control":"touchDown","x":1.0,"y":1.0)"},
        {R"({"type":"touch_move","x":2,"y":2})", R"("control":"touchMove","x":2.0,"y":2.0)"},
        {R"({"type":"touch_up","x":3,"y":3})", R"("control":"touchUp","x":3.0,"y":3.0)"},
        {R"({"type":"text","value":"héllo \"you\""})",
         R"("control":"text","value":"héllo \"you\"")"},
        {R"({"type":"key","key":"home"})", R"("control":"key","value":"home")"},
        {R"({"type":"button","name":"volumeUp"})", R"("control":"button","value":"volumeUp")"},
        {R"({"type":"open_url","url":"https://a.example/"})",
         R"("control":"openURL","value":"https://a.example/")"},
        {R"({"type":"launch_app","bundleID":"com.a"})", R"("control":"launchApp","value":"com.a")"},
        {R"({"type":"kill_app","bundleId":"com.b"})", R"("control":"killApp","value":"com.b")"},
        {R"({"type":"paste","text":"b"})", R"("control":"setClipboard","value":"b")"},
        {R"({"type":"push_media"})",
         R"("control":"pushMedia","fileName":"file","mime":"application/octet-stream","dataB64":"")"},
        {R"({"type":"need_stream"})", R"("event":"need_stream","prefer":null)"},
        {R"({"type":"encode_settings","fps":-2.5,"scale":1,"codec":"h264"})",
         R"("event":"encode_settings","fps":-3,"quality":null,"scale":1.0,"codec":"h264")"},
        {R"({"type":"stream_control","streaming":false})",
         R"("event":"stream_control","streaming":false)"},
        {R"({"type":"request_idr"})", R"("event":"request_idr")"},
        {R"({"type":"stream_quality","tier":""})", R"("event":"stream_quality","tier":"")"},
        {R"({"type":"qos","rttMs":80,"lossPct":1.5,"tier":"high","decodeQueue":2,"jitterMs":9})",
         R"("event":"qos","rttMs":80,"lossPct":1.5,"tier":"high","decodeQueue":2,"jitterMs":9)"},
        {R"({"type":"relay_qos","congestion":0.25})", R"("event":"relay_qos","congestion":0.25)"},
        {R"({"type": "webrtc_offer","sdp":"v=0","nested":{"a":[1,null]}})",
         R"("event":"webrtc_signal","message":{"nested":{"a":[1,null]},"sdp":"v=0","type":"webrtc_offer"})"},
    };
    for (const auto& [frame, payload] : cases) {
        const auto line = payload.starts_with(R"("control")")
                              ? R"({"event":"control",)" + payload + "}"
                              : "{" + payload + "}";
        EXPECT_EQ(linesFor(frame), std::vector{line}) << frame;
    }
}

TEST_F(RelayEventPrinterTest, ProbesNoticesAndUndecodableFramesPrintNothingLinkEventsNoPayload) {
    for (const char* frame : {R"({"type":"ping"})", R"({"type":"latency_ping","t":1})",
                              R"({"type":"error","message":"x"})", "not json"}) {
        EXPECT_EQ(linesFor(frame), std::vector<std::string>{}) << frame;
    }
    client->onOpen();
    client->onAuthRejected();
    EXPECT_EQ(lines,
              (std::vector<std::string>{R"({"event":"open"})", R"({"event":"auth_rejected"})"}));
}

}  // namespace
}  // namespace velmorand::cli
