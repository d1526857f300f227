#include "QrScannerBridge.h"

#include <unistd.h>

#include <QCameraDevice>
#include <QImage>
#include <QMediaDevices>
#include <cerrno>

#include "QrFrameDecoder.h"

namespace velmorand::app {
namespace {

// A desktop asks no permission for the camera; access is refused when its device node may not
// be opened by this user (not in the video group, say).
bool accessRefused(const QCameraDevice& camera) {
    const QByteArray node = camera.id();
    return node.startsWith("/dev/") && ::access(node.constData(), R_OK | W_OK) != 0 &&
           errno == EACCES;
}

}  // namespace

QrScannerBridge::QrScannerBridge(QObject* parent) : QObject(parent) {}

void QrScannerBridge::setVideoSink(QVideoSink* sink) {
    if (sink == sink_) {
        return;
    }
    disconnect(frames_);
    sink_ = sink;
    if (sink_) {
        frames_ =
            connect(sink_, &QVideoSink::videoFrameChanged, this, &QrScannerBridge::decodeFrame);
    }
    emit videoSinkChanged();
}

void QrScannerBridge::setMinimumFrameInterval(int milliseconds) {
    if (milliseconds == minimumFrameInterval_) {
        return;
    }
    minimumFrameInterval_ = milliseconds;
    emit minimumFrameIntervalChanged();
}

void QrScannerBridge::start() {
    controller_ = std::make_unique<QrScanController>(
        [this](const std::string& code) {
            // Queued: the receiver closes the sheet, which ends this controller.
            QMetaObject::invokeMethod(
                this, [this, text = QString::fromStdString(code)] { emit codeFound(text); },
                Qt::QueuedConnection);
        },
        [this] { setActive(false); });
    sinceLastDecode_.invalidate();
    const QCameraDevice camera = QMediaDevices::defaultVideoInput();
    setDenied(!camera.isNull() && accessRefused(camera));
    setActive(!camera.isNull() && !denied_);
}

void QrScannerBridge::stop() {
    controller_.reset();
    setActive(false);
}

void QrScannerBridge::cameraFailed() {
    setActive(false);
}

bool QrScannerBridge::decodeImageFile(const QUrl& file) {
    const QImage image(file.isLocalFile() ? file.toLocalFile() : file.toString());
    return report(QrFrameDecoder::decode(image));
}

void QrScannerBridge::decodeFrame(const QVideoFrame& frame) {
    if (!controller_ || controller_->handled()) {
        return;
    }
    if (sinceLastDecode_.isValid() && sinceLastDecode_.elapsed() < minimumFrameInterval_) {
        return;
    }
    sinceLastDecode_.start();
    report(QrFrameDecoder::decode(frame));
}

bool QrScannerBridge::report(const std::vector<std::optional<std::string>>& codes) {
    return controller_ && controller_->codesFound(codes);
}

void QrScannerBridge::setActive(bool active) {
    if (active != active_) {
        active_ = active;
        emit activeChanged();
    }
}

void QrScannerBridge::setDenied(bool denied) {
    if (denied != denied_) {
        denied_ = denied;
        emit deniedChanged();
    }
}

}  // namespace velmorand::app
