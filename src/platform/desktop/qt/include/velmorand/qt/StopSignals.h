#pragma once

#include <functional>
#include <memory>

class QSocketNotifier;

namespace velmorand {

// Hands SIGINT and SIGTERM to `onSignal` on the event loop of the thread that creates it, read
// from a signalfd: no signal handler runs at all, so nothing is restricted to async-signal-safe
// calls and no thread can be interrupted. This works only if block() ran first, before any thread
// starts (first thing in main(), or in a command before it builds anything that starts one: Qt's,
// the HTTP client's, the sockets'): each thread inherits the mask of its creator, and a thread
// that does not block the signals takes them with their default action, ending the process. A
// signal that came between block() and the constructor is delivered as soon as the event loop runs.
class StopSignals {
  public:
    // Blocks SIGINT and SIGTERM in the calling thread and every thread it starts from now on.
    static void block();

    // Create it after the QCoreApplication, on a thread that blocked the signals.
    explicit StopSignals(std::function<void(int signal)> onSignal);
    ~StopSignals();
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

  private:
    std::function<void(int signal)> onSignal_;
    int descriptor_ = -1;
    std::unique_ptr<QSocketNotifier> notifier_;
};

}  // namespace velmorand
