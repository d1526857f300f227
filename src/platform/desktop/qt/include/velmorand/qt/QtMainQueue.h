#pragma once

#include <memory>

#include "velmorand/platform/MainQueue.h"

class QObject;

namespace velmorand {

// The main queue on Qt's event loop: work runs on the thread of the QCoreApplication.
// Construct and destroy it on that thread; work still queued at destruction is dropped.
class QtMainQueue : public MainQueue {
  public:
    QtMainQueue();
    ~QtMainQueue() override;
    QtMainQueue(const QtMainQueue&) = delete;
    QtMainQueue& operator=(const QtMainQueue&) = delete;

    void post(Task task) override;
    std::shared_ptr<WorkItem> postAfter(Duration delay, Task task) override;

    // Whether the calling thread is the one the work runs on.
    static bool isMainThread();

  private:
    std::unique_ptr<QObject> context_;
};

}  // namespace velmorand
