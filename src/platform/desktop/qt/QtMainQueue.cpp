#include "velmorand/qt/QtMainQueue.h"

#include <QCoreApplication>
#include <QObject>
#include <QThread>
#include <QTimer>
#include <cassert>
#include <chrono>
#include <cmath>
#include <limits>
#include <utility>

namespace velmorand {

namespace {

std::chrono::milliseconds toMilliseconds(MainQueue::Duration delay) {
    // Rounded up so that work never runs before its delay has passed.
    const double ms = std::ceil(delay.count() * 1000.0);
    if (!(ms > 0)) {
        return std::chrono::milliseconds{0};
    }
    if (ms > static_cast<double>(std::numeric_limits<int>::max())) {
        return std::chrono::milliseconds{std::numeric_limits<int>::max()};
    }
    return std::chrono::milliseconds{static_cast<long long>(ms)};
}

void startTimer(QObject* context, std::chrono::milliseconds delay, std::shared_ptr<WorkItem> item,
                MainQueue::Task task) {
    QTimer::singleShot(delay, Qt::PreciseTimer, context,
                       [item = std::move(item), task = std::move(task)] {
                           if (!item->isCancelled()) {
                               task();
                           }
                       });
}

}  // namespace

QtMainQueue::QtMainQueue() : context_(std::make_unique<QObject>()) {
    assert(QCoreApplication::instance() != nullptr && isMainThread());
}

QtMainQueue::~QtMainQueue() = default;

bool QtMainQueue::isMainThread() {
    const auto* app = QCoreApplication::instance();
    return app != nullptr && QThread::currentThread() == app->thread();
}

void QtMainQueue::post(Task task) {
    QMetaObject::invokeMethod(context_.get(), std::move(task), Qt::QueuedConnection);
}

std::shared_ptr<WorkItem> QtMainQueue::postAfter(Duration delay, Task task) {
    auto item = std::make_shared<WorkItem>();
    const auto ms = toMilliseconds(delay);
    QObject* context = context_.get();
    if (isMainThread()) {
        startTimer(context, ms, item, std::move(task));
    } else {
        // A timer belongs to the thread that starts it, so it is started on the main thread.
        QMetaObject::invokeMethod(
            context,
            [context, ms, item, task = std::move(task)]() mutable {
                startTimer(context, ms, item, std::move(task));
            },
            Qt::QueuedConnection);
    }
    return item;
}

}  // namespace velmorand
