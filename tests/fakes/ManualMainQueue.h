#pragma once

#include <algorithm>
#include <chrono>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include "velmorand/platform/MainQueue.h"

namespace velmorand::testing {

// A main queue driven by the test: nothing runs until the test says so, and time moves only
// when the test advances it. Background threads may post; timers and running stay on the test's
// thread.
class ManualMainQueue : public MainQueue {
  public:
    void post(Task task) override {
        std::lock_guard lock(mutex_);
        ready_.push_back(std::move(task));
    }

    std::shared_ptr<WorkItem> postAfter(Duration delay, Task task) override {
        auto item = std::make_shared<WorkItem>();
        timers_.push_back(Timer{now_ + delay.count(), nextSequence_++, item, std::move(task)});
        return item;
    }

    // Runs everything posted so far, and what that posts in turn.
    void runReady() {
        for (std::deque<Task> batch; true; batch.clear()) {
            std::unique_lock lock(mutex_);
            batch.swap(ready_);
            lock.unlock();
            if (batch.empty()) {
                return;
            }
            for (auto& task : batch) {
                task();
            }
        }
    }

    // Moves the clock forward, running ready work and every timer that falls due, in due order.
    void advance(Duration by) {
        const double until = now_ + by.count();
        runReady();
        while (true) {
            auto next = std::min_element(timers_.begin(), timers_.end(), [](auto& a, auto& b) {
                return a.due != b.due ? a.due < b.due : a.sequence < b.sequence;
            });
            if (next == timers_.end() || next->due > until) {
                break;
            }
            Timer timer = std::move(*next);
            timers_.erase(next);
            now_ = std::max(now_, timer.due);
            if (!timer.item->isCancelled()) {
                timer.task();
            }
            runReady();
        }
        now_ = until;
    }

  private:
    struct Timer {
        double due;
        unsigned long sequence;
        std::shared_ptr<WorkItem> item;
        Task task;
    };

    double now_ = 0;
    unsigned long nextSequence_ = 0;
    std::mutex mutex_;
    std::deque<Task> ready_;
    std::vector<Timer> timers_;
};

}  // namespace velmorand::testing
