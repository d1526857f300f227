#pragma once

#include <QObject>
#include <QSet>
#include <QString>

namespace velmorand::indicator {

// The desktop's notifications (org.freedesktop.Notifications on the session bus): shows one,
// with a Stop action when asked, and tells when the person chose Stop on one of ours. Calls never
// wait: a notification server that does not answer delays nothing.
class DesktopNotifications : public QObject {
    Q_OBJECT

  public:
    explicit DesktopNotifications(QObject* parent = nullptr);

    // `withStop`: the notification stays until answered and carries "Stop Broadcast".
    void show(const QString& summary, const QString& body, bool withStop);

  signals:
    void stopChosen();

  private slots:
    void onActionInvoked(uint id, const QString& action);

  private:
    // The ids the server gave our notifications: another program's actions are not ours.
    QSet<uint> ours_;
};

}  // namespace velmorand::indicator
