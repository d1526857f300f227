#include "velmorand/extension/Supervisor.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include "velmorand/platform/Log.h"

namespace velmorand::extension {
namespace {

using Clock = std::chrono::steady_clock;

// A child asked to stop gets this long before it is killed.
constexpr std::chrono::seconds kStopGrace{5};

sigset_t watchedSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGCHLD);
    return set;
}

// The next of the watched signals, or 0 once `deadline` has passed.
int nextSignal(const sigset_t& set, Clock::time_point deadline) {
    while (true) {
        const auto left = deadline - Clock::now();
        if (left <= Clock::duration::zero()) {
            return 0;
        }
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
        const timespec wait{static_cast<time_t>(seconds.count()),
                            static_cast<long>((left - seconds) / std::chrono::nanoseconds(1))};
        const int signal = ::sigtimedwait(&set, nullptr, &wait);
        if (signal > 0) {
            return signal;
        }
        if (errno != EAGAIN && errno != EINTR) {
            std::abort();
        }
    }
}

std::string secondsText(Clock::duration duration) {
    const auto tenths =
        std::chrono::duration_cast<std::chrono::milliseconds>(duration).count() / 100;
    return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + " s";
}

// The child's status once it has ended; absent while it runs.
std::optional<int> reap(pid_t child) {
    int status = 0;
    pid_t result = 0;
    do {
        result = ::waitpid(child, &status, WNOHANG);
    } while (result < 0 && errno == EINTR);
    return result == child ? std::optional<int>(status) : std::nullopt;
}

// Asks the child to stop as `signal` asked us, and waits for it, killing it if it lingers.
int stopChild(pid_t child, int signal, const sigset_t& set) {
    ::kill(child, signal);
    const auto deadline = Clock::now() + kStopGrace;
    while (true) {
        if (const auto status = reap(child)) {
            return WIFEXITED(*status) ? WEXITSTATUS(*status) : 0;
        }
        if (nextSignal(set, deadline) == 0) {
            ::kill(child, SIGKILL);
            ::waitpid(child, nullptr, 0);
            return 0;
        }
    }
}

}  // namespace

std::chrono::seconds Supervisor::delayAfter(Clock::duration ran) {
    if (ran >= kGoodRun) {
        delay_ = kFirstDelay;
    }
    const auto delay = delay_;
    delay_ = std::min(kLongestDelay, delay_ * 2);
    return delay;
}

int Supervisor::run(Log& log, const std::function<int()>& broadcast,
                    const std::function<void(const std::string& why)>& restarting) {
    const sigset_t set = watchedSignals();
    // Blocked, so that the loop below takes it in turn with the stop signals.
    sigset_t childSignal;
    sigemptyset(&childSignal);
    sigaddset(&childSignal, SIGCHLD);
    ::sigprocmask(SIG_BLOCK, &childSignal, nullptr);

    const pid_t supervisor = ::getpid();
    while (true) {
        const auto started = Clock::now();
        const pid_t child = ::fork();
        if (child < 0) {
            log.write(std::string("cannot start the broadcast: ") + std::strerror(errno));
            return 1;
        }
        if (child == 0) {
            // A broadcast nobody supervises is one nobody can stop: it ends with its supervisor
            // (killed, say), as if told to stop, and at once when that has already happened.
            ::prctl(PR_SET_PDEATHSIG, SIGTERM);
            if (::getppid() != supervisor) {
                std::_Exit(1);
            }
            // The broadcast starts processes of its own and must hear of their ends.
            ::sigprocmask(SIG_UNBLOCK, &childSignal, nullptr);
            std::exit(broadcast());
        }
        std::optional<int> status;
        while (!status) {
            const int signal = nextSignal(set, Clock::time_point::max());
            if (signal == SIGINT || signal == SIGTERM) {
                return stopChild(child, signal, set);
            }
            status = reap(child);
        }
        if (!WIFSIGNALED(*status)) {
            return WEXITSTATUS(*status);
        }
        const auto ran = Clock::now() - started;
        const auto delay = delayAfter(ran);
        const std::string why = "the broadcast died of signal " +
                                std::to_string(WTERMSIG(*status)) + " (" +
                                ::strsignal(WTERMSIG(*status)) + ") after " + secondsText(ran) +
                                " — starting it again in " + std::to_string(delay.count()) + " s";
        log.write(why);
        if (restarting) {
            restarting(why);
        }
        const auto resume = Clock::now() + delay;
        for (int signal = 0; (signal = nextSignal(set, resume)) != 0;) {
            if (signal == SIGINT || signal == SIGTERM) {
                return 0;
            }
        }
    }
}

}  // namespace velmorand::extension
