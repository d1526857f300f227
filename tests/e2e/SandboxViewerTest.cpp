// What the viewer page relies on from the sandbox that the browser run cannot see: the policy on
// every file it serves, relay pongs kept from viewers, and how the relay hands frames out.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QThread>
#include <QWebSocket>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <numeric>
#include <semaphore>
#include <set>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "velmorand/relay/FrameHeader.h"
#include "velmorand/sandbox/Sandbox.h"

namespace velmorand::sandbox {
namespace {

using nlohmann::json;
using namespace std::chrono_literals;

bool waitUntil(const std::function<bool()>& done) {
    QElapsedTimer timer;
    timer.start();
    while (!done() && timer.elapsed() < 10'000) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    }
    return done();
}

void pumpFor(std::chrono::milliseconds time) {
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < time.count()) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    }
}

// What a viewer records of a message that is not a frame.
constexpr std::uint32_t kNotAFrame = 0xFFFF'FFFF;

// A viewer on a thread of its own: blocking that thread stops it reading, as a slow link would,
// while the relay and the other links go on.
class ThreadedViewer {
  public:
    explicit ThreadedViewer(const QUrl& url) {
        thread_.start();
        socket_ = new QWebSocket;
        socket_->moveToThread(&thread_);
        QObject::connect(socket_, &QWebSocket::binaryMessageReceived, socket_,
                         [this](const QByteArray& bytes) {
                             const auto header = FrameHeader::read(
                                 std::span(reinterpret_cast<const std::uint8_t*>(bytes.constData()),
                                           static_cast<std::size_t>(bytes.size())));
                             const std::lock_guard lock(mutex_);
                             sequences_.push_back(header ? header->sequence : kNotAFrame);
                         });
        QMetaObject::invokeMethod(socket_, [this, url] { socket_->open(url); });
    }
    ~ThreadedViewer() {
        resume();
        QMetaObject::invokeMethod(
            socket_, [this] { delete socket_; }, Qt::BlockingQueuedConnection);
        thread_.quit();
        thread_.wait();
    }
    ThreadedViewer(const ThreadedViewer&) = delete;
    ThreadedViewer& operator=(const ThreadedViewer&) = delete;

    void stall() {
        stalled_ = true;
        QMetaObject::invokeMethod(socket_, [this] { held_.acquire(); });
    }
    void resume() {
        if (std::exchange(stalled_, false)) {
            held_.release();
        }
    }
    void leave() {
        QMetaObject::invokeMethod(socket_, [this] { socket_->close(); });
    }
    std::vector<std::uint32_t> sequences() const {
        const std::lock_guard lock(mutex_);
        return sequences_;
    }

  private:
    QThread thread_;
    QWebSocket* socket_ = nullptr;
    bool stalled_ = false;
    std::binary_semaphore held_{0};
    mutable std::mutex mutex_;
    std::vector<std::uint32_t> sequences_;
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
        EXPECT_TRUE(waitUntil([&reply] { return reply->isFinished(); })) << path;
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
    ASSERT_TRUE(waitUntil([this] { return sandbox_->deviceConnected(); }));

    std::vector<std::string> received;
    QWebSocket viewer;
    QObject::connect(&viewer, &QWebSocket::textMessageReceived,
                     [&received](const QString& text) { received.push_back(text.toStdString()); });
    viewer.open(QUrl(QString::fromStdString(sandbox_->relayWsUrl() + "/viewer")));
    ASSERT_TRUE(waitUntil([this] { return sandbox_->viewerCount() == 1; }));
    // However written, a ping is a ping to the device.
    viewer.sendTextMessage(QStringLiteral(R"({"type":"ping"})"));
    viewer.sendTextMessage(QStringLiteral(R"({ "type": "ping", "t": 1 })"));
    ASSERT_TRUE(waitUntil([&received] { return received.size() == 2; }));
    // Many relay pings later, none of their pongs has reached the viewer.
    const auto pongs = sandbox_->devicePongs();
    ASSERT_TRUE(waitUntil([&] { return sandbox_->devicePongs() >= pongs + 10; }));
    EXPECT_EQ(received, std::vector<std::string>(2, R"({"type":"pong"})"));
}

QByteArray frameBytes(FrameHeader header, qsizetype payloadSize) {
    QByteArray bytes(static_cast<qsizetype>(FrameHeader::kSize) + payloadSize, 'p');
    header.write(std::span<std::uint8_t, FrameHeader::kSize>(
        reinterpret_cast<std::uint8_t*>(bytes.data()), FrameHeader::kSize));
    return bytes;
}

constexpr qsizetype kDelta = 32 * 1024;

template <typename T>
std::vector<T> from(const std::vector<T>& all, std::size_t start) {
    return {all.begin() + static_cast<std::ptrdiff_t>(std::min(start, all.size())), all.end()};
}

// The relay's frame rules, step by step on one relay: which viewer gets which frame, and what the
// device is told, as viewers join, fall behind and leave.
TEST_F(SandboxViewerTest, HandsEachViewerTheFramesItCanUseAndTellsTheDeviceWhenToStream) {
    start();
    const QUrl viewerUrl(QString::fromStdString(sandbox_->relayWsUrl() + "/viewer"));
    QWebSocket device;
    std::vector<std::string> heard;
    std::vector<std::chrono::steady_clock::time_point> heardAt;
    QObject::connect(&device, &QWebSocket::textMessageReceived, [&](const QString& text) {
        heard.push_back(text.toStdString());
        heardAt.push_back(std::chrono::steady_clock::now());
    });
    std::map<char, std::unique_ptr<ThreadedViewer>> viewers;
    std::set<std::uint32_t> keyFrames;
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
    const auto send = [&](bool key, qsizetype size = kDelta) {
        if (key) {
            keyFrames.insert(next);
        }
        device.sendBinaryMessage(frame(next, key, size));
        return next++;
    };
    const auto join = [&](char name) {
        const auto count = sandbox_->viewerCount();
        viewers[name] = std::make_unique<ThreadedViewer>(viewerUrl);
        ASSERT_TRUE(waitUntil([&] { return sandbox_->viewerCount() == count + 1; }));
    };
    const auto leave = [&](char name) {
        const auto count = sandbox_->viewerCount();
        viewers.at(name)->leave();
        ASSERT_TRUE(waitUntil([&] { return sandbox_->viewerCount() == count - 1; }));
    };
    const auto got = [&](char name) { return viewers.at(name)->sequences(); };
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
             ASSERT_TRUE(waitUntil([this] { return sandbox_->deviceConnected(); }));
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
        {"a viewer that stops reading misses frames until a key frame it has room for, and holds "
         "nobody back",
         [&] {
             const auto first = next;
             const auto aBefore = got('A').size();
             const auto bBefore = got('B').size();
             viewers.at('B')->stall();
             const auto lastOf = [&](char name) {
                 const auto sequences = got(name);
                 return sequences.empty() ? kNotAFrame : sequences.back();
             };
             // Paced by A: a burst would fill A's link as well.
             const auto paced = [&](bool key, qsizetype size = kDelta) {
                 const auto sequence = send(key, size);
                 if (!waitUntil([&] { return lastOf('A') == sequence; })) {
                     throw std::runtime_error("A never got frame " + std::to_string(sequence));
                 }
             };
             const auto asked = heard.size() + 1;
             for (int i = 0; i < 5000 && heard.size() < asked; ++i) {
                 paced(false);
                 pumpFor(std::chrono::milliseconds(2));
             }
             ASSERT_EQ(heard.size(), asked) << "the relay never asked for a key frame";
             // However soon B fell behind, the request for B's joining was too recent.
             EXPECT_GE(std::chrono::duration_cast<std::chrono::milliseconds>(
                           heardAt.back() - heardAt[heardAt.size() - 2])
                           .count(),
                       990);
             // Stalled still, B has no room for it.
             const auto missedKey = next;
             paced(true, 512 * 1024);
             viewers.at('B')->resume();
             for (int i = 0; i < 100 && (lastOf('B') == kNotAFrame || lastOf('B') <= missedKey);
                  ++i) {
                 paced(true);
                 pumpFor(std::chrono::milliseconds(20));
             }
             paced(false);
             const auto last = next;
             paced(false);
             ASSERT_TRUE(waitUntil([&] { return lastOf('B') == last; }));

             std::vector<std::uint32_t> all(next - first);
             std::iota(all.begin(), all.end(), first);
             EXPECT_EQ(from(got('A'), aBefore), all);
             const auto b = from(got('B'), bBefore);
             const auto notNext = [](std::uint32_t a, std::uint32_t z) { return z != a + 1; };
             const auto gap = std::adjacent_find(b.begin(), b.end(), notNext);
             ASSERT_NE(gap, b.end()) << "B missed nothing";
             EXPECT_EQ(b.front(), first);
             EXPECT_GT(gap[1], missedKey);
             EXPECT_TRUE(keyFrames.contains(gap[1])) << gap[1];
             EXPECT_EQ(std::adjacent_find(gap + 1, b.end(), notNext), b.end());
         },
         {requestIdr},
         {}},
        {"a viewer leaving others changes nothing", [&] { leave('A'); }, {}, {}},
        {"the last viewer leaving stops the stream", [&] { leave('B'); }, {stopStream}, {}},
        {"the next viewer starts it again", [&] { join('C'); }, {needStream}, {}},
    };

    for (const auto& step : steps) {
        SCOPED_TRACE(step.what);
        const auto heardBefore = heard.size();
        std::map<char, std::size_t> gotBefore;
        for (const auto& [name, viewer] : viewers) {
            gotBefore[name] = viewer->sequences().size();
        }
        step.act();
        if (::testing::Test::HasFatalFailure()) {
            return;
        }
        EXPECT_TRUE(waitUntil([&] {
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
