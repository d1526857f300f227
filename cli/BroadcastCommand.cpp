#include "BroadcastCommand.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Cli.h"
#include "CliContext.h"
#include "velmorand/config/AppGroup.h"
#include "velmorand/config/BroadcastState.h"
#include "velmorand/desktop/BroadcastControl.h"
#include "velmorand/platform/Bundle.h"
#include "velmorand/ui/BroadcastExtension.h"

namespace velmorand::cli {
namespace {

// The broadcast's supervisor gives its child 5 s to stop before it kills it.
constexpr auto kStopWait = std::chrono::seconds(10);
constexpr auto kStopPoll = std::chrono::milliseconds(50);
// A broadcast records its id moments after it takes its lock; one still unknown by then is not
// going to be.
constexpr auto kHolderWait = std::chrono::seconds(2);

std::optional<BroadcastControl> broadcastControl(CliContext& context) {
    const auto container = context.groupContainers().containerDirectory(kAppGroupName);
    return container ? std::optional<BroadcastControl>(*container) : std::nullopt;
}

int stopBroadcast(CliContext& context) {
    const auto control = broadcastControl(context);
    const auto pid = control ? control->runningPid() : std::nullopt;
    if (!pid) {
        std::cout << "No broadcast is running.\n";
        return kExitSuccess;
    }
    const auto started = std::chrono::steady_clock::now();
    std::optional<long> asked;
    std::optional<long> running = pid;
    while (running) {
        const auto waited = std::chrono::steady_clock::now() - started;
        if (!asked) {
            asked = control->requestStop();
        }
        // A holder that is known and could not be asked will not be; one not yet known is waited
        // for a moment.
        if (waited > kStopWait || (!asked && (*running > 0 || waited > kHolderWait))) {
            break;
        }
        std::this_thread::sleep_for(kStopPoll);
        running = control->runningPid();
    }
    const long holder = asked ? *asked : running.value_or(0);
    const std::string named = holder > 0 ? " (pid " + std::to_string(holder) + ")" : "";
    if (running) {
        std::cerr << "velmorand: the broadcast" << named
                  << (asked ? " did not stop within 10 s; see `velmorand log`\n"
                            : " cannot be asked to stop: the process that holds its lock is not "
                              "one of yours on this machine, or has not recorded its id\n");
        return kExitFailure;
    }
    std::cout << "Stopped the broadcast" << named << ".\n";
    return kExitSuccess;
}

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

BroadcastReport reportBroadcast(CliContext& context) {
    const auto control = broadcastControl(context);
    const auto now = BroadcastState::wallClockMs();
    const auto seen = control
                          ? BroadcastSighting::of(control->runningPid(), control->stateText(), now)
                          : BroadcastSighting::of(std::nullopt, std::nullopt, now);
    if (!seen.running) {
        return {seen.summary,
                {{"running", false},
                 {"endedWithoutStopping", seen.endedWithoutStopping},
                 {"summary", seen.summary}}};
    }
    // Until the broadcast has said anything, it is starting and nothing else is known.
    const auto& state = seen.state;
    const auto known = [&state](const auto& value) {
        return state ? nlohmann::ordered_json(value) : nlohmann::ordered_json();
    };
    nlohmann::ordered_json json{
        {"running", true},
        {"pid", seen.pid > 0 ? nlohmann::ordered_json(seen.pid) : nullptr},
        {"phase",
         BroadcastState::phaseName(state ? state->phase : BroadcastState::Phase::starting)},
        {"viewers", known(state ? state->viewers : 0)},
        {"viewOnly", known(state && state->viewOnly)},
        {"operating", known(state && state->operatingAt(now))},
        {"summary", seen.summary}};
    return {seen.pid > 0 ? seen.summary + " (pid " + std::to_string(seen.pid) + ")" : seen.summary,
            std::move(json)};
}

void addBroadcastCommand(CLI::App& app, CliContext& context, Action& action) {
    auto* command = app.add_subcommand(
        "broadcast",
        "Run the upload extension in the foreground: keep the relay link, stream the screen to "
        "the viewers that ask for it and carry out their commands, until Ctrl-C");
    auto viewOnly = std::make_shared<bool>(false);
    auto stop = std::make_shared<bool>(false);
    auto* viewOnlyFlag = command->add_flag(
        "--view-only", *viewOnly, "Stream the screen but carry out none of the viewers' commands");
    command
        ->add_flag("--stop", *stop,
                   "Stop the running broadcast, whoever started it, and wait until it has")
        ->excludes(viewOnlyFlag);
    command->callback([&context, &action, viewOnly, stop] {
        action = [&context, viewOnly, stop] {
            return *stop ? stopBroadcast(context) : runExtension(context, *viewOnly);
        };
    });
}

}  // namespace velmorand::cli
