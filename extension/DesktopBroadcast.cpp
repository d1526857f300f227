#include "DesktopBroadcast.h"

#include <cstdlib>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "velmorand/codec/LibyuvPictureConverter.h"
#include "velmorand/codec/TurboJpegCompressor.h"
#include "velmorand/codec/X264CompressionSession.h"
#include "velmorand/dbus/DBusSession.h"
#include "velmorand/extension/WebRtcLoad.h"
#include "velmorand/gio/GioDesktopShell.h"
#include "velmorand/gnome/GnomeRemoteDesktop.h"
#include "velmorand/gst/GstPeerConnection.h"
#include "velmorand/pipewire/PipeWireScreenCapture.h"
#include "velmorand/platform/Log.h"
#include "velmorand/portal/PortalRemoteDesktop.h"
#include "velmorand/wayland/RemoteDesktopSessions.h"
#include "velmorand/wayland/WaylandClipboard.h"
#include "velmorand/wayland/WaylandInputInjector.h"
#include "velmorand/wayland/WaylandKeymap.h"
#include "velmorand/x11/XcbClipboard.h"
#include "velmorand/x11/XcbInputInjector.h"
#include "velmorand/x11/XcbScreenCapture.h"
#include "velmorand/x11/XcbWindowCloser.h"

namespace velmorand::extension {
namespace {

using Capture = std::variant<std::unique_ptr<ScreenCapture>, std::string>;

// The desktop's services behind the remote control, which keeps them alive and goes first.
struct RemoteDesktop {
    std::unique_ptr<InputInjector> input;
    std::unique_ptr<Pasteboard> clipboard;
    std::unique_ptr<WindowCloser> windows;
};
using Remote = std::variant<RemoteDesktop, std::string>;

// A desktop whose compositor offers no way to ask windows to close.
struct NoWindowCloser : WindowCloser {
    std::optional<std::size_t> closeWindows(const std::vector<std::string>&) override {
        return std::nullopt;
    }
};

Capture x11Capture() {
    auto opened = XcbScreenCapture::open(nullptr);
    if (auto* error = std::get_if<CaptureError>(&opened)) {
        return error->description;
    }
    return std::move(std::get<std::unique_ptr<ScreenCapture>>(opened));
}

Remote x11Remote() {
    RemoteDesktop services;
    auto input = XcbInputInjector::open(nullptr);
    if (auto* error = std::get_if<std::string>(&input)) {
        return *error;
    }
    services.input = std::move(std::get<std::unique_ptr<InputInjector>>(input));
    auto clipboard = XcbClipboard::open(nullptr);
    if (auto* error = std::get_if<std::string>(&clipboard)) {
        return *error;
    }
    services.clipboard = std::move(std::get<std::unique_ptr<Pasteboard>>(clipboard));
    auto windows = XcbWindowCloser::open(nullptr);
    if (auto* error = std::get_if<std::string>(&windows)) {
        return *error;
    }
    services.windows = std::move(std::get<std::unique_ptr<WindowCloser>>(windows));
    return services;
}

template <typename Session>
using Sessions = RemoteDesktopSessions<Session>;
template <typename Session>
using Opened = typename Sessions<Session>::Opened;

// The session bus, connected when a backend first needs it, and kept.
class LazyBus {
  public:
    std::variant<std::shared_ptr<DBusSession>, std::string> get() {
        std::lock_guard lock(mutex_);
        if (!bus_) {
            auto connected = DBusSession::connect();
            if (auto* error = std::get_if<std::string>(&connected)) {
                return *error;
            }
            bus_ = std::get<std::shared_ptr<DBusSession>>(std::move(connected));
        }
        return bus_;
    }

  private:
    std::mutex mutex_;
    std::shared_ptr<DBusSession> bus_;
};

template <typename Session>
Capture waylandCapture(Sessions<Session>& sessions) {
    auto session = sessions.current(false);
    if (auto* denied = std::get_if<SessionDenied>(&session)) {
        return denied->reason;
    }
    auto& open = *std::get<std::shared_ptr<Session>>(session);
    std::variant<std::unique_ptr<ScreenCapture>, CaptureError> opened =
        CaptureError{"no PipeWire connection for the screen cast"};
    if constexpr (std::is_same_v<Session, PortalRemoteDesktop>) {
        if (const int remote = open.openPipeWireRemote(); remote >= 0) {
            opened = PipeWireScreenCapture::open(remote, open.grant().node);
        }
    } else {
        opened = PipeWireScreenCapture::open(-1, open.pipeWireNode());
    }
    if (auto* error = std::get_if<CaptureError>(&opened)) {
        return error->description;
    }
    return std::move(std::get<std::unique_ptr<ScreenCapture>>(opened));
}

template <typename Session>
Remote waylandRemote(const std::shared_ptr<Sessions<Session>>& sessions) {
    auto session = sessions->current(true);
    if (auto* denied = std::get_if<SessionDenied>(&session)) {
        return denied->reason;
    }
    const WaylandInputInjector::Session current =
        [sessions]() -> std::shared_ptr<RemoteDesktopSession> {
        auto now = sessions->current(true);
        auto* open = std::get_if<std::shared_ptr<Session>>(&now);
        return open != nullptr ? *open : nullptr;
    };
    // Read once the session has started: the seat has a keyboard only from then on.
    auto keymap = WaylandKeymap::read();
    auto* layout = std::get_if<WaylandKeymap>(&keymap);
    RemoteDesktop services;
    services.input = std::make_unique<WaylandInputInjector>(
        current, layout != nullptr ? std::optional(std::move(*layout)) : std::nullopt);
    services.clipboard = std::make_unique<WaylandClipboard>(current);
    services.windows = std::make_unique<NoWindowCloser>();
    return services;
}

// The portal asks the person at the device; a screen cast's grant is kept for the next time.
Sessions<PortalRemoteDesktop>::Open portalOpener(const std::shared_ptr<LazyBus>& lazyBus, Log& log,
                                                 PortalGrantStore grants) {
    return [lazyBus, &log,
            grants = std::move(grants)](bool forRemoteControl) -> Opened<PortalRemoteDesktop> {
        auto bus = lazyBus->get();
        if (auto* error = std::get_if<std::string>(&bus)) {
            return SessionDenied{*error};
        }
        PortalRemoteDesktop::Options options;
        options.input = forRemoteControl;
        options.restoreToken = forRemoteControl ? std::nullopt : grants.load();
        log.write(forRemoteControl
                      ? "portal: asking the person at the device to share the screen and allow "
                        "remote control (the portal asks at every broadcast start: it does not "
                        "keep that answer)"
                  : options.restoreToken
                      ? "portal: sharing the screen as the person at the device allowed before"
                      : "portal: asking the person at the device to share the screen");
        auto opened =
            PortalRemoteDesktop::open(std::get<std::shared_ptr<DBusSession>>(bus), options);
        if (auto* session = std::get_if<std::shared_ptr<PortalRemoteDesktop>>(&opened)) {
            if (const auto& token = (*session)->grant().restoreToken) {
                grants.save(*token);
            }
        }
        return opened;
    };
}

// Tries each backend in turn; the first that opens wins, else one line names what each lacked.
// A fallback is logged as it happens: the next backend may ask the person at the device.
template <typename Result, typename Open>
Result firstThatOpens(const std::vector<DesktopBackend>& backends, Log& log, Open&& open) {
    std::string tried;
    for (std::size_t index = 0; index < backends.size(); ++index) {
        const auto backend = backends[index];
        Result result = open(backend);
        auto* error = std::get_if<std::string>(&result);
        if (error == nullptr) {
            return result;
        }
        if (backends.size() == 1) {
            return backendName(backend) + ": " + *error;
        }
        if (index + 1 < backends.size()) {
            log.write("desktop: " + backendName(backend) + ": " + *error + " — trying " +
                      backendName(backends[index + 1]));
        }
        tried += (tried.empty() ? "" : "; ") + backendName(backend) + ": " + *error;
    }
    return "no desktop backend fits (" + tried + ")";
}

}  // namespace

PeerConnectionFactory desktopPeers(SettingsStore& shared) {
    const char* loopback = std::getenv("VELMORAND_ICE_LOOPBACK");
    auto connect = GstPeerConnection::factory(
        {.loopback = loopback != nullptr && std::string_view(loopback) == "1"});
    // Loaded at the first offer, once: a broadcast no viewer asks for peer-to-peer never has them
    // in its process.
    auto loaded = std::make_shared<std::optional<std::optional<std::string>>>();
    return [&shared, connect = std::move(connect), loaded](PeerConnection::Setup setup,
                                                           PeerConnection::Events events)
               -> std::variant<std::unique_ptr<PeerConnection>, std::string> {
        if (!*loaded) {
            *loaded = WebRtcLoad::attempt(shared, GstPeerConnection::loadPlugins);
        }
        if (const auto& missing = **loaded) {
            return *missing;
        }
        return connect(std::move(setup), std::move(events));
    };
}

DesktopFacts desktopFacts(const std::optional<std::string>& forced) {
    const auto variable = [](const char* name) {
        const char* value = std::getenv(name);
        return std::string(value != nullptr ? value : "");
    };
    DesktopFacts facts;
    facts.forced = forced;
    if (!facts.forced && !variable("VELMORAND_DESKTOP").empty()) {
        facts.forced = variable("VELMORAND_DESKTOP");
    }
    facts.sessionType = variable("XDG_SESSION_TYPE");
    facts.waylandDisplay = !variable("WAYLAND_DISPLAY").empty();
    facts.x11Display = !variable("DISPLAY").empty();
    return facts;
}

DesktopServices desktopServices(const DesktopFacts& facts, FrameSink& sink, Log& log,
                                PortalGrantStore grants) {
    auto chosen = backendsFor(facts);
    if (auto* reason = std::get_if<std::string>(&chosen)) {
        return {
            [reason = *reason](const StreamConfig&, ScreenStream::Events)
                -> std::variant<std::unique_ptr<ScreenStream>, std::string> { return reason; },
            [reason = *reason](RemoteControl::Report)
                -> std::variant<std::shared_ptr<RemoteControl>, std::string> { return reason; },
            [] {},
        };
    }
    const auto backends = std::get<std::vector<DesktopBackend>>(std::move(chosen));
    auto lazyBus = std::make_shared<LazyBus>();
    auto gnome = std::make_shared<Sessions<GnomeRemoteDesktop>>(
        [lazyBus](bool) -> Opened<GnomeRemoteDesktop> {
            auto bus = lazyBus->get();
            if (auto* error = std::get_if<std::string>(&bus)) {
                return SessionDenied{*error};
            }
            // GNOME's own interface asks nobody: a failure is never the person's answer.
            auto opened = GnomeRemoteDesktop::open(std::get<std::shared_ptr<DBusSession>>(bus));
            if (auto* error = std::get_if<std::string>(&opened)) {
                return SessionDenied{*error};
            }
            return std::get<std::shared_ptr<GnomeRemoteDesktop>>(std::move(opened));
        });
    auto portal = std::make_shared<Sessions<PortalRemoteDesktop>>(
        portalOpener(lazyBus, log, std::move(grants)));

    auto openStream = [backends, gnome, portal, &sink, &log](const StreamConfig& config,
                                                             ScreenStream::Events events)
        -> std::variant<std::unique_ptr<ScreenStream>, std::string> {
        auto capture =
            firstThatOpens<Capture>(backends, log, [&](DesktopBackend backend) -> Capture {
                switch (backend) {
                    case DesktopBackend::x11:
                        return x11Capture();
                    case DesktopBackend::gnome:
                        return waylandCapture(*gnome);
                    case DesktopBackend::portal:
                        return waylandCapture(*portal);
                }
                return std::string("unknown backend");
            });
        if (auto* error = std::get_if<std::string>(&capture)) {
            return *error;
        }
        return std::make_unique<ScreenStream>(
            ScreenStream::Services{
                .capture = std::get<std::unique_ptr<ScreenCapture>>(std::move(capture)),
                .converter = std::make_unique<LibyuvPictureConverter>(),
                .jpeg = std::make_unique<TurboJpegCompressor>(),
                .makeH264 = X264CompressionSession::factory(),
                .sink = sink,
            },
            std::move(events), config);
    };

    auto openRemoteControl = [backends, gnome, portal, &log](RemoteControl::Report report)
        -> std::variant<std::shared_ptr<RemoteControl>, std::string> {
        auto remote = firstThatOpens<Remote>(backends, log, [&](DesktopBackend backend) -> Remote {
            switch (backend) {
                case DesktopBackend::x11:
                    return x11Remote();
                case DesktopBackend::gnome:
                    return waylandRemote(gnome);
                case DesktopBackend::portal:
                    return waylandRemote(portal);
            }
            return std::string("unknown backend");
        });
        if (auto* error = std::get_if<std::string>(&remote)) {
            return *error;
        }
        // The control is handed out by itself but keeps its services alive, and goes first.
        struct Held {
            RemoteDesktop desktop;
            GioDesktopShell shell;
            std::optional<RemoteControl> control;
        };
        auto held = std::make_shared<Held>();
        held->desktop = std::get<RemoteDesktop>(std::move(remote));
        held->control.emplace(RemoteControl::Services{.input = *held->desktop.input,
                                                      .clipboard = *held->desktop.clipboard,
                                                      .shell = held->shell,
                                                      .windows = *held->desktop.windows},
                              std::move(report));
        return std::shared_ptr<RemoteControl>(held, &*held->control);
    };
    auto shareScreen = [backends, gnome, portal] {
        for (const auto backend : backends) {
            const bool shared = backend == DesktopBackend::x11 ||
                                (backend == DesktopBackend::gnome &&
                                 std::holds_alternative<std::shared_ptr<GnomeRemoteDesktop>>(
                                     gnome->current(false))) ||
                                (backend == DesktopBackend::portal &&
                                 std::holds_alternative<std::shared_ptr<PortalRemoteDesktop>>(
                                     portal->current(false)));
            if (shared) {
                return;  // what failed is said when the stream opens
            }
        }
    };
    return {std::move(openStream), std::move(openRemoteControl), std::move(shareScreen)};
}

}  // namespace velmorand::extension
