#pragma once

#include <functional>
#include <memory>

class QSocketNotifier;

namespace velmorand::cli {

// Hands SIGINT and SIGTERM to `onSignal` on the event loop's thread: the handler only writes the
// signal's number into a pipe that the loop watches. One instance at a time; create it after the
// QCoreApplication. The previous handlers come back on destruction.
class SignalQuit {
  public:
    explicit SignalQuit(std::function<void(int signal)> onSignal);
    ~SignalQuit();
    SignalQuit(const SignalQuit&) = delete;
    SignalQuit& operator=(const SignalQuit&) = delete;

  private:
    std::function<void(int signal)> onSignal_;
    std::unique_ptr<QSocketNotifier> notifier_;
};

}  // namespace velmorand::cli
