#include "SignalQuit.h"

#include <fcntl.h>
#include <unistd.h>

#include <QSocketNotifier>
#include <array>
#include <cassert>
#include <cerrno>
#include <csignal>
#include <cstdlib>

namespace velmorand::cli {
namespace {

constexpr std::array kSignals = {SIGINT, SIGTERM};

// Read end, write end; -1 while no instance exists.
int pipeEnds[2] = {-1, -1};
struct sigaction previous[kSignals.size()];

extern "C" void handleSignal(int number) {
    const int saved = errno;
    const auto byte = static_cast<unsigned char>(number);
    // A full pipe already holds a wake-up; nothing else is safe to do here.
    [[maybe_unused]] const auto written = ::write(pipeEnds[1], &byte, 1);
    errno = saved;
}

}  // namespace

SignalQuit::SignalQuit(std::function<void(int signal)> onSignal) : onSignal_(std::move(onSignal)) {
    assert(pipeEnds[0] < 0);
    if (::pipe2(pipeEnds, O_CLOEXEC | O_NONBLOCK) != 0) {
        std::abort();
    }
    notifier_ = std::make_unique<QSocketNotifier>(pipeEnds[0], QSocketNotifier::Read);
    QObject::connect(notifier_.get(), &QSocketNotifier::activated, notifier_.get(), [this] {
        unsigned char byte = 0;
        while (::read(pipeEnds[0], &byte, 1) == 1) {
            if (onSignal_) {
                onSignal_(byte);
            }
        }
    });
    struct sigaction action {};
    action.sa_handler = &handleSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (std::size_t i = 0; i < kSignals.size(); ++i) {
        sigaction(kSignals[i], &action, &previous[i]);
    }
}

SignalQuit::~SignalQuit() {
    for (std::size_t i = 0; i < kSignals.size(); ++i) {
        sigaction(kSignals[i], &previous[i], nullptr);
    }
    notifier_.reset();
    ::close(pipeEnds[0]);
    ::close(pipeEnds[1]);
    pipeEnds[0] = pipeEnds[1] = -1;
}

}  // namespace velmorand::cli
