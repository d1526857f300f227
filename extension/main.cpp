// velmorand-broadcast: the screen-broadcast upload extension. Started by the application for one
// broadcast; reads the shared configuration once, keeps the device's relay link until stopped,
// streams the screen while viewers ask for it, carries out their remote-control commands, and
// writes what happens to extension.log in the group container.
#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>

#include <QCoreApplication>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "DesktopBroadcast.h"
#include "velmorand/config/AppGroup.h"
#include "velmorand/config/BroadcastState.h"
#include "velmorand/config/RelayBase.h"
#include "velmorand/config/SharedConfig.h"
#include "velmorand/desktop/BroadcastControl.h"
#include "velmorand/desktop/DesktopEnvironment.h"
#include "velmorand/desktop/PlistSettingsStore.h"
#include "velmorand/desktop/StderrLog.h"
#include "velmorand/extension/Broadcast.h"
#include "velmorand/extension/BroadcastStatus.h"
#include "velmorand/extension/EventLines.h"
#include "velmorand/extension/ExtensionLogWriter.h"
#include "velmorand/extension/ExtensionOptions.h"
#include "velmorand/extension/InstanceLock.h"
#include "velmorand/extension/RelayFrameSink.h"
#include "velmorand/extension/Supervisor.h"
#include "velmorand/qt/QtMainQueue.h"
#include "velmorand/qt/QtWebSocketSession.h"
#include "velmorand/qt/StopSignals.h"
#include "velmorand/relay/RelayClient.h"
#include "velmorand/relay/RelayUrlPolicy.h"

namespace {

using namespace velmorand;
using namespace velmorand::extension;

// The portal's restore token for the screen cast it granted.
constexpr std::string_view kPortalGrantKey = "portalRestoreToken";

constexpr const char* kIndicatorProgram = "velmorand-indicator";

// The extension lives at <bundle>/PlugIns/<name>.appex/<program>.
std::filesystem::path bundleAroundProgram() {
    std::error_code error;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
    return error ? std::filesystem::path(".") : program.parent_path().parent_path().parent_path();
}

// A person at a graphical desktop sees the broadcast in its status area, from a program of its
// own beside this one, for as long as the broadcast runs (restarts included): it goes by itself
// once the lock is free. Headless, or without that program, nothing is shown.
void startIndicator(const std::filesystem::path& container) {
    const auto set = [](const char* name) {
        const char* value = std::getenv(name);
        return value != nullptr && *value != '\0';
    };
    std::error_code error;
    const auto program =
        std::filesystem::read_symlink("/proc/self/exe", error).parent_path() / kIndicatorProgram;
    if ((!set("DISPLAY") && !set("WAYLAND_DISPLAY")) || error ||
        !std::filesystem::exists(program, error)) {
        return;
    }
    posix_spawn_file_actions_t files;
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_init(&files);
    posix_spawnattr_init(&attributes);
    // Its platform's complaints are not the broadcast's log.
    posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&files, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    // The stop signals are blocked here for the supervisor to take in turn; not there.
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    std::string path = program.string();
    std::string option = "--container";
    std::string directory = container.string();
    char* argv[] = {path.data(), option.data(), directory.data(), nullptr};
    pid_t pid = 0;
    ::posix_spawn(&pid, path.c_str(), &files, &attributes, argv, environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&files);
}

// One broadcast, until it is stopped or the relay refuses its token; in the supervisor's child.
int runBroadcast(int argc, char** argv, const ExtensionOptions& options, Log& log,
                 const SharedConfig::Values& values, const RelayBase& base, PortalGrantStore grants,
                 const BroadcastControl& control, const BroadcastState& start,
                 SettingsStore& shared) {
    QCoreApplication application(argc, argv);
    QtMainQueue mainQueue;
    auto client =
        RelayClient::make(base.url, *values.deviceToken,
                          RelayClient::Services{.mainQueue = mainQueue,
                                                .log = log,
                                                .makeSession = QtWebSocketSession::factory(),
                                                .random = {}});
    client->setReconnectPolicy(options.reconnect);
    RelayFrameSink frames(*client);
    PeerFanOut peers(frames);
    auto desktop = desktopServices(desktopFacts(options.desktop), peers, log, std::move(grants));
    if (options.viewOnly) {
        desktop.shareScreen();
    }
    BroadcastStatus status(
        start, [&control](const BroadcastState& state) { control.publish(state.encode()); },
        BroadcastState::wallClockMs, mainQueue);
    Broadcast broadcast(
        {.client = *client,
         .log = log,
         .mainQueue = mainQueue,
         .openStream = std::move(desktop.openStream),
         .openRemoteControl = options.viewOnly ? Broadcast::RemoteControlOpener()
                                               : std::move(desktop.openRemoteControl),
         .clock = {},
         .status = status,
         .peers = peers,
         .makePeer = desktopPeers(shared)},
        [](int status) { QCoreApplication::exit(status); });
    bool stopped = false;
    StopSignals stopSignals([&log, &stopped](int signal) {
        if (!std::exchange(stopped, true)) {
            log.write(signal == SIGTERM ? "stopped (SIGTERM)" : "stopped (SIGINT)");
            QCoreApplication::exit(0);
        }
    });
    broadcast.begin(base, StreamConfig{SharedConfig::resolvedEncode(values), values.bitrate});
    return QCoreApplication::exec();
}

int runExtension(int argc, char** argv, const ExtensionOptions& options) {
    DesktopEnvironment environment(DesktopLocations{
        .dataDir = options.dataDir,
        .bundleDir = DesktopBundle::resolveDirectory(options.bundleDir, bundleAroundProgram()),
    });
    StderrLog stderrLog;
    const auto container = environment.groupContainers.containerDirectory(kAppGroupName);
    if (!container) {
        stderrLog.write("no group container under " + environment.root.root().string());
        return 1;
    }
    ExtensionLogWriter log(*container / "extension.log", {.echo = &stderrLog, .clock = {}});

    InstanceLock lock(*container / BroadcastControl::kLockFileName);
    if (!lock.held()) {
        log.write(lock.error() ? "cannot take the broadcast lock: " + *lock.error()
                               : EventLines::alreadyRunning(lock.holder()));
        return 1;
    }

    const AppGroup appGroup(environment.bundle);
    const SharedConfig config(environment.settings, environment.keychain, appGroup);
    const auto values = config.load();
    // The WebRTC load marker lives where the pairing probe looks for it.
    const auto groupStore = config.groupStore();
    SettingsStore* sharedStore = groupStore ? groupStore.get() : &config.standardStore();
    for (const auto& secret : {values.deviceToken, values.accessKey}) {
        if (secret) {
            log.addSecret(*secret);
        }
    }
    log.write("started (pid " + std::to_string(::getpid()) + ")");
    const auto base = RelayBase::choose(values);
    if (!base) {
        log.write(EventLines::kNotPaired);
        return 1;
    }
    if (const auto refusal = RelayUrlPolicy::refusal(base->url)) {
        log.write(EventLines::relayRefused(base->url, *refusal));
        return 1;
    }
    // The extension's own settings, beside the shared store in the group container.
    PlistSettingsStore own(*container / "Library" / "Preferences" /
                           "co.velmorand.connect.broadcast.plist");
    const PortalGrantStore grants{
        .load = [&own] { return own.string(kPortalGrantKey); },
        .save =
            [&own](const std::string& token) {
                own.setObject(kPortalGrantKey, StoredValue(token));
                own.synchronize();
            },
    };
    // What the application, the command line and the indicator show of this broadcast.
    const BroadcastControl control(*container);
    BroadcastState start;
    start.pid = ::getpid();
    start.viewOnly = options.viewOnly;
    const auto publish = [&control, &start](BroadcastState::Phase phase, std::string detail) {
        auto state = start;
        state.phase = phase;
        state.detail = std::move(detail);
        control.publish(state.encode());
    };
    publish(BroadcastState::Phase::starting, "");
    startIndicator(*container);
    const int status = Supervisor().run(
        log,
        [&] {
            return runBroadcast(argc, argv, options, log, values, *base, grants, control, start,
                                *sharedStore);
        },
        [&publish](const std::string& why) { publish(BroadcastState::Phase::restarting, why); });
    publish(BroadcastState::Phase::stopped, "");
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    // Before any thread exists, so that none of them takes the stop signals.
    StopSignals::block();
    // A pipe whose reader went (a program that took a paste and closed early) is an error to
    // handle where it is written, not a reason to end the broadcast.
    std::signal(SIGPIPE, SIG_IGN);

    const std::vector<std::string> arguments(argv + 1, argv + argc);
    auto parsed = ExtensionOptions::parse(arguments, VELMORAND_VERSION);
    if (const auto* exit = std::get_if<ExtensionOptions::Exit>(&parsed)) {
        (exit->status == 0 ? std::cout : std::cerr) << exit->text << std::flush;
        return exit->status;
    }
    return runExtension(argc, argv, std::get<ExtensionOptions>(parsed));
}
