#pragma once

#include <QAction>
#include <QMenu>
#include <QObject>
#include <QSystemTrayIcon>
#include <QTimer>
#include <memory>

#include "DesktopNotifications.h"
#include "velmorand/desktop/BroadcastControl.h"
#include "velmorand/extension/IndicatorModel.h"

namespace velmorand::indicator {

// The running broadcast in the desktop's status area: an icon while it runs (a ring around the
// dot while a viewer operates the screen), its state atop a menu that stops it, and notifications
// when it goes live and when a viewer first takes control. Without a status area the
// notifications carry the Stop. Once the broadcast has ended, takes its notifications back and
// quits.
class StatusIndicator : public QObject {
    Q_OBJECT

  public:
    static constexpr int kReadIntervalMs = 1000;

    explicit StatusIndicator(BroadcastControl control, QObject* parent = nullptr);

  private:
    void refresh();
    void stop();

    BroadcastControl control_;
    extension::IndicatorModel model_;
    DesktopNotifications notifications_;
    QMenu menu_;
    QAction* stateLine_ = nullptr;
    // Absent on a desktop without a status area.
    std::unique_ptr<QSystemTrayIcon> tray_;
    bool showsOperating_ = false;
    QTimer timer_;
};

}  // namespace velmorand::indicator
