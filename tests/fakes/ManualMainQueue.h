#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
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
        // Notified under the lock: once the test thread sees the task, the poster no longer
        // touches this queue, which the test may then destroy.
        std::lock_guard lock(mutex_);
        ready_.push_back(std::move(task));
        posted_.notify_all();
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

    // Waits for background work to post something, then runs it. False when nothing came.
    bool waitAndRun() {
        std::unique_lock lock(mutex_);
        if (!posted_.wait_for(lock, std::chrono::seconds(20), [&] { return !ready_.empty(); })) {
            return false;
        }
        lock.unlock();
        runReady();
        return true;
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

    // Delays, in seconds from now, of the timers that are still live.
    std::vector<double> pendingDelays() const {
        std::vector<double> delays;
        for (const auto& timer : timers_) {
            if (!timer.item->isCancelled()) {
                delays.push_back(timer.due - now_);
            }
        }
        return delays;
    }

    double now() const { return now_; }

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
    std::condition_variable posted_;
    std::deque<Task> ready_;
    std::vector<Timer> timers_;
};

}  // namespace velmorand::testing
