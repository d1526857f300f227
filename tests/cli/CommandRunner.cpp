#include "CommandRunner.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <utility>

namespace velmorand::testing {
namespace {

void drain(int descriptor, std::string& into, bool& open) {
    char buffer[4096];
    const ssize_t count = read(descriptor, buffer, sizeof buffer);
    if (count > 0) {
        into.append(buffer, static_cast<std::size_t>(count));
    } else {
        open = false;
    }
}

// Starts `program` with its standard input closed and both output streams on pipes.
pid_t spawn(const std::string& program, const std::vector<std::string>& arguments,
            const std::vector<std::string>& environment, int& out, int& err) {
    int outPipe[2];
    int errPipe[2];
    if (pipe(outPipe) != 0 || pipe(errPipe) != 0) {
        throw std::runtime_error("pipe failed");
    }
    const pid_t child = fork();
    if (child < 0) {
        throw std::runtime_error("fork failed");
    }
    if (child == 0) {
        const int devNull = open("/dev/null", O_RDONLY);
        dup2(devNull, 0);
        dup2(outPipe[1], 1);
        dup2(errPipe[1], 2);
        close(outPipe[0]);
        close(errPipe[0]);
        for (const auto& entry : environment) {
            putenv(const_cast<char*>(entry.c_str()));
        }
        std::vector<char*> argv{const_cast<char*>(program.c_str())};
        for (const auto& argument : arguments) {
            argv.push_back(const_cast<char*>(argument.c_str()));
        }
        argv.push_back(nullptr);
        execv(program.c_str(), argv.data());
        _exit(127);
    }
    close(outPipe[1]);
    close(errPipe[1]);
    out = outPipe[0];
    err = errPipe[0];
    return child;
}

}  // namespace

CommandResult runCommand(const std::string& program, const std::vector<std::string>& arguments,
                         const std::vector<std::string>& environment) {
    int out = -1;
    int err = -1;
    const pid_t child = spawn(program, arguments, environment, out, err);

    CommandResult result;
    bool outOpen = true;
    bool errOpen = true;
    while (outOpen || errOpen) {
        pollfd fds[2] = {{outOpen ? out : -1, POLLIN, 0}, {errOpen ? err : -1, POLLIN, 0}};
        if (poll(fds, 2, -1) < 0) {
            break;
        }
        if (fds[0].revents) {
            drain(out, result.out, outOpen);
        }
        if (fds[1].revents) {
            drain(err, result.err, errOpen);
        }
    }
    close(out);
    close(err);
    int status = 0;
    waitpid(child, &status, 0);
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

BackgroundProcess::BackgroundProcess(const std::string& program,
                                     const std::vector<std::string>& arguments) {
    pid_ = spawn(program, arguments, {}, out_, err_);
}

BackgroundProcess::~BackgroundProcess() {
    kill(pid_, SIGTERM);
    for (int waited = 0; waited < 50; ++waited) {
        if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
            pid_ = -1;
            break;
        }
        usleep(100'000);
    }
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    close(out_);
    close(err_);
}

std::string BackgroundProcess::readLine() {
    return readLineFrom(out_, outBuffer_);
}

std::string BackgroundProcess::readErrorLine() {
    return readLineFrom(err_, errBuffer_);
}

std::string BackgroundProcess::readLineFrom(int descriptor, std::string& buffer) {
    while (true) {
        if (const auto end = buffer.find('\n'); end != std::string::npos) {
            std::string line = buffer.substr(0, end);
            buffer.erase(0, end + 1);
            return line;
        }
        char chunk[4096];
        const ssize_t count = read(descriptor, chunk, sizeof chunk);
        if (count <= 0) {
            return std::exchange(buffer, {});
        }
        buffer.append(chunk, static_cast<std::size_t>(count));
    }
}

}  // namespace velmorand::testing
