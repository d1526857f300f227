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
    // Takes ours off the screen, waiting a moment for the server: for the end of the broadcast,
    // after which they would tell of a broadcast that is gone and offer a Stop that does nothing.
    void closeAll();

  signals:
    void stopChosen();

  private slots:
    void onActionInvoked(uint id, const QString& action);

  private:
    // The ids the server gave our notifications: another program's actions are not ours.
    QSet<uint> ours_;
};

}  // namespace velmorand::indicator
