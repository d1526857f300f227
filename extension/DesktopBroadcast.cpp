#include "DesktopBroadcast.h"

#include <cstdlib>
#include <memory>
#include <mutex>
#include <utility>

#include "velmorand/codec/LibyuvPictureConverter.h"
#include "velmorand/codec/TurboJpegCompressor.h"
#include "velmorand/codec/X264CompressionSession.h"
#include "velmorand/dbus/DBusSession.h"
#include "velmorand/gio/GioDesktopShell.h"
#include "velmorand/gnome/GnomeClipboard.h"
#include "velmorand/gnome/GnomeInputInjector.h"
#include "velmorand/gnome/GnomeRemoteDesktop.h"
#include "velmorand/pipewire/PipeWireScreenCapture.h"
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

// GNOME's remote-desktop session, shared by the capture and the remote control, and opened again
// when the compositor has closed it (it restarted, or ended the session).
class GnomeSessions {
  public:
    std::variant<std::shared_ptr<GnomeRemoteDesktop>, std::string> current() {
        std::lock_guard lock(mutex_);
        if (session_ && !session_->closed()) {
            return session_;
        }
        session_.reset();
        if (!bus_) {
            auto connected = DBusSession::connect();
            if (auto* error = std::get_if<std::string>(&connected)) {
                return *error;
            }
            bus_ = std::get<std::shared_ptr<DBusSession>>(std::move(connected));
        }
        auto opened = GnomeRemoteDesktop::open(bus_);
        if (auto* error = std::get_if<std::string>(&opened)) {
            return *error;
        }
        session_ = std::get<std::shared_ptr<GnomeRemoteDesktop>>(std::move(opened));
        return session_;
    }

  private:
    std::mutex mutex_;
    std::shared_ptr<DBusSession> bus_;
    std::shared_ptr<GnomeRemoteDesktop> session_;
};

Capture gnomeCapture(GnomeSessions& sessions) {
    auto session = sessions.current();
    if (auto* error = std::get_if<std::string>(&session)) {
        return *error;
    }
    auto opened = PipeWireScreenCapture::open(
        -1, std::get<std::shared_ptr<GnomeRemoteDesktop>>(session)->pipeWireNode());
    if (auto* error = std::get_if<CaptureError>(&opened)) {
        return error->description;
    }
    return std::move(std::get<std::unique_ptr<ScreenCapture>>(opened));
}

Remote gnomeRemote(const std::shared_ptr<GnomeSessions>& sessions) {
    auto session = sessions->current();
    if (auto* error = std::get_if<std::string>(&session)) {
        return *error;
    }
    const GnomeInputInjector::Session current =
        [sessions]() -> std::shared_ptr<GnomeRemoteDesktop> {
        auto now = sessions->current();
        auto* open = std::get_if<std::shared_ptr<GnomeRemoteDesktop>>(&now);
        return open != nullptr ? *open : nullptr;
    };
    // Read once the session has started: the seat has a keyboard only from then on.
    auto keymap = WaylandKeymap::read();
    auto* layout = std::get_if<WaylandKeymap>(&keymap);
    RemoteDesktop services;
    services.input = std::make_unique<GnomeInputInjector>(
        current, layout != nullptr ? std::optional(std::move(*layout)) : std::nullopt);
    services.clipboard = std::make_unique<GnomeClipboard>(current);
    services.windows = std::make_unique<NoWindowCloser>();
    return services;
}

// Tries each backend in turn; the first that opens wins, else one line names what each lacked.
template <typename Result, typename Open>
Result firstThatOpens(const std::vector<DesktopBackend>& backends, Open&& open) {
    std::string tried;
    for (const auto backend : backends) {
        Result result = open(backend);
        auto* error = std::get_if<std::string>(&result);
        if (error == nullptr) {
            return result;
        }
        if (backends.size() == 1) {
            return result;
        }
        tried += (tried.empty() ? "" : "; ") + backendName(backend) + ": " + *error;
    }
    return "no desktop backend fits (" + tried + ")";
}

}  // namespace

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

DesktopServices desktopServices(const DesktopFacts& facts, FrameSink& sink) {
    auto chosen = backendsFor(facts);
    if (auto* reason = std::get_if<std::string>(&chosen)) {
        return {
            [reason = *reason](const StreamConfig&, ScreenStream::Events)
                -> std::variant<std::unique_ptr<ScreenStream>, std::string> { return reason; },
            [reason = *reason](RemoteControl::Report)
                -> std::variant<std::shared_ptr<RemoteControl>, std::string> { return reason; },
        };
    }
    const auto backends = std::get<std::vector<DesktopBackend>>(std::move(chosen));
    auto gnome = std::make_shared<GnomeSessions>();

    auto openStream = [backends, gnome, &sink](const StreamConfig& config,
                                               ScreenStream::Events events)
        -> std::variant<std::unique_ptr<ScreenStream>, std::string> {
        auto capture = firstThatOpens<Capture>(backends, [&](DesktopBackend backend) -> Capture {
            switch (backend) {
                case DesktopBackend::x11:
                    return x11Capture();
                case DesktopBackend::gnome:
                    return gnomeCapture(*gnome);
                case DesktopBackend::portal:
                    return std::string("not built into this version");
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

    auto openRemoteControl = [backends, gnome](RemoteControl::Report report)
        -> std::variant<std::shared_ptr<RemoteControl>, std::string> {
        auto remote = firstThatOpens<Remote>(backends, [&](DesktopBackend backend) -> Remote {
            switch (backend) {
                case DesktopBackend::x11:
                    return x11Remote();
                case DesktopBackend::gnome:
                    return gnomeRemote(gnome);
                case DesktopBackend::portal:
                    return std::string("not built into this version");
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
    return {std::move(openStream), std::move(openRemoteControl)};
}

}  // namespace velmorand::extension
