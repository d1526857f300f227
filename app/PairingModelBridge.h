#pragma once

#include <QObject>
#include <QString>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "velmorand/pairing/PairingModel.h"

namespace velmorand::app {

// The pairing model's published fields and operations, for QML; plus the screen's access-key
// field, which the model's key operations read and fill.
class PairingModelBridge : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool paired READ paired NOTIFY pairedChanged)
    Q_PROPERTY(QString deviceName READ deviceName NOTIFY deviceNameChanged)
    Q_PROPERTY(QString pairedLabel READ pairedLabel NOTIFY deviceNameChanged)
    Q_PROPERTY(QString status READ status NOTIFY statusChanged)
    Q_PROPERTY(bool busy READ busy NOTIFY busyChanged)
    Q_PROPERTY(QString relayRegion READ relayRegion WRITE setRelayRegion NOTIFY relayRegionChanged)
    Q_PROPERTY(
        QString relayOverride READ relayOverride WRITE setRelayOverride NOTIFY relayOverrideChanged)
    Q_PROPERTY(QString relayProblem READ relayProblem NOTIFY relayProblemChanged)
    Q_PROPERTY(QString wdaStatus READ wdaStatus NOTIFY wdaStatusChanged)
    Q_PROPERTY(bool bridgeBusy READ bridgeBusy NOTIFY bridgeBusyChanged)
    Q_PROPERTY(QString key READ key WRITE setKey NOTIFY keyChanged)
    Q_PROPERTY(bool pairEnabled READ pairEnabled NOTIFY pairEnabledChanged)

  public:
    // `pairedRelay` reads the relay URL stored at pairing.
    PairingModelBridge(std::shared_ptr<PairingModel> model,
                       std::function<std::optional<std::string>()> pairedRelay,
                       QObject* parent = nullptr);

    bool paired() const { return model_->paired(); }
    QString deviceName() const;
    QString pairedLabel() const;
    QString status() const;
    bool busy() const { return model_->busy(); }
    QString relayRegion() const;
    void setRelayRegion(const QString& region);
    QString relayOverride() const;
    void setRelayOverride(const QString& relayOverride);
    // Empty when the relay the broadcast would use is fine.
    QString relayProblem() const;
    QString wdaStatus() const;
    bool bridgeBusy() const { return model_->bridgeBusy(); }
    QString key() const;
    void setKey(const QString& key);
    bool pairEnabled() const;

    Q_INVOKABLE void refresh();
    Q_INVOKABLE void saveRelay();
    Q_INVOKABLE void startWda();
    // Pairs with the key field as typed; the model trims it.
    Q_INVOKABLE void pair();
    Q_INVOKABLE void unpair();
    Q_INVOKABLE void copyPairURL();
    Q_INVOKABLE void applyScannedCode(const QString& code);
    Q_INVOKABLE void handleDeepLink(const QString& url);

  signals:
    void pairedChanged();
    void deviceNameChanged();
    void statusChanged();
    void busyChanged();
    void relayRegionChanged();
    void relayOverrideChanged();
    void relayProblemChanged();
    void wdaStatusChanged();
    void bridgeBusyChanged();
    void keyChanged();
    void pairEnabledChanged();

  private:
    void announce(PairingModel::Field field);
    void replaceKey(std::string key);

    std::shared_ptr<PairingModel> model_;
    std::function<std::optional<std::string>()> loadPairedRelay_;
    // Read again whenever the pairing changes.
    std::optional<std::string> pairedRelay_;
    std::string key_;
};

}  // namespace velmorand::app
