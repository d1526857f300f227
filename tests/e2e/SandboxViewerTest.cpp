// What the viewer page relies on from the sandbox that the browser run cannot see: the policy on
// every file it serves, relay pongs kept from viewers, and how the relay hands frames out.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QWebSocket>
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <span>
#include <string>
#include <vector>

#include "QtTestSupport.h"
#include "velmorand/relay/FrameHeader.h"
#include "velmorand/sandbox/Sandbox.h"

namespace velmorand::sandbox {
namespace {

using nlohmann::json;
using namespace std::chrono_literals;

using velmorand::testing::pumpFor;
using velmorand::testing::pumpUntil;

// A viewer that records the sequence number of each frame it gets.
struct Viewer {
    explicit Viewer(const QUrl& url) {
        QObject::connect(&socket, &QWebSocket::binaryMessageReceived, [this](const QByteArray& b) {
            const auto header =
                FrameHeader::read(std::span(reinterpret_cast<const std::uint8_t*>(b.constData()),
                                            static_cast<std::size_t>(b.size())));
            sequences.push_back(header ? header->sequence : 0xFFFF'FFFF);
        });
        socket.open(url);
    }
    QWebSocket socket;
    std::vector<std::uint32_t> sequences;
};

class SandboxViewerTest : public ::testing::Test {
  protected:
    void start(std::chrono::milliseconds pingInterval = 0ms) {
        SandboxOptions options;
        options.relayPingInterval = pingInterval;
        sandbox_ = std::make_unique<Sandbox>(options);
        std::string error;
        ASSERT_TRUE(sandbox_->start(&error)) << error;
    }

    // The finished reply to a GET, or to a POST of `body`.
    std::unique_ptr<QNetworkReply> call(const std::string& path, const QByteArray& body = {}) {
        QNetworkRequest request(QUrl(QString::fromStdString(sandbox_->baseUrl() + path)));
        request.setHeader(QNetworkRequest::ContentTypeHeader, "application/json");
        std::unique_ptr<QNetworkReply> reply(body.isEmpty() ? network_.get(request)
                                                            : network_.post(request, body));
        EXPECT_TRUE(pumpUntil([&reply] { return reply->isFinished(); })) << path;
        return reply;
    }

    QNetworkAccessManager network_;
    std::unique_ptr<Sandbox> sandbox_;
};

TEST_F(SandboxViewerTest, ServesThePageAndItsFilesUnderAPolicyThatKeepsThemLocal) {
    start();
    const std::vector<std::tuple<std::string, std::string, std::string>> files = {
        {"/", "text/html; charset=utf-8", R"(<script src="/viewer.js")"},
        {"/viewer.js", "text/javascript; charset=utf-8", "/relay/viewer"},
        {"/viewer.css", "text/css; charset=utf-8", "#frames"},
    };
    for (const auto& [path, contentType, mark] : files) {
        SCOPED_TRACE(path);
        const auto reply = call(path);
        EXPECT_EQ(reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), 200);
        EXPECT_EQ(reply->header(QNetworkRequest::ContentTypeHeader).toString().toStdString(),
                  contentType);
        EXPECT_EQ(reply->rawHeader("Content-Security-Policy"), "default-src 'self'");
        EXPECT_TRUE(reply->readAll().contains(QByteArray::fromStdString(mark)));
    }
    EXPECT_EQ(call("/viewer.html")->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(),
              404);
}

TEST_F(SandboxViewerTest, ForwardsThePongsThatAnswerViewerPingsAndKeepsItsOwn) {
    start(20ms);
    const auto handshake =
        json::parse(call("/api/agent-handshake", R"({"accessKey":"demo-key-1234","webrtc":false})")
                        ->readAll()
                        .toStdString());
    // A device that answers pings as the extension does.
    QWebSocket device;
    QObject::connect(&device, &QWebSocket::textMessageReceived, [&device](const QString& text) {
        if (json::parse(text.toStdString(), nullptr, false).value("type", "") == "ping") {
            device.sendTextMessage(QStringLiteral(R"({"type":"pong"})"));
        }
    });
    QNetworkRequest request(QUrl(QString::fromStdString(sandbox_->relayWsUrl() + "/device")));
    request.setRawHeader("x-device-token",
                         QByteArray::fromStdString(handshake.at("deviceToken").get<std::string>()));
    device.open(request);
    ASSERT_TRUE(pumpUntil([this] { return sandbox_->deviceConnected(); }));

    std::vector<std::string> received;
    QWebSocket viewer;
    QObject::connect(&viewer, &QWebSocket::textMessageReceived,
                     [&received](const QString& text) { received.push_back(text.toStdString()); });
    viewer.open(QUrl(QString::fromStdString(sandbox_->relayWsUrl() + "/viewer")));
    ASSERT_TRUE(pumpUntil([&] {
        return sandbox_->viewerCount() == 1 && viewer.state() == QAbstractSocket::ConnectedState;
    }));
    // However written, a ping is a ping to the device.
    viewer.sendTextMessage(QStringLiteral(R"({"type":"ping"})"));
    viewer.sendTextMessage(QStringLiteral(R"({ "type": "ping", "t": 1 })"));
    ASSERT_TRUE(pumpUntil([&received] { return received.size() == 2; }));
    // Many relay pings later, none of their pongs has reached the viewer.
    const auto pongs = sandbox_->devicePongs();
    ASSERT_TRUE(pumpUntil([&] { return sandbox_->devicePongs() >= pongs + 10; }));
    EXPECT_EQ(received, std::vector<std::string>(2, R"({"type":"pong"})"));
}

QByteArray frameBytes(FrameHeader header, qsizetype payloadSize) {
    QByteArray bytes(static_cast<qsizetype>(FrameHeader::kSize) + payloadSize, 'p');
    header.write(std::span<std::uint8_t, FrameHeader::kSize>(
        reinterpret_cast<std::uint8_t*>(bytes.data()), FrameHeader::kSize));
    return bytes;
}

template <typename T>
std::vector<T> from(const std::vector<T>& all, std::size_t start) {
    return {all.begin() + static_cast<std::ptrdiff_t>(std::min(start, all.size())), all.end()};
}

// The relay's frame rules, step by step on one relay: which viewer gets which frame, and what the
// device is told, as viewers join and leave.
TEST_F(SandboxViewerTest, HandsEachViewerTheFramesItCanUseAndTellsTheDeviceWhenToStream) {
    start();
    const QUrl viewerUrl(QString::fromStdString(sandbox_->relayWsUrl() + "/viewer"));
    QWebSocket device;
    std::vector<std::string> heard;
    QObject::connect(&device, &QWebSocket::textMessageReceived,
                     [&](const QString& text) { heard.push_back(text.toStdString()); });
    std::map<char, std::unique_ptr<Viewer>> viewers;
    std::uint32_t next = 0;
    // 20 frames a second of capture time.
    const auto frame = [](std::uint32_t sequence, bool key, qsizetype size) {
        FrameHeader header;
        header.keyFrame = key;
        header.sequence = sequence;
        header.captureTimeUs = 1'700'000'000'000'000 + std::uint64_t{sequence} * 50'000;
        header.pictureWidth = header.screenWidth = 320;
        header.pictureHeight = header.screenHeight = 240;
        return frameBytes(header, size);
    };
    const auto send = [&](bool key) { device.sendBinaryMessage(frame(next++, key, 32 * 1024)); };
    const auto join = [&](char name) {
        const auto count = sandbox_->viewerCount();
        viewers[name] = std::make_unique<Viewer>(viewerUrl);
        ASSERT_TRUE(pumpUntil([&] { return sandbox_->viewerCount() == count + 1; }));
    };
    const auto leave = [&](char name) {
        const auto count = sandbox_->viewerCount();
        viewers.at(name)->socket.close();
        ASSERT_TRUE(pumpUntil([&] { return sandbox_->viewerCount() == count - 1; }));
    };
    const auto got = [&](char name) { return viewers.at(name)->sequences; };
    const std::string needStream = R"({"type":"need_stream"})";
    const std::string requestIdr = R"({"type":"request_idr"})";
    const std::string stopStream = R"({"type":"stream_control","streaming":false})";

    struct Step {
        std::string what;
        std::function<void()> act;
        // What the device hears, and each named viewer gets, during the step.
        std::vector<std::string> heard;
        std::map<char, std::vector<std::uint32_t>> got;
    };
    const std::vector<Step> steps = {
        {"a viewer waits for a device", [&] { join('A'); }, {}, {}},
        {"a device joining a waiting viewer is asked to stream",
         [&] {
             const auto handshake = json::parse(
                 call("/api/agent-handshake", R"({"accessKey":"demo-key-1234","webrtc":false})")
                     ->readAll()
                     .toStdString());
             QNetworkRequest request(
                 QUrl(QString::fromStdString(sandbox_->relayWsUrl() + "/device")));
             request.setRawHeader(
                 "x-device-token",
                 QByteArray::fromStdString(handshake.at("deviceToken").get<std::string>()));
             device.open(request);
             ASSERT_TRUE(pumpUntil([this] { return sandbox_->deviceConnected(); }));
         },
         {needStream},
         {}},
        {"a viewer gets nothing before its first key frame",
         [&] {
             send(false);
             send(false);
             send(true);
             send(false);
         },
         {},
         {{'A', {2, 3}}}},
        {"another viewer joining asks for a key frame", [&] { join('B'); }, {requestIdr}, {}},
        {"the newcomer waits for it while the first misses nothing",
         [&] {
             send(false);
             send(true);
             send(false);
         },
         {},
         {{'A', {4, 5, 6}}, {'B', {5, 6}}}},
        {"what is not a frame reaches nobody",
         [&] {
             const QByteArray valid = frame(0xBAD, true, 100);
             const std::vector<std::pair<std::string, QByteArray>> notFrames = {
                 {"another magic", QByteArray(valid).replace(0, 4, "VMF2")},
                 {"an unknown codec", QByteArray(valid).replace(4, 1, "\x03")},
                 {"a header without a picture", valid.first(FrameHeader::kSize)},
                 {"less than a header", valid.first(FrameHeader::kSize - 1)},
                 {"over 16 MiB", frame(0xBAD, true, 16 * 1024 * 1024 - FrameHeader::kSize + 1)},
             };
             for (const auto& [what, bytes] : notFrames) {
                 device.sendBinaryMessage(bytes);
             }
             send(true);
         },
         {},
         {{'A', {7}}, {'B', {7}}}},
        {"a viewer leaving others changes nothing", [&] { leave('A'); }, {}, {}},
        {"the last viewer leaving stops the stream", [&] { leave('B'); }, {stopStream}, {}},
        {"the next viewer starts it again", [&] { join('C'); }, {needStream}, {}},
    };

    for (const auto& step : steps) {
        SCOPED_TRACE(step.what);
        const auto heardBefore = heard.size();
        std::map<char, std::size_t> gotBefore;
        for (const auto& [name, viewer] : viewers) {
            gotBefore[name] = viewer->sequences.size();
        }
        step.act();
        if (::testing::Test::HasFatalFailure()) {
            return;
        }
        EXPECT_TRUE(pumpUntil([&] {
            return std::all_of(step.got.begin(), step.got.end(),
                               [&](const auto& expected) {
                                   return got(expected.first).size() >=
                                          gotBefore[expected.first] + expected.second.size();
                               }) &&
                   heard.size() >= heardBefore + step.heard.size();
        }));
        // Time for anything that should not come.
        pumpFor(std::chrono::milliseconds(100));
        EXPECT_EQ(from(heard, heardBefore), step.heard);
        for (const auto& [name, expected] : step.got) {
            EXPECT_EQ(from(got(name), gotBefore[name]), expected) << "viewer " << name;
        }
    }
}

}  // namespace
}  // namespace velmorand::sandbox

int main(int argc, char** argv) {
    // Every wait above turns this thread's event loop.
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
