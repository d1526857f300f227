#include "DesktopNotifications.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QStringList>
#include <QVariantMap>
#include <utility>

namespace velmorand::indicator {
namespace {

const QString kService = QStringLiteral("org.freedesktop.Notifications");
const QString kPath = QStringLiteral("/org/freedesktop/Notifications");
const QString kInterface = QStringLiteral("org.freedesktop.Notifications");
const QString kStopAction = QStringLiteral("stop");
constexpr int kCallTimeoutMs = 5000;
constexpr int kCloseTimeoutMs = 1000;
// Servers that show everything somewhere keep these; one that forgets is shown again by nobody.
constexpr int kServerDefaultTimeout = -1;
constexpr int kNeverExpires = 0;

}  // namespace

DesktopNotifications::DesktopNotifications(QObject* parent) : QObject(parent) {
    QDBusConnection::sessionBus().connect(kService, kPath, kInterface,
                                          QStringLiteral("ActionInvoked"), this,
                                          SLOT(onActionInvoked(uint, QString)));
}

void DesktopNotifications::show(const QString& summary, const QString& body, bool withStop) {
    auto message =
        QDBusMessage::createMethodCall(kService, kPath, kInterface, QStringLiteral("Notify"));
    const QStringList actions =
        withStop ? QStringList{kStopAction, QStringLiteral("Stop Broadcast")} : QStringList{};
    QVariantMap hints;
    hints.insert(QStringLiteral("desktop-entry"), QStringLiteral("velmorand-connect"));
    message << QStringLiteral("Velmorand Connect") << uint(0) << QStringLiteral("media-record")
            << summary << body << actions << hints
            << (withStop ? kNeverExpires : kServerDefaultTimeout);
    auto* watcher = new QDBusPendingCallWatcher(
        QDBusConnection::sessionBus().asyncCall(message, kCallTimeoutMs), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [this](QDBusPendingCallWatcher* call) {
                const QDBusPendingReply<uint> reply = *call;
                if (reply.isValid()) {
                    ours_.insert(reply.value());
                }
                call->deleteLater();
            });
}

void DesktopNotifications::closeAll() {
    for (const uint id : std::as_const(ours_)) {
        auto message = QDBusMessage::createMethodCall(kService, kPath, kInterface,
                                                      QStringLiteral("CloseNotification"));
        message << id;
        QDBusConnection::sessionBus().call(message, QDBus::Block, kCloseTimeoutMs);
    }
    ours_.clear();
}

void DesktopNotifications::onActionInvoked(uint id, const QString& action) {
    if (action == kStopAction && ours_.contains(id)) {
        emit stopChosen();
    }
}

}  // namespace velmorand::indicator
