#pragma once

#include <QDBusConnection>
#include <QDBusMessage>
#include <QObject>
#include <QStringList>
#include <QVariantMap>
#include <string>
#include <vector>

namespace velmorand::testing {

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

    // On the bus at `address`.
    explicit FakeNotifications(const std::string& address)
        : bus_(QDBusConnection::connectToBus(QString::fromStdString(address), kName)) {}
    ~FakeNotifications() override { QDBusConnection::disconnectFromBus(kName); }

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
    static inline const QString kName = QStringLiteral("velmorand-test-session");
    static inline const QString kPath = QStringLiteral("/org/freedesktop/Notifications");
    QDBusConnection bus_;
    std::vector<Notice> notices_;
    std::vector<uint> closed_;
    uint lastId_ = 40;
};

}  // namespace velmorand::testing
