#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace velmorand::bench {

// A private X server for one measurement. The server picks a free display itself and reports it,
// so benches running side by side never share one.
class Xvfb {
  public:
    // `options` go to the server as they are, for example to switch an extension off.
    Xvfb(int width, int height, const std::vector<std::string>& options = {}) {
        start(width, height, options);
    }
    ~Xvfb() { stop(); }
    Xvfb(const Xvfb&) = delete;
    Xvfb& operator=(const Xvfb&) = delete;

    void stop() {
        if (pid_ > 0) {
            ::kill(pid_, SIGTERM);
            ::waitpid(pid_, nullptr, 0);
            pid_ = -1;
        }
    }
    bool running() const { return pid_ > 0; }
    const std::string& display() const { return display_; }

  private:
    static constexpr int kDisplayFd = 3;
    static constexpr int kStartMs = 10'000;

    void start(int width, int height, const std::vector<std::string>& options) {
        int report[2];
        if (::pipe2(report, O_CLOEXEC) != 0) {
            return;
        }
        const std::string screen = std::to_string(width) + "x" + std::to_string(height) + "x24";
        std::vector<std::string> args = {"Xvfb",      "-displayfd", std::to_string(kDisplayFd),
                                         "-screen",   "0",          screen,
                                         "-nolisten", "tcp"};
        args.insert(args.end(), options.begin(), options.end());
        std::vector<char*> argv;
        for (auto& arg : args) {
            argv.push_back(arg.data());
        }
        argv.push_back(nullptr);
        const pid_t parent = ::getpid();
        const pid_t pid = ::fork();
        if (pid == 0) {
            // A bench that dies, however it dies, takes its server with it, and the server holds
            // none of the bench's descriptors (the build lock among them) after it.
            ::prctl(PR_SET_PDEATHSIG, SIGTERM);
            if (::getppid() != parent) {
                ::_exit(127);
            }
            const int quiet = ::open("/dev/null", O_WRONLY);
            ::dup2(quiet, STDOUT_FILENO);
            ::dup2(quiet, STDERR_FILENO);
            ::dup2(report[1], kDisplayFd);
            ::closefrom(kDisplayFd + 1);
            ::execvp("Xvfb", argv.data());
            ::_exit(127);
        }
        ::close(report[1]);
        std::string number;
        pollfd wait{report[0], POLLIN, 0};
        char c = 0;
        while (pid > 0 && ::poll(&wait, 1, kStartMs) == 1 && ::read(report[0], &c, 1) == 1 &&
               c != '\n') {
            number.push_back(c);
        }
        ::close(report[0]);
        if (pid > 0 && c == '\n' && !number.empty()) {
            pid_ = pid;
            display_ = ":" + number;
        } else if (pid > 0) {
            ::kill(pid, SIGTERM);
            ::waitpid(pid, nullptr, 0);
        }
    }

    pid_t pid_ = -1;
    std::string display_;
};

}  // namespace velmorand::bench
