#pragma once

#include <QDBusConnection>
#include <QDBusMessage>
#include <QObject>
#include <QProcess>
#include <QStringList>
#include <QVariantMap>
#include <string>
#include <vector>

namespace velmorand::testing {

// A session bus of the test's own, so that nothing reaches the desktop the tests run on.
class PrivateSessionBus {
  public:
    PrivateSessionBus() {
        daemon_.start(QStringLiteral("dbus-daemon"),
                      {QStringLiteral("--session"), QStringLiteral("--nofork"),
                       QStringLiteral("--print-address=1")});
        if (daemon_.waitForStarted(5000) && daemon_.waitForReadyRead(5000)) {
            address_ = QString::fromUtf8(daemon_.readLine()).trimmed();
        }
    }
    ~PrivateSessionBus() {
        QDBusConnection::disconnectFromBus(kName);
        daemon_.kill();
        daemon_.waitForFinished(5000);
    }
    PrivateSessionBus(const PrivateSessionBus&) = delete;
    PrivateSessionBus& operator=(const PrivateSessionBus&) = delete;

    // Empty when dbus-daemon did not start.
    const QString& address() const { return address_; }
    QDBusConnection connection() const { return QDBusConnection::connectToBus(address_, kName); }

  private:
    static inline const QString kName = QStringLiteral("velmorand-test-session");
    QProcess daemon_;
    QString address_;
};

// The desktop's notification server, as far as the indicator uses it: records what it is asked
// to show, and sends the person's choice of an action.
class FakeNotifications : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")

  public:
    struct Notice {
        uint id = 0;
        QString summary;
        QString body;
        QStringList actions;
        int timeout = 0;
    };

    explicit FakeNotifications(QDBusConnection bus) : bus_(std::move(bus)) {}

    bool serve() {
        return bus_.registerObject(kPath, this, QDBusConnection::ExportAllSlots) &&
               bus_.registerService(QStringLiteral("org.freedesktop.Notifications"));
    }

    const std::vector<Notice>& notices() const { return notices_; }
    const std::vector<uint>& closed() const { return closed_; }

    void choose(uint id, const QString& action) {
        auto signal =
            QDBusMessage::createSignal(kPath, QStringLiteral("org.freedesktop.Notifications"),
                                       QStringLiteral("ActionInvoked"));
        signal << id << action;
        bus_.send(signal);
    }

  public slots:
    uint Notify(const QString& /*appName*/, uint /*replacesId*/, const QString& /*icon*/,
                const QString& summary, const QString& body, const QStringList& actions,
                const QVariantMap& /*hints*/, int timeout) {
        notices_.push_back({++lastId_, summary, body, actions, timeout});
        return lastId_;
    }
    void CloseNotification(uint id) { closed_.push_back(id); }
    QStringList GetCapabilities() const {
        return {QStringLiteral("actions"), QStringLiteral("body")};
    }

  private:
    static inline const QString kPath = QStringLiteral("/org/freedesktop/Notifications");
    QDBusConnection bus_;
    std::vector<Notice> notices_;
    std::vector<uint> closed_;
    uint lastId_ = 40;
};

}  // namespace velmorand::testing
