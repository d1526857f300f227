#include "Harness.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QProcessEnvironment>
#include <QSocketNotifier>
#include <QTimer>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <map>
#include <vector>

namespace velmorand::bench {
namespace {

int stopPipe[2] = {-1, -1};
std::atomic<bool> stopSignalled{false};

void onStopSignal(int) {
    stopSignalled.store(true);
    const char byte = 1;
    if (::write(stopPipe[1], &byte, 1) < 0) {
        // The flag alone still stops the bench at its next check.
    }
}

}  // namespace

std::uint64_t realtimeUs() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000U +
           static_cast<std::uint64_t>(now.tv_nsec) / 1000U;
}

double secondsSince(SteadyClock::time_point start) {
    return std::chrono::duration<double>(SteadyClock::now() - start).count();
}

void installStopSignals() {
    if (::pipe2(stopPipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        throw HarnessFailure("cannot make the signal pipe");
    }
    struct sigaction action {};
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        sigaction(signal, &action, nullptr);
    }
    // The notifier only wakes the loop; the flag carries the news.
    auto* notifier = new QSocketNotifier(stopPipe[0], QSocketNotifier::Read, qApp);
    QObject::connect(notifier, &QSocketNotifier::activated, qApp, [] {
        char bytes[16];
        while (::read(stopPipe[0], bytes, sizeof bytes) > 0) {
        }
    });
}

bool stopRequested() {
    return stopSignalled.load();
}

void checkInterrupted() {
    if (stopRequested()) {
        throw Interrupted();
    }
}

bool pumpUntil(const std::function<bool()>& done, std::chrono::milliseconds limit) {
    const auto deadline = SteadyClock::now() + limit;
    // Wakes the wait below often enough to see `done` and the deadline; the handlers that matter
    // run as their events come, not on this tick.
    QTimer tick;
    tick.start(20);
    for (;;) {
        checkInterrupted();
        if (done()) {
            return true;
        }
        if (SteadyClock::now() >= deadline) {
            return false;
        }
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
}

void pumpFor(std::chrono::milliseconds duration) {
    pumpUntil([] { return false; }, duration);
}

namespace {

// The fields of /proc/<pid>/stat from the state (field 3) on: the command name before them may
// hold spaces and parentheses.
std::optional<QList<QByteArray>> statFields(std::int64_t pid) {
    QFile file(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!file.open(QIODevice::ReadOnly)) {
        return std::nullopt;
    }
    const QByteArray text = file.readAll();
    const auto close = text.lastIndexOf(')');
    if (close < 0) {
        return std::nullopt;
    }
    auto fields = text.mid(close + 2).split(' ');
    if (fields.size() < 13) {
        return std::nullopt;
    }
    return fields;
}

// `pid` and every process below it.
std::vector<std::int64_t> processTree(std::int64_t pid) {
    std::multimap<std::int64_t, std::int64_t> children;
    for (const QString& entry : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs)) {
        bool numeric = false;
        const auto process = entry.toLongLong(&numeric);
        if (const auto fields = numeric ? statFields(process) : std::nullopt) {
            children.emplace(fields->at(1).toLongLong(), process);  // field 4, the parent
        }
    }
    std::vector<std::int64_t> tree{pid};
    for (std::size_t next = 0; next < tree.size(); ++next) {
        const auto [first, last] = children.equal_range(tree[next]);
        for (auto child = first; child != last; ++child) {
            tree.push_back(child->second);
        }
    }
    return tree;
}

long vmRssKiB(std::int64_t pid) {
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly)) {
        return 0;
    }
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("VmRSS:")) {
            return line.mid(6).trimmed().split(' ').front().toLong();
        }
    }
    return 0;
}

}  // namespace

std::optional<double> cpuSeconds(std::int64_t pid) {
    if (!statFields(pid)) {
        return std::nullopt;
    }
    long long ticks = 0;
    for (const auto process : processTree(pid)) {
        // Fields 14 and 15 of stat(5), utime and stime, counted from the state (field 3).
        if (const auto fields = statFields(process)) {
            ticks += fields->at(11).toLongLong() + fields->at(12).toLongLong();
        }
    }
    return static_cast<double>(ticks) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

std::optional<long> residentKiB(std::int64_t pid) {
    if (!statFields(pid)) {
        return std::nullopt;
    }
    long total = 0;
    for (const auto process : processTree(pid)) {
        total += vmRssKiB(process);
    }
    return total;
}

double loadAverage() {
    QFile file(QStringLiteral("/proc/loadavg"));
    if (!file.open(QIODevice::ReadOnly)) {
        return -1;
    }
    return file.readAll().split(' ').front().toDouble();
}

Child::Child(const QString& program, const QStringList& arguments, const QStringList& environment,
             Output output)
    : process_(std::make_unique<QProcess>()) {
    auto env = QProcessEnvironment::systemEnvironment();
    for (const QString& entry : environment) {
        const auto equals = entry.indexOf('=');
        env.insert(entry.left(equals), entry.mid(equals + 1));
    }
    process_->setProcessEnvironment(env);
    if (output.standardErrorFile.isEmpty()) {
        process_->setStandardErrorFile(QProcess::nullDevice());
    } else {
        process_->setStandardErrorFile(output.standardErrorFile, QIODevice::Append);
    }
    if (!output.readStandardOutput) {
        process_->setStandardOutputFile(QProcess::nullDevice());
    }
    process_->setStandardInputFile(QProcess::nullDevice());
    const pid_t parent = ::getpid();
    process_->setChildProcessModifier([parent] {
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (::getppid() != parent) {
            ::_exit(127);
        }
        // CLOEXEC rather than closing: QProcess's own reporting pipe must survive until exec.
        ::close_range(3, ~0U, CLOSE_RANGE_CLOEXEC);
        // The bench's handlers and mask are not the child's.
        sigset_t none;
        sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
            ::signal(signal, SIG_DFL);
        }
    });
    process_->start(program, arguments);
    if (!process_->waitForStarted(10'000)) {
        throw HarnessFailure("cannot start " + program.toStdString() + ": " +
                             process_->errorString().toStdString());
    }
    pid_ = process_->processId();
}

Child::~Child() {
    stop();
}

bool Child::running() const {
    return process_->state() != QProcess::NotRunning;
}

void Child::stop(std::chrono::milliseconds grace) {
    if (!running()) {
        return;
    }
    ::kill(static_cast<pid_t>(pid_), SIGTERM);
    if (!process_->waitForFinished(static_cast<int>(grace.count()))) {
        process_->kill();
        process_->waitForFinished(5'000);
    }
}

QString Child::describe() const {
    return process_->program() + QStringLiteral(" (pid %1)").arg(pid_);
}

}  // namespace velmorand::bench
