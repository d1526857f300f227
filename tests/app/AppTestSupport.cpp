#include "AppTestSupport.h"

#include <QFile>
#include <QImage>
#include <QVideoFrame>
#include <QVideoFrameFormat>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>

#define ZX_USE_UTF8 1
#include <ZXing/BitMatrix.h>
#include <ZXing/MultiFormatWriter.h>

#include "AppServices.h"
#include "HoldingProxy.h"
#include "QrScannerBridge.h"
#include "velmorand/sandbox/Sandbox.h"

namespace velmorand::testing {
namespace {

namespace fs = std::filesystem;

QImage qrImage(const QString& text) {
    const auto matrix = ZXing::MultiFormatWriter(ZXing::BarcodeFormat::QRCode)
                            .setMargin(4)
                            .encode(text.toStdString(), 240, 240);
    QImage image(matrix.width(), matrix.height(), QImage::Format_ARGB32);
    for (int y = 0; y < matrix.height(); ++y) {
        for (int x = 0; x < matrix.width(); ++x) {
            image.setPixel(x, y, matrix.get(x, y) ? 0xff000000 : 0xffffffff);
        }
    }
    // A camera frame is larger than the code it sees.
    QImage frame(640, 480, QImage::Format_ARGB32);
    frame.fill(Qt::white);
    for (int y = 0; y < image.height(); ++y) {
        std::memcpy(frame.scanLine(120 + y) + 200 * 4, image.constScanLine(y),
                    static_cast<size_t>(image.width()) * 4);
    }
    return frame;
}

QVideoFrame videoFrame(const QImage& image) {
    const auto argb = image.convertToFormat(QImage::Format_ARGB32);
    QVideoFrame frame(QVideoFrameFormat(argb.size(), QVideoFrameFormat::Format_BGRA8888));
    if (frame.map(QVideoFrame::WriteOnly)) {
        for (int y = 0; y < argb.height(); ++y) {
            std::memcpy(frame.bits(0) + y * frame.bytesPerLine(0), argb.constScanLine(y),
                        static_cast<size_t>(argb.width()) * 4);
        }
        frame.unmap();
    }
    return frame;
}

}  // namespace

AppTestSupport::AppTestSupport(app::AppServices& services, app::QrScannerBridge& scanner,
                               HoldingProxy& proxy, fs::path dataDir, fs::path bundleDir,
                               fs::path scratchDir)
    : services_(services),
      scanner_(scanner),
      proxy_(proxy),
      dataDir_(std::move(dataDir)),
      bundleDir_(std::move(bundleDir)),
      scratchDir_(std::move(scratchDir)) {}

QString AppTestSupport::demoKey() const {
    return QString::fromUtf8(sandbox::SandboxOptions::kDemoKey.data(),
                             static_cast<qsizetype>(sandbox::SandboxOptions::kDemoKey.size()));
}

void AppTestSupport::clearStore() {
    services_.config.clear();
}

QString AppTestSupport::stored(const QString& key) const {
    const auto dict = SharedConfig::dict(services_.config.load());
    const auto it = dict.find(key.toStdString());
    if (it == dict.end()) {
        return {};
    }
    return QString::fromStdString(it->is_string() ? it->get<std::string>() : it->dump());
}

void AppTestSupport::holdService(bool holding) {
    proxy_.setHolding(holding);
}

void AppTestSupport::installExtension() {
    const auto extension = bundleDir_ / "PlugIns" / "Upload.appex";
    fs::create_directories(extension);
    std::ofstream(extension / "Info.plist")
        << R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict>)"
           "<key>CFBundleIdentifier</key><string>co.velmorand.connect.test-upload</string>"
           "<key>CFBundleExecutable</key><string>upload</string>"
           "<key>NSExtension</key><dict><key>NSExtensionPointIdentifier</key>"
           "<string>com.apple.broadcast-services-upload</string></dict></dict></plist>";
    const auto program = extension / "upload";
    std::ofstream(program) << "#!/bin/sh\nprintf '%s\\n' \"$@\" > '" << launchRecordFile().string()
                           << ".part' && mv '" << launchRecordFile().string() << ".part' '"
                           << launchRecordFile().string() << "'\n";
    fs::permissions(program, fs::perms::owner_all);
    fs::remove(launchRecordFile());
}

void AppTestSupport::removeExtension() {
    fs::remove_all(bundleDir_ / "PlugIns" / "Upload.appex");
}

QString AppTestSupport::launchRecord() const {
    QFile file(QString::fromStdString(launchRecordFile().string()));
    if (!file.open(QIODevice::ReadOnly)) {
        return {};
    }
    return QString::fromUtf8(file.readAll());
}

void AppTestSupport::writeExtensionLog(const QString& text) {
    const auto container = services_.environment.groupContainers.containerDirectory(kAppGroupName);
    if (container) {
        std::ofstream(*container / "extension.log", std::ios::binary) << text.toStdString();
    }
}

void AppTestSupport::attachCamera() {
    scanner_.setVideoSink(&camera_);
    scanner_.setMinimumFrameInterval(0);
}

void AppTestSupport::showQrCode(const QString& text) {
    camera_.setVideoFrame(videoFrame(qrImage(text)));
}

void AppTestSupport::showNothing() {
    QImage blank(640, 480, QImage::Format_ARGB32);
    blank.fill(Qt::white);
    camera_.setVideoFrame(videoFrame(blank));
}

QUrl AppTestSupport::writeQrImage(const QString& text) {
    const auto file = scratchDir_ / "code.png";
    qrImage(text).save(QString::fromStdString(file.string()));
    return QUrl::fromLocalFile(QString::fromStdString(file.string()));
}

}  // namespace velmorand::testing
