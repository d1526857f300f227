#pragma once

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace velmorand::testing {

// A server program of one test's own, which writes a line on a descriptor it is given once it
// accepts clients (the display it took, the address it listens on); stopped with the test.
class SpawnedServer {
  public:
    // `arguments` starts with the program; "{fd}" within any of them stands for the descriptor.
    explicit SpawnedServer(std::vector<std::string> arguments) {
        int pipeFds[2];
        if (::pipe(pipeFds) != 0) {
            return;
        }
        for (auto& argument : arguments) {
            if (const auto at = argument.find("{fd}"); at != std::string::npos) {
                argument.replace(at, 4, std::to_string(pipeFds[1]));
            }
        }
        std::vector<char*> argv;
        for (auto& argument : arguments) {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);
        pid_ = ::fork();
        if (pid_ == 0) {
            ::close(pipeFds[0]);
            ::execvp(argv[0], argv.data());
            ::_exit(127);
        }
        ::close(pipeFds[1]);
        pollfd ready{pipeFds[0], POLLIN, 0};
        char c = 0;
        while (::poll(&ready, 1, 10'000) == 1 && ::read(pipeFds[0], &c, 1) == 1 && c != '\n') {
            announced_ += c;
        }
        ::close(pipeFds[0]);
    }
    ~SpawnedServer() {
        if (pid_ > 0) {
            ::kill(pid_, SIGTERM);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    SpawnedServer(const SpawnedServer&) = delete;
    SpawnedServer& operator=(const SpawnedServer&) = delete;

    // The server's line; empty when it did not start.
    const std::string& announced() const { return announced_; }

  private:
    pid_t pid_ = -1;
    std::string announced_;
};

// A private X server for one test: what the X11 backends do is judged by what a real server keeps.
class PrivateXServer {
  public:
    // Empty when Xvfb did not start.
    const std::string& display() const { return display_; }

  private:
    // Without -noreset the server starts over whenever its last client leaves, and refuses the
    // next one for that moment.
    SpawnedServer server_{
        {"Xvfb", "-displayfd", "{fd}", "-nolisten", "tcp", "-noreset", "-screen", "0", "64x64x24"}};
    const std::string display_ = server_.announced().empty() ? "" : ":" + server_.announced();
};

}  // namespace velmorand::testing
