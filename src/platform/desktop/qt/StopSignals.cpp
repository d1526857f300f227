#include "velmorand/qt/StopSignals.h"

#include <pthread.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <QSocketNotifier>
#include <cassert>
#include <csignal>
#include <cstdlib>

namespace velmorand {
namespace {

sigset_t stopSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

[[maybe_unused]] bool blockedHere() {
    sigset_t current;
    pthread_sigmask(SIG_SETMASK, nullptr, &current);
    return sigismember(&current, SIGINT) == 1 && sigismember(&current, SIGTERM) == 1;
}

}  // namespace

void StopSignals::block() {
    const sigset_t set = stopSignals();
    if (pthread_sigmask(SIG_BLOCK, &set, nullptr) != 0) {
        std::abort();
    }
}

StopSignals::StopSignals(std::function<void(int signal)> onSignal)
    : onSignal_(std::move(onSignal)) {
    // Unblocked, the signals would never reach the descriptor.
    assert(blockedHere());
    const sigset_t set = stopSignals();
    descriptor_ = ::signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
    if (descriptor_ < 0) {
        std::abort();
    }
    notifier_ = std::make_unique<QSocketNotifier>(descriptor_, QSocketNotifier::Read);
    QObject::connect(notifier_.get(), &QSocketNotifier::activated, notifier_.get(), [this] {
        signalfd_siginfo info{};
        while (::read(descriptor_, &info, sizeof info) == sizeof info) {
            if (onSignal_) {
                onSignal_(static_cast<int>(info.ssi_signo));
            }
        }
    });
}

StopSignals::~StopSignals() {
    notifier_.reset();
    ::close(descriptor_);
}

}  // namespace velmorand
