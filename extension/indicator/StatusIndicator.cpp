#include "StatusIndicator.h"

#include <QApplication>
#include <QIcon>
#include <QPainter>
#include <QPixmap>

namespace velmorand::indicator {
namespace {

// The recording dot; with a ring around it while a viewer operates the screen.
QIcon broadcastIcon(bool operating) {
    constexpr int kSize = 64;
    QPixmap pixmap(kSize, kSize);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    const QColor red(0xd1, 0x2c, 0x2c);
    if (operating) {
        painter.setPen(QPen(red, 6));
        painter.setBrush(Qt::NoBrush);
        painter.drawEllipse(QRectF(4, 4, kSize - 8, kSize - 8));
    }
    painter.setPen(Qt::NoPen);
    painter.setBrush(red);
    const qreal inset = operating ? 18 : 8;
    painter.drawEllipse(QRectF(inset, inset, kSize - 2 * inset, kSize - 2 * inset));
    return QIcon(pixmap);
}

}  // namespace

StatusIndicator::StatusIndicator(BroadcastControl control, QObject* parent)
    : QObject(parent), control_(std::move(control)), model_(BroadcastState::wallClockMs()) {
    stateLine_ = menu_.addAction(QString());
    stateLine_->setEnabled(false);
    menu_.addSeparator();
    connect(menu_.addAction(QStringLiteral("Stop Broadcast")), &QAction::triggered, this,
            &StatusIndicator::stop);
    connect(&notifications_, &DesktopNotifications::stopChosen, this, &StatusIndicator::stop);
    if (QSystemTrayIcon::isSystemTrayAvailable()) {
        tray_ = std::make_unique<QSystemTrayIcon>(broadcastIcon(false));
        tray_->setContextMenu(&menu_);
        // A click where the desktop shows no menu by itself: the state and the Stop, all the same.
        connect(tray_.get(), &QSystemTrayIcon::activated, this,
                [this] { menu_.popup(QCursor::pos()); });
    }
    timer_.setInterval(kReadIntervalMs);
    connect(&timer_, &QTimer::timeout, this, &StatusIndicator::refresh);
    timer_.start();
    refresh();
}

void StatusIndicator::refresh() {
    const auto view = model_.next(BroadcastSighting::of(control_.runningPid(), control_.stateText(),
                                                        BroadcastState::wallClockMs()),
                                  BroadcastState::wallClockMs());
    if (view.ended) {
        timer_.stop();
        notifications_.closeAll();
        QApplication::quit();
        return;
    }
    const auto tooltip = QString::fromStdString(view.tooltip);
    stateLine_->setText(tooltip);
    if (tray_) {
        tray_->setToolTip(tooltip);
        if (view.operating != showsOperating_) {
            tray_->setIcon(broadcastIcon(view.operating));
        }
        tray_->show();
    }
    showsOperating_ = view.operating;
    for (const auto& notice : view.notices) {
        notifications_.show(QString::fromStdString(notice.summary),
                            QString::fromStdString(notice.body), !tray_);
    }
}

void StatusIndicator::stop() {
    control_.requestStop();
    refresh();
}

}  // namespace velmorand::indicator
