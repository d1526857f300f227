#include "BroadcastBridge.h"

#include <QPointer>
#include <QProcess>

#include "velmorand/pairing/PairingModel.h"
#include "velmorand/ui/BroadcastExtension.h"

namespace velmorand::app {

BroadcastBridge::BroadcastBridge(std::shared_ptr<PairingModel> model, const Bundle& bundle,
                                 QStringList extensionArguments, QObject* parent)
    : QObject(parent),
      model_(std::move(model)),
      bundle_(bundle),
      extensionArguments_(std::move(extensionArguments)) {
    model_->addObserver([self = QPointer(this)](PairingModel::Field field) {
        if (!self || field != PairingModel::Field::paired) {
            return;
        }
        QMetaObject::invokeMethod(
            self.data(),
            [self] {
                if (self) {
                    self->update();
                }
            },
            Qt::QueuedConnection);
    });
    update();
}

QString BroadcastBridge::title() const {
    const auto title = MainScreen::broadcastTitle(extensionID_);
    return QString::fromUtf8(title.data(), static_cast<qsizetype>(title.size()));
}

QString BroadcastBridge::extensionID() const {
    return extensionID_ ? QString::fromStdString(*extensionID_) : QString();
}

void BroadcastBridge::update() {
    const auto found = BroadcastExtension::bundleIdentifier(bundle_);
    const bool paired = model_->paired();
    extensionID_ = MainScreen::broadcastIdentifier(
        paired, found, paired && found ? model_->broadcastExtensionID() : std::string());
    notes_ = MainScreen::broadcastNotes(paired, found.has_value());
    emit changed();
}

bool BroadcastBridge::start() {
    if (!extensionID_) {
        return false;
    }
    const auto program = BroadcastExtension::executable(bundle_);
    if (!program) {
        return false;
    }
    return QProcess::startDetached(QString::fromStdString(program->string()), extensionArguments_);
}

}  // namespace velmorand::app
