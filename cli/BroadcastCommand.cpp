#include "BroadcastCommand.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "Cli.h"
#include "CliContext.h"
#include "velmorand/platform/Bundle.h"
#include "velmorand/ui/BroadcastExtension.h"

namespace velmorand::cli {
namespace {

// The extension takes this process's place, so that Ctrl-C, the terminal and the exit status are
// the extension's own, exactly as when the application starts it.
int runExtension(CliContext& context, bool viewOnly) {
    const Bundle& bundle = context.bundle();
    const auto program = BroadcastExtension::executable(bundle);
    if (!program) {
        std::cerr << "velmorand: the bundle at " << bundle.installDirectory().string()
                  << " holds no upload extension (see --bundle-dir)\n";
        return kExitFailure;
    }
    std::vector<std::string> arguments{program->string(), "--data-dir",
                                       context.dataDirectory().string(), "--bundle-dir",
                                       bundle.installDirectory().string()};
    if (viewOnly) {
        arguments.emplace_back("--view-only");
    }
    std::vector<char*> argv;
    for (auto& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    std::cout.flush();
    ::execv(argv[0], argv.data());
    std::cerr << "velmorand: cannot run " << program->string() << ": " << std::strerror(errno)
              << "\n";
    return kExitFailure;
}

}  // namespace

void addBroadcastCommand(CLI::App& app, CliContext& context, Action& action) {
    auto* command = app.add_subcommand(
        "broadcast",
        "Run the upload extension in the foreground: keep the relay link, stream the screen to "
        "the viewers that ask for it and carry out their commands, until Ctrl-C");
    auto viewOnly = std::make_shared<bool>(false);
    command->add_flag("--view-only", *viewOnly,
                      "Stream the screen but carry out none of the viewers' commands");
    command->callback([&context, &action, viewOnly] {
        action = [&context, viewOnly] { return runExtension(context, *viewOnly); };
    });
}

}  // namespace velmorand::cli
