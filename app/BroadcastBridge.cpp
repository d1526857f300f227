#include "BroadcastBridge.h"

#include <QPointer>
#include <QProcess>

#include "velmorand/config/AppGroup.h"
#include "velmorand/config/BroadcastState.h"
#include "velmorand/pairing/PairingModel.h"
#include "velmorand/platform/Bundle.h"
#include "velmorand/ui/BroadcastExtension.h"

namespace velmorand::app {

BroadcastBridge::BroadcastBridge(std::shared_ptr<PairingModel> model, const Bundle& bundle,
                                 const GroupContainers& containers, QStringList extensionArguments,
                                 QObject* parent)
    : QObject(parent),
      model_(std::move(model)),
      bundle_(bundle),
      extensionArguments_(std::move(extensionArguments)) {
    if (const auto container = containers.containerDirectory(kAppGroupName)) {
        control_.emplace(*container);
    }
    statePoll_.setInterval(kStatePollMs);
    connect(&statePoll_, &QTimer::timeout, this, &BroadcastBridge::readState);
    statePoll_.start();
    stopRetry_.setInterval(kStopRetryMs);
    connect(&stopRetry_, &QTimer::timeout, this, &BroadcastBridge::retryStop);
    readState();
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

bool BroadcastBridge::start(bool viewOnly) {
    if (!extensionID_) {
        return false;
    }
    const auto program = BroadcastExtension::executable(bundle_);
    if (!program) {
        return false;
    }
    auto arguments = extensionArguments_;
    if (viewOnly) {
        arguments << QStringLiteral("--view-only");
    }
    const bool started =
        QProcess::startDetached(QString::fromStdString(program->string()), arguments);
    readState();
    return started;
}

bool BroadcastBridge::stop() {
    stopRetry_.stop();
    if (!control_) {
        return false;
    }
    bool asked = control_->requestStop().has_value();
    // A broadcast that has just started may hold its lock before it has recorded its id: the
    // stop is asked again until it has, rather than lost.
    if (!asked && control_->runningPid()) {
        stopRetriesLeft_ = kStopRetries;
        stopRetry_.start();
        asked = true;
    }
    readState();
    return asked;
}

void BroadcastBridge::retryStop() {
    const auto pid = control_->runningPid();
    if (pid == 0 && --stopRetriesLeft_ > 0) {
        return;
    }
    stopRetry_.stop();
    if (pid && *pid > 0) {
        control_->requestStop();
    }
    readState();
}

void BroadcastBridge::readState() {
    const auto seen = BroadcastSighting::of(control_ ? control_->runningPid() : std::nullopt,
                                            control_ ? control_->stateText() : std::nullopt,
                                            BroadcastState::wallClockMs());
    const auto stateText = QString::fromStdString(seen.summary);
    if (seen.running == running_ && stateText == stateText_) {
        return;
    }
    running_ = seen.running;
    stateText_ = stateText;
    emit stateChanged();
}

}  // namespace velmorand::app
