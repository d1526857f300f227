#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include "ManualMainQueue.h"
#include "velmorand/platform/MainQueue.h"

namespace velmorand::testing {

// A main queue that background threads may post to: posted work waits until the test thread runs
// it; delayed work runs on ManualMainQueue's clock (scheduled from the test thread only).
class ThreadedMainQueue : public MainQueue {
  public:
    void post(Task task) override {
        // Notified under the lock: once the test thread sees the task, the poster no longer
        // touches this queue, which the test may then destroy.
        std::lock_guard lock(mutex_);
        inbox_.push_back(std::move(task));
        posted_.notify_all();
    }

    std::shared_ptr<WorkItem> postAfter(Duration delay, Task task) override {
        return clock_.postAfter(delay, [this, task = std::move(task)] {
            task();
            runReady();
        });
    }

    // Runs everything posted so far, and what that posts in turn.
    void runReady() {
        while (true) {
            std::deque<Task> batch;
            std::unique_lock lock(mutex_);
            batch.swap(inbox_);
            lock.unlock();
            if (batch.empty()) {
                return;
            }
            for (auto& task : batch) {
                task();
            }
        }
    }

    // Waits for background work to post something, then runs it. False when nothing came.
    bool waitAndRun() {
        std::unique_lock lock(mutex_);
        if (!posted_.wait_for(lock, std::chrono::seconds(20), [&] { return !inbox_.empty(); })) {
            return false;
        }
        lock.unlock();
        runReady();
        return true;
    }

    void advance(Duration by) {
        runReady();
        clock_.advance(by);
    }

    std::vector<double> pendingDelays() const { return clock_.pendingDelays(); }

  private:
    ManualMainQueue clock_;
    std::mutex mutex_;
    std::condition_variable posted_;
    std::deque<Task> inbox_;
};

}  // namespace velmorand::testing
