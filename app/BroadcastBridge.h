#pragma once

#include <QObject>
#include <QString>
#include <QStringList>
#include <QTimer>
#include <memory>
#include <optional>
#include <string>

#include "velmorand/desktop/BroadcastControl.h"
#include "velmorand/ui/MainScreen.h"

namespace velmorand {
class Bundle;
class GroupContainers;
class PairingModel;
}  // namespace velmorand

namespace velmorand::app {

// The broadcast section: the start button's identifier, title and state, its notes, the start
// itself, which runs the upload extension's program as a detached process — the desktop's
// system broadcast with that extension preselected — and the running broadcast, whoever started
// it: what it says of itself, and its stop.
class BroadcastBridge : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool enabled READ enabled NOTIFY changed)
    Q_PROPERTY(QString title READ title NOTIFY changed)
    Q_PROPERTY(QString extensionID READ extensionID NOTIFY changed)
    Q_PROPERTY(bool showsPairFirst READ showsPairFirst NOTIFY changed)
    Q_PROPERTY(bool showsStartHelp READ showsStartHelp NOTIFY changed)
    Q_PROPERTY(bool showsMissingExtension READ showsMissingExtension NOTIFY changed)
    Q_PROPERTY(bool running READ running NOTIFY stateChanged)
    Q_PROPERTY(QString stateText READ stateText NOTIFY stateChanged)

  public:
    // `extensionArguments` are handed to the extension's program: the locations this program
    // was given, so that both use the same stores and bundle.
    BroadcastBridge(std::shared_ptr<PairingModel> model, const Bundle& bundle,
                    const GroupContainers& containers, QStringList extensionArguments,
                    QObject* parent = nullptr);
    // How often the running broadcast's state is read again.
    static constexpr int kStatePollMs = 1000;
    // How often, and how many times, a stop is asked again of a broadcast that has not yet
    // recorded its id.
    static constexpr int kStopRetryMs = 100;
    static constexpr int kStopRetries = 100;

    bool enabled() const { return extensionID_.has_value(); }
    QString title() const;
    QString extensionID() const;
    bool showsPairFirst() const { return notes_.pairFirst; }
    bool showsStartHelp() const { return notes_.startHelp; }
    bool showsMissingExtension() const { return notes_.missingExtension; }
    bool running() const { return running_; }
    QString stateText() const { return stateText_; }

    // Looks the extension up again; the model's changes do this on their own.
    Q_INVOKABLE void update();
    // Does nothing without an identifier, or when there is no program to run.
    Q_INVOKABLE bool start(bool viewOnly);
    // Asks the running broadcast to stop; the state follows when it has.
    Q_INVOKABLE bool stop();
    // Reads the running broadcast's state again; the timer does this on its own.
    Q_INVOKABLE void readState();

  signals:
    void changed();
    void stateChanged();

  private:
    void retryStop();

    std::shared_ptr<PairingModel> model_;
    const Bundle& bundle_;
    QStringList extensionArguments_;
    std::optional<std::string> extensionID_;
    MainScreen::BroadcastNotes notes_;
    std::optional<BroadcastControl> control_;
    QTimer statePoll_;
    QTimer stopRetry_;
    int stopRetriesLeft_ = 0;
    bool running_ = false;
    QString stateText_;
};

}  // namespace velmorand::app
