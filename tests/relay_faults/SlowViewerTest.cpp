// The real upload extension streaming a busy screen to a relay that stops reading: the frames it
// cannot send are dropped, not queued, so its memory stays bounded, and its main thread goes on
// answering probes.
#include <gtest/gtest.h>
#include <xcb/xcb.h>

#include <QProcess>
#include <algorithm>
#include <atomic>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

#include "QtTestSupport.h"
#include "ScriptedRelay.h"
#include "TempDir.h"
#include "Xvfb.h"
#include "velmorand/config/AppGroup.h"
#include "velmorand/config/SharedConfig.h"
#include "velmorand/desktop/DataRoot.h"
#include "velmorand/desktop/DesktopBundle.h"
#include "velmorand/desktop/DesktopSettingsStores.h"
#include "velmorand/desktop/PlistKeychain.h"

namespace velmorand {
namespace {

using namespace std::chrono_literals;
using velmorand::testing::pumpFor;
using velmorand::testing::pumpUntil;

constexpr int kWidth = 1280;
constexpr int kHeight = 720;

// Noise over the whole root window, shifted every frame: about a megabyte of JPEG per frame,
// so a queue without a bound would grow by tens of megabytes a second.
class NoisyScreen {
  public:
    explicit NoisyScreen(const std::string& display) : thread_([this, display] { run(display); }) {}
    ~NoisyScreen() {
        stop_ = true;
        thread_.join();
    }

  private:
    void run(const std::string& display) {
        xcb_connection_t* c = xcb_connect(display.c_str(), nullptr);
        const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(c)).data;
        const xcb_gcontext_t gc = xcb_generate_id(c);
        xcb_create_gc(c, gc, screen->root, 0, nullptr);
        std::vector<std::uint8_t> noise(static_cast<std::size_t>(kWidth) * kHeight * 8);
        std::generate(noise.begin(), noise.end(), std::minstd_rand(7));
        constexpr int kStripRows = 32;  // keeps each request under the core protocol's limit
        for (std::size_t shift = 0; !stop_; shift = (shift + 4099) % (noise.size() / 2)) {
            for (int top = 0; top < kHeight; top += kStripRows) {
                const std::size_t offset = shift + static_cast<std::size_t>(top) * kWidth * 4;
                xcb_put_image(c, XCB_IMAGE_FORMAT_Z_PIXMAP, screen->root, gc, kWidth, kStripRows, 0,
                              static_cast<std::int16_t>(top), 0, 24, kWidth * kStripRows * 4,
                              noise.data() + offset);
            }
            xcb_flush(c);
            std::this_thread::sleep_for(33ms);
        }
        xcb_disconnect(c);
    }

    std::atomic<bool> stop_{false};
    std::thread thread_;
};

std::int64_t residentKiB(qint64 pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("VmRSS:")) {
            return std::stoll(line.substr(6));
        }
    }
    return -1;
}

TEST(SlowViewer, AStalledRelayCostsBoundedMemoryAndProbesAreStillAnswered) {
    testing::Xvfb display(kWidth, kHeight);
    ASSERT_TRUE(display.running());
    testing::ScriptedRelay relay;
    relay.onUpgraded = [](testing::RelayPeer& peer) {
        peer.sendText(R"({"type":"need_stream","prefer":"jpeg"})");
    };
    testing::TempDir data;
    const DataRoot root(data.path());
    const DesktopBundle bundle(VELMORAND_DEV_BUNDLE);
    DesktopSettingsStores stores(root);
    PlistKeychain keychain(root.keychainFile(), bundle.resource("embedded", "mobileprovision"));
    const AppGroup group(bundle);
    SharedConfig config(stores, keychain, group);
    config.save("KEY-SLOW", "http://127.0.0.1:1",
                {"token-slow", relay.base(), "device-slow", "Slow desk", false});
    auto values = config.load();
    values.scale = 1.0;  // a megabyte or so per frame
    values.quality = 0.9;
    config.persist(values);

    NoisyScreen screen(display.display());
    QProcess broadcast;
    auto environment = QProcessEnvironment::systemEnvironment();
    environment.insert("DISPLAY", QString::fromStdString(display.display()));
    broadcast.setProcessEnvironment(environment);
    broadcast.start(VELMORAND_BROADCAST, {"--data-dir", QString::fromStdString(data.path())});
    ASSERT_TRUE(broadcast.waitForStarted(5000));
    const auto log = [&] {
        std::ostringstream text;
        text << std::ifstream(root.groupContainerDirectory() / "extension.log").rdbuf();
        return text.str();
    };

    ASSERT_TRUE(
        pumpUntil([&] { return relay.latest() && relay.latest()->binaryFrames() >= 10; }, 20s))
        << log();
    auto& viewer = *relay.latest();
    viewer.stopReading();
    pumpFor(2s);  // the kernel's buffers fill first
    const auto before = residentKiB(broadcast.processId());
    std::int64_t peak = before;
    for (int i = 0; i < 16; ++i) {
        pumpFor(500ms);
        peak = std::max(peak, residentKiB(broadcast.processId()));
    }
    EXPECT_LT(peak - before, 16 * 1024) << "resident KiB went from " << before << " to " << peak;

    viewer.sendText(testing::probeFrame(77));
    viewer.resumeReading();
    const auto answered = [&] {
        const auto& texts = viewer.received();
        return std::any_of(texts.begin(), texts.end(), [](const std::string& text) {
            return testing::isProbeAnswer(text, 77);
        });
    };
    EXPECT_TRUE(pumpUntil(answered, 5s)) << log();
    const int framesThen = viewer.binaryFrames();
    EXPECT_TRUE(pumpUntil([&] { return viewer.binaryFrames() > framesThen + 5; }, 10s)) << log();

    broadcast.terminate();
    broadcast.waitForFinished(5000);
}

}  // namespace
}  // namespace velmorand
