#include "CommandRunner.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

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

}  // namespace

CommandResult runCommand(const std::string& program, const std::vector<std::string>& arguments,
                         const std::vector<std::string>& environment) {
    int out[2];
    int err[2];
    if (pipe(out) != 0 || pipe(err) != 0) {
        throw std::runtime_error("pipe failed");
    }
    const pid_t child = fork();
    if (child < 0) {
        throw std::runtime_error("fork failed");
    }
    if (child == 0) {
        const int devNull = open("/dev/null", O_RDONLY);
        dup2(devNull, 0);
        dup2(out[1], 1);
        dup2(err[1], 2);
        close(out[0]);
        close(err[0]);
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
    close(out[1]);
    close(err[1]);

    CommandResult result;
    bool outOpen = true;
    bool errOpen = true;
    while (outOpen || errOpen) {
        pollfd fds[2] = {{outOpen ? out[0] : -1, POLLIN, 0}, {errOpen ? err[0] : -1, POLLIN, 0}};
        if (poll(fds, 2, -1) < 0) {
            break;
        }
        if (fds[0].revents) {
            drain(out[0], result.out, outOpen);
        }
        if (fds[1].revents) {
            drain(err[0], result.err, errOpen);
        }
    }
    close(out[0]);
    close(err[0]);
    int status = 0;
    waitpid(child, &status, 0);
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

}  // namespace velmorand::testing
