#include "CommandRunner.h"

#include <QProcess>

#include "QtTestSupport.h"

namespace velmorand::testing {

CommandResult runCommand(const std::string& program, const std::vector<std::string>& arguments,
                         const std::vector<std::string>& environment) {
    QProcess process;
    auto variables = QProcessEnvironment::systemEnvironment();
    for (const auto& entry : environment) {
        const auto equals = entry.find('=');
        variables.insert(QString::fromStdString(entry.substr(0, equals)),
                         QString::fromStdString(entry.substr(equals + 1)));
    }
    process.setProcessEnvironment(variables);
    process.setStandardInputFile(QProcess::nullDevice());
    QStringList list;
    for (const auto& argument : arguments) {
        list << QString::fromStdString(argument);
    }
    process.start(QString::fromStdString(program), list);
    if (!pumpUntil([&] { return process.state() == QProcess::NotRunning; },
                   std::chrono::minutes(1))) {
        process.kill();
        process.waitForFinished();
    }
    const bool exited =
        process.error() != QProcess::FailedToStart && process.exitStatus() == QProcess::NormalExit;
    return {exited ? process.exitCode() : -1, process.readAllStandardOutput().toStdString(),
            process.readAllStandardError().toStdString()};
}

CommandResult runVelmorand(const std::filesystem::path& dataDir, std::vector<std::string> arguments,
                           const std::string& serviceUrl, const std::filesystem::path& bundleDir,
                           const std::vector<std::string>& environment) {
    std::vector<std::string> options = {
        "--data-dir", dataDir.string(), "--bundle-dir",
        bundleDir.empty() ? std::string(VELMORAND_DEV_BUNDLE) : bundleDir.string()};
    if (!serviceUrl.empty()) {
        options.insert(options.end(), {"--service-url", serviceUrl});
    }
    arguments.insert(arguments.begin(), options.begin(), options.end());
    return runCommand(VELMORAND_CLI, arguments, environment);
}

}  // namespace velmorand::testing
