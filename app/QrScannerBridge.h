#pragma once

#include <QElapsedTimer>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QUrl>
#include <QVideoSink>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "velmorand/ui/QrScanController.h"

namespace velmorand::app {

// The scanner sheet's camera side: decodes the frames of a video sink (and images the user
// opens) and hands the first usable code on once per opening of the sheet.
class QrScannerBridge : public QObject {
    Q_OBJECT
    Q_PROPERTY(QVideoSink* videoSink READ videoSink WRITE setVideoSink NOTIFY videoSinkChanged)
    Q_PROPERTY(bool active READ active NOTIFY activeChanged)
    Q_PROPERTY(bool denied READ denied NOTIFY deniedChanged)
    Q_PROPERTY(int minimumFrameInterval READ minimumFrameInterval WRITE setMinimumFrameInterval
                   NOTIFY minimumFrameIntervalChanged)

  public:
    explicit QrScannerBridge(QObject* parent = nullptr);

    QVideoSink* videoSink() const { return sink_; }
    void setVideoSink(QVideoSink* sink);
    // Whether the camera should run: the sheet is open, the camera usable, nothing delivered.
    bool active() const { return active_; }
    // Camera access is refused: the sheet shows its explanation instead of the preview. No
    // camera, or one that fails, is no refusal: the preview stays, black.
    bool denied() const { return denied_; }
    // Frames closer together than this (milliseconds) are skipped, to spare the GUI thread.
    int minimumFrameInterval() const { return minimumFrameInterval_; }
    void setMinimumFrameInterval(int milliseconds);

    // The sheet came on screen: a fresh session, and the camera looked for again.
    Q_INVOKABLE void start();
    // The sheet went away.
    Q_INVOKABLE void stop();
    // The camera reported an error: it stops, and the preview stays black.
    Q_INVOKABLE void cameraFailed();
    // Decodes a QR code from an image file under the same rules as camera frames; says whether
    // a code was delivered.
    Q_INVOKABLE bool decodeImageFile(const QUrl& file);

    void decodeFrame(const QVideoFrame& frame);

  signals:
    void videoSinkChanged();
    void activeChanged();
    void deniedChanged();
    void minimumFrameIntervalChanged();
    void codeFound(const QString& code);

  private:
    bool report(const std::vector<std::optional<std::string>>& codes);
    void setActive(bool active);
    void setDenied(bool denied);

    QPointer<QVideoSink> sink_;
    QMetaObject::Connection frames_;
    std::unique_ptr<QrScanController> controller_;
    bool active_ = false;
    bool denied_ = false;
    int minimumFrameInterval_ = 100;
    QElapsedTimer sinceLastDecode_;
};

}  // namespace velmorand::app
