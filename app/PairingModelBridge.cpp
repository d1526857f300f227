#include "PairingModelBridge.h"

#include <QPointer>

#include "velmorand/ui/MainScreen.h"

namespace velmorand::app {
namespace {

QString qt(const std::string& text) {
    return QString::fromStdString(text);
}

}  // namespace

PairingModelBridge::PairingModelBridge(std::shared_ptr<PairingModel> model,
                                       std::function<std::optional<std::string>()> pairedRelay,
                                       QObject* parent)
    : QObject(parent),
      model_(std::move(model)),
      loadPairedRelay_(std::move(pairedRelay)),
      pairedRelay_(loadPairedRelay_()) {
    // The model announces a change before making it: emit once the event loop has come round,
    // when QML reads the new value.
    model_->addObserver([self = QPointer(this)](PairingModel::Field field) {
        if (!self) {
            return;
        }
        QMetaObject::invokeMethod(
            self.data(),
            [self, field] {
                if (self) {
                    self->announce(field);
                }
            },
            Qt::QueuedConnection);
    });
}

void PairingModelBridge::announce(PairingModel::Field field) {
    using Field = PairingModel::Field;
    switch (field) {
        case Field::paired:
            pairedRelay_ = loadPairedRelay_();
            emit pairedChanged();
            emit relayProblemChanged();
            break;
        case Field::deviceName:
            emit deviceNameChanged();
            break;
        case Field::status:
            emit statusChanged();
            break;
        case Field::busy:
            emit busyChanged();
            emit pairEnabledChanged();
            break;
        case Field::relayRegion:
            emit relayRegionChanged();
            break;
        case Field::relayOverride:
            emit relayOverrideChanged();
            emit relayProblemChanged();
            break;
        case Field::wdaStatus:
            emit wdaStatusChanged();
            break;
        case Field::bridgeBusy:
            emit bridgeBusyChanged();
            break;
        case Field::bridgeUrl:
            break;
    }
}

QString PairingModelBridge::deviceName() const {
    return qt(model_->deviceName());
}

QString PairingModelBridge::pairedLabel() const {
    return qt(MainScreen::pairedLabel(model_->deviceName()));
}

QString PairingModelBridge::status() const {
    return qt(model_->status());
}

QString PairingModelBridge::relayRegion() const {
    return qt(model_->relayRegion());
}

void PairingModelBridge::setRelayRegion(const QString& region) {
    model_->setRelayRegion(region.toStdString());
}

QString PairingModelBridge::relayOverride() const {
    return qt(model_->relayOverride());
}

void PairingModelBridge::setRelayOverride(const QString& relayOverride) {
    model_->setRelayOverride(relayOverride.toStdString());
}

QString PairingModelBridge::relayProblem() const {
    return qt(MainScreen::relayProblem(model_->relayOverride(), pairedRelay_).value_or(""));
}

QString PairingModelBridge::wdaStatus() const {
    return qt(model_->wdaStatus());
}

QString PairingModelBridge::key() const {
    return qt(key_);
}

void PairingModelBridge::setKey(const QString& key) {
    replaceKey(key.toStdString());
}

void PairingModelBridge::replaceKey(std::string key) {
    if (key == key_) {
        return;
    }
    key_ = std::move(key);
    emit keyChanged();
    emit pairEnabledChanged();
}

bool PairingModelBridge::pairEnabled() const {
    return MainScreen::pairEnabled(key_, model_->busy());
}

void PairingModelBridge::refresh() {
    model_->refresh();
}

void PairingModelBridge::saveRelay() {
    model_->saveRelay();
}

void PairingModelBridge::startWda() {
    model_->startWda();
}

void PairingModelBridge::pair() {
    model_->pair(key_);
}

void PairingModelBridge::unpair() {
    model_->unpair();
}

void PairingModelBridge::copyPairURL() {
    model_->copyPairURL(key_);
}

void PairingModelBridge::applyScannedCode(const QString& code) {
    auto key = key_;
    model_->applyScannedCode(key, code.toStdString());
    replaceKey(std::move(key));
}

void PairingModelBridge::handleDeepLink(const QString& url) {
    model_->handleDeepLink(url.toStdString());
}

}  // namespace velmorand::app
