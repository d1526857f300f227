#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>

namespace velmorand {

// A scheduled piece of work that can be called off before it runs.
class WorkItem {
  public:
    void cancel() { cancelled_.store(true, std::memory_order_relaxed); }
    bool isCancelled() const { return cancelled_.load(std::memory_order_relaxed); }

  private:
    std::atomic<bool> cancelled_{false};
};

// The serial queue of the user-interface thread, where all model and client state lives.
// Both calls may be made from any thread; the work always runs on the main thread, in order.
class MainQueue {
  public:
    using Task = std::function<void()>;
    using Duration = std::chrono::duration<double>;

    virtual ~MainQueue() = default;

    virtual void post(Task task) = 0;
    // Runs `task` after `delay` unless the returned item was cancelled first.
    virtual std::shared_ptr<WorkItem> postAfter(Duration delay, Task task) = 0;
};

}  // namespace velmorand
