#pragma once

#include <QObject>
#include <QString>
#include <QUrl>
#include <QVideoSink>
#include <filesystem>

namespace velmorand::app {
struct AppServices;
class QrScannerBridge;
}  // namespace velmorand::app

namespace velmorand::testing {

class HoldingProxy;

// What the QML test needs beyond the screen: the stores, the bundle's plug-ins, the service's
// pace, and a stand-in camera.
class AppTestSupport : public QObject {
    Q_OBJECT
    Q_PROPERTY(QUrl mainUrl READ mainUrl CONSTANT)
    Q_PROPERTY(QString demoKey READ demoKey CONSTANT)
    Q_PROPERTY(QString dataDir READ dataDir CONSTANT)
    Q_PROPERTY(QString bundleDir READ bundleDir CONSTANT)

  public:
    AppTestSupport(app::AppServices& services, app::QrScannerBridge& scanner, HoldingProxy& proxy,
                   std::filesystem::path dataDir, std::filesystem::path bundleDir,
                   std::filesystem::path scratchDir);

    QUrl mainUrl() const { return QUrl(QStringLiteral("qrc:/velmorand/qml/Main.qml")); }
    QString demoKey() const;
    QString dataDir() const { return QString::fromStdString(dataDir_.string()); }
    QString bundleDir() const { return QString::fromStdString(bundleDir_.string()); }

    Q_INVOKABLE void clearStore();
    // A stored field as text ("" when absent).
    Q_INVOKABLE QString stored(const QString& key) const;
    Q_INVOKABLE void holdService(bool holding);

    // An upload extension in the bundle, whose program records its arguments.
    Q_INVOKABLE void installExtension();
    Q_INVOKABLE void removeExtension();
    Q_INVOKABLE QString launchRecord() const;

    Q_INVOKABLE void writeExtensionLog(const QString& text);

    // Frames from a stand-in camera, fed straight into the scanner.
    Q_INVOKABLE void attachCamera();
    Q_INVOKABLE void showQrCode(const QString& text);
    Q_INVOKABLE void showNothing();
    Q_INVOKABLE QUrl writeQrImage(const QString& text);

  private:
    std::filesystem::path launchRecordFile() const { return scratchDir_ / "launched.txt"; }

    app::AppServices& services_;
    app::QrScannerBridge& scanner_;
    HoldingProxy& proxy_;
    std::filesystem::path dataDir_;
    std::filesystem::path bundleDir_;
    std::filesystem::path scratchDir_;
    QVideoSink camera_;
};

}  // namespace velmorand::testing
