// The real Main.qml against the real bridges, with the sandbox service in process, on the
// offscreen platform.
#include <QFile>
#include <QImage>
#include <QQmlContext>
#include <QQmlEngine>
#include <QQuickWindow>
#include <QTemporaryDir>
#include <QVideoFrame>
#include <QVideoFrameFormat>
#include <QVideoSink>
#include <QtQuickTest>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>

#define ZX_USE_UTF8 1
#include <ZXing/BitMatrix.h>
#include <ZXing/MultiFormatWriter.h>

#include "AppServices.h"
#include "QrScannerBridge.h"
#include "ScreenBridges.h"
#include "velmorand/sandbox/Sandbox.h"

namespace fs = std::filesystem;
using namespace velmorand;

namespace {

// A camera's view of a QR code: a frame larger than the code it sees. Empty text: no code.
QVideoFrame cameraView(const QString& text) {
    QImage image(640, 480, QImage::Format_ARGB32);
    image.fill(Qt::white);
    if (!text.isEmpty()) {
        const auto matrix = ZXing::MultiFormatWriter(ZXing::BarcodeFormat::QRCode)
                                .setMargin(4)
                                .encode(text.toStdString(), 240, 240);
        for (int y = 0; y < matrix.height(); ++y) {
            for (int x = 0; x < matrix.width(); ++x) {
                image.setPixel(200 + x, 120 + y, matrix.get(x, y) ? 0xff000000 : 0xffffffff);
            }
        }
    }
    QVideoFrame frame(QVideoFrameFormat(image.size(), QVideoFrameFormat::Format_BGRA8888));
    if (frame.map(QVideoFrame::WriteOnly)) {
        for (int y = 0; y < image.height(); ++y) {
            std::memcpy(frame.bits(0) + y * frame.bytesPerLine(0), image.constScanLine(y),
                        static_cast<size_t>(image.width()) * 4);
        }
        frame.unmap();
    }
    return frame;
}

}  // namespace

// Builds the application's services around the sandbox, and gives the QML test (as `support`)
// what it needs beyond the screen: the stores, the bundle's plug-ins and a stand-in camera.
class Setup : public QObject {
    Q_OBJECT
    Q_PROPERTY(QUrl mainUrl MEMBER mainUrl_ CONSTANT)
    Q_PROPERTY(QString demoKey MEMBER demoKey_ CONSTANT)
    Q_PROPERTY(QString dataDir READ dataDir CONSTANT)
    Q_PROPERTY(QString bundleDir READ bundleDir CONSTANT)
    Q_PROPERTY(QString screenshotDir MEMBER screenshotDir_ CONSTANT)

  public:
    QString dataDir() const { return QString::fromStdString((root() / "data").string()); }
    QString bundleDir() const { return QString::fromStdString((root() / "bundle").string()); }

    Q_INVOKABLE void clearStore() { services_->config.clear(); }

    // A stored field as text ("" when absent).
    Q_INVOKABLE QString stored(const QString& key) const {
        const auto dict = SharedConfig::dict(services_->config.load());
        const auto it = dict.find(key.toStdString());
        return it == dict.end()
                   ? QString()
                   : QString::fromStdString(it->is_string() ? it->get<std::string>() : it->dump());
    }

    // An upload extension in the bundle, whose program records its arguments.
    Q_INVOKABLE void installExtension() {
        const auto extension = extensionDir();
        fs::create_directories(extension);
        std::ofstream(extension / "Info.plist")
            << R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict>)"
               "<key>CFBundleIdentifier</key><string>co.velmorand.connect.test-upload</string>"
               "<key>CFBundleExecutable</key><string>upload</string>"
               "<key>NSExtension</key><dict><key>NSExtensionPointIdentifier</key>"
               "<string>com.apple.broadcast-services-upload</string></dict></dict></plist>";
        // It records its arguments, then broadcasts until it is asked to stop.
        std::ofstream(extension / "upload")
            << "#!/bin/sh\nexec '" VELMORAND_BROADCASTING_EXTENSION "' '"
            << launchRecordFile().string() << "' '" << containerDir().string() << "' \"$@\"\n";
        fs::permissions(extension / "upload", fs::perms::owner_all);
        fs::remove(launchRecordFile());
    }
    Q_INVOKABLE void removeExtension() { fs::remove_all(extensionDir()); }
    Q_INVOKABLE QString launchRecord() const {
        QFile file(QString::fromStdString(launchRecordFile().string()));
        return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
    }

    // What `window` shows in `area` (scene coordinates) and a margin around it, as a PNG.
    Q_INVOKABLE bool saveWindowArea(QQuickWindow* window, const QRectF& area,
                                    const QString& path) const {
        constexpr qreal kMargin = 16;
        const QImage image = window->grabWindow();
        const QRectF around = area.adjusted(-kMargin, -kMargin, kMargin, kMargin);
        const qreal scale = image.devicePixelRatio();
        return image.copy(QRectF(around.topLeft() * scale, around.size() * scale).toAlignedRect())
            .save(path);
    }

    // Frames from a stand-in camera, fed straight into the scanner.
    Q_INVOKABLE void attachCamera() {
        bridges_->scanner.setVideoSink(&camera_);
        bridges_->scanner.setMinimumFrameInterval(0);
    }
    Q_INVOKABLE void showQrCode(const QString& text) { camera_.setVideoFrame(cameraView(text)); }

  public slots:
    void applicationAvailable() {
        const auto dataDir = root() / "data";
        const auto bundleDir = root() / "bundle";
        fs::create_directories(bundleDir / "PlugIns");
        for (const char* name : {"Info.plist", "embedded.mobileprovision"}) {
            fs::copy_file(fs::path(VELMORAND_BUNDLE_SOURCE_DIR) / name, bundleDir / name);
        }

        sandbox::SandboxOptions options;
        options.wdaStartupTime = std::chrono::milliseconds(100);
        sandbox_ = std::make_unique<sandbox::Sandbox>(options);
        std::string error;
        if (!sandbox_->start(&error)) {
            qFatal("sandbox: %s", error.c_str());
        }
        services_ = std::make_unique<app::AppServices>(
            DesktopLocations{dataDir, bundleDir},
            ServiceEndpoints{sandbox_->baseUrl(), sandbox_->wdaBaseUrl() + "/status"});
        bridges_ = std::make_unique<app::ScreenBridges>(
            *services_, QStringList{QStringLiteral("--data-dir"), this->dataDir(),
                                    QStringLiteral("--bundle-dir"), this->bundleDir()});
    }

    void qmlEngineAvailable(QQmlEngine* engine) {
        bridges_->exposeTo(*engine->rootContext());
        engine->rootContext()->setContextProperty(QStringLiteral("support"), this);
    }

    // The services are QObjects of the application: gone before it is.
    void cleanupTestCase() {
        bridges_.reset();
        services_.reset();
        sandbox_.reset();
    }

  private:
    fs::path root() const { return scratch_.path().toStdString(); }
    fs::path extensionDir() const { return root() / "bundle" / "PlugIns" / "Upload.appex"; }
    fs::path launchRecordFile() const { return root() / "launched.txt"; }
    fs::path containerDir() const {
        return root() / "data" / "Group Containers" / "group.co.velmorand.connect";
    }

    QTemporaryDir scratch_;
    const QString screenshotDir_ = QStringLiteral(VELMORAND_SCREENSHOT_DIR);
    const QUrl mainUrl_{QStringLiteral("qrc:/velmorand/qml/Main.qml")};
    const QString demoKey_ = QString::fromStdString(std::string(sandbox::SandboxOptions::kDemoKey));
    QVideoSink camera_;
    std::unique_ptr<sandbox::Sandbox> sandbox_;
    std::unique_ptr<app::AppServices> services_;
    std::unique_ptr<app::ScreenBridges> bridges_;
};

QUICK_TEST_MAIN_WITH_SETUP(app_tests, Setup)

#include "main.moc"
