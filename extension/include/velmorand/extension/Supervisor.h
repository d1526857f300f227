#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace velmorand {
class Log;
}

namespace velmorand::extension {

// Keeps a broadcast going when it dies of a signal (a crash, or the deliberate stop on a frame
// rate no integer can hold): the broadcast runs in a child process, started again after a pause
// that doubles from 1 s up to 30 s and falls back to 1 s after a minute of good running. A clean
// exit, whatever its status, ends the supervision with that status: the broadcast stopped for a
// reason a restart would not mend. SIGINT and SIGTERM are passed on to the child, and end both.
class Supervisor {
  public:
    static constexpr std::chrono::seconds kFirstDelay{1};
    static constexpr std::chrono::seconds kLongestDelay{30};
    static constexpr std::chrono::seconds kGoodRun{60};

    // The pause before the next start, after a run that lasted `ran` and died.
    std::chrono::seconds delayAfter(std::chrono::steady_clock::duration ran);

    // Runs `broadcast` in a child process until it ends without a signal, and returns its exit
    // status; `restarting` hears why, each time it is started again. Call it before any thread
    // exists, with SIGINT and SIGTERM blocked.
    int run(Log& log, const std::function<int()>& broadcast,
            const std::function<void(const std::string& why)>& restarting = {});

  private:
    std::chrono::seconds delay_ = kFirstDelay;
};

}  // namespace velmorand::extension
