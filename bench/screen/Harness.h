#pragma once

// What every mode of the stream bench stands on: clocks, /proc readings, child processes that
// cannot outlive the bench, and an event loop that a stop signal unwinds.

#include <QProcess>
#include <QString>
#include <QStringList>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

namespace velmorand::bench {

// The bench's own machinery failed: exit status 2, whatever was measured.
struct HarnessFailure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// SIGINT, SIGTERM or SIGHUP reached the bench: everything unwinds and the children go with it.
struct Interrupted : std::runtime_error {
    Interrupted() : std::runtime_error("interrupted") {}
};

using SteadyClock = std::chrono::steady_clock;

std::uint64_t realtimeUs();
double secondsSince(SteadyClock::time_point start);

// Routes the stop signals into the event loop. Call once, after the QCoreApplication exists.
void installStopSignals();
bool stopRequested();
// Throws Interrupted once a stop signal came.
void checkInterrupted();

// Runs the event loop until `done` holds (true) or `limit` passes (false). Sleeps between events.
bool pumpUntil(const std::function<bool()>& done, std::chrono::milliseconds limit);
// Runs the event loop for `duration`.
void pumpFor(std::chrono::milliseconds duration);

// User plus system CPU time so far of a process and every process below it, in seconds: the
// extension's supervisor runs the broadcast in a child, which starts the indicator. Nothing once
// the process is gone.
std::optional<double> cpuSeconds(std::int64_t pid);
// VmRSS of a process and every process below it, in KiB.
std::optional<long> residentKiB(std::int64_t pid);
// The 1-minute load average, as `uptime` shows it.
double loadAverage();

struct ChildOutput {
    // Empty: discarded.
    QString standardErrorFile;
    bool readStandardOutput = false;
};

// A child process that dies with the bench, however the bench ends: the kernel sends it SIGTERM
// when the bench's thread goes, and it inherits none of the bench's descriptors (a build lock
// among them). Stopped with SIGTERM, then SIGKILL, when destroyed.
class Child {
  public:
    using Output = ChildOutput;

    Child(const QString& program, const QStringList& arguments, const QStringList& environment = {},
          Output output = {});
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    std::int64_t pid() const { return pid_; }
    bool running() const;
    QProcess& process() { return *process_; }
    // SIGTERM, then SIGKILL after `grace`; returns once it has ended.
    void stop(std::chrono::milliseconds grace = std::chrono::seconds(10));
    QString describe() const;

  private:
    std::unique_ptr<QProcess> process_;
    std::int64_t pid_ = -1;
};

}  // namespace velmorand::bench
