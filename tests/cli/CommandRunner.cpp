#include "CommandRunner.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

namespace velmorand::testing {
namespace {

// Starts `program` with standard input closed and its output streams on `out` and `err`.
pid_t spawn(const std::string& program, const std::vector<std::string>& arguments,
            const std::vector<std::string>& environment, int out, int err) {
    const pid_t child = fork();
    if (child == 0) {
        dup2(open("/dev/null", O_RDONLY), 0);
        dup2(out, 1);
        dup2(err, 2);
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
    return child;
}

std::string contents(std::FILE* file) {
    std::string text;
    std::rewind(file);
    for (int c = std::fgetc(file); c != EOF; c = std::fgetc(file)) {
        text += static_cast<char>(c);
    }
    std::fclose(file);
    return text;
}

}  // namespace

CommandResult runCommand(const std::string& program, const std::vector<std::string>& arguments,
                         const std::vector<std::string>& environment) {
    // Files rather than pipes: nothing to drain while the program runs.
    std::FILE* out = std::tmpfile();
    std::FILE* err = std::tmpfile();
    int status = 0;
    waitpid(spawn(program, arguments, environment, fileno(out), fileno(err)), &status, 0);
    const int exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return {exitCode, contents(out), contents(err)};
}

BackgroundProcess::BackgroundProcess(const std::string& program,
                                     const std::vector<std::string>& arguments) {
    int out[2];
    int err[2];
    if (pipe2(out, O_CLOEXEC) == 0 && pipe2(err, O_CLOEXEC) == 0) {
        pid_ = spawn(program, arguments, {}, out[1], err[1]);
        close(out[1]);
        close(err[1]);
        streams_[0] = fdopen(out[0], "r");
        streams_[1] = fdopen(err[0], "r");
    }
}

BackgroundProcess::~BackgroundProcess() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    for (auto* stream : streams_) {
        if (stream) {
            std::fclose(stream);
        }
    }
}

std::string BackgroundProcess::readLine(bool fromError) {
    std::FILE* stream = streams_[fromError ? 1 : 0];
    std::string line;
    for (int c = stream ? std::fgetc(stream) : EOF; c != EOF && c != '\n'; c = std::fgetc(stream)) {
        line += static_cast<char>(c);
    }
    return line;
}

}  // namespace velmorand::testing
