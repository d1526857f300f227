#include "DesktopBroadcast.h"

#include <memory>
#include <utility>

#include "velmorand/codec/LibyuvPictureConverter.h"
#include "velmorand/codec/TurboJpegCompressor.h"
#include "velmorand/codec/X264CompressionSession.h"
#include "velmorand/gio/GioDesktopShell.h"
#include "velmorand/x11/XcbClipboard.h"
#include "velmorand/x11/XcbInputInjector.h"
#include "velmorand/x11/XcbScreenCapture.h"
#include "velmorand/x11/XcbWindowCloser.h"

namespace velmorand::extension {

Broadcast::StreamOpener desktopStreamOpener(FrameSink& sink) {
    return [&sink](const StreamConfig& config, ScreenStream::Events events)
               -> std::variant<std::unique_ptr<ScreenStream>, std::string> {
        auto opened = XcbScreenCapture::open(nullptr);
        if (const auto* error = std::get_if<CaptureError>(&opened)) {
            return error->description;
        }
        return std::make_unique<ScreenStream>(
            ScreenStream::Services{
                .capture = std::move(std::get<std::unique_ptr<ScreenCapture>>(opened)),
                .converter = std::make_unique<LibyuvPictureConverter>(),
                .jpeg = std::make_unique<TurboJpegCompressor>(),
                .makeH264 = X264CompressionSession::factory(),
                .sink = sink,
            },
            std::move(events), config);
    };
}

Broadcast::RemoteControlOpener desktopRemoteControlOpener() {
    return [](RemoteControl::Report report)
               -> std::variant<std::shared_ptr<RemoteControl>, std::string> {
        // The control is handed out by itself but keeps its services alive, and goes first.
        struct Held {
            std::unique_ptr<InputInjector> input;
            std::unique_ptr<Pasteboard> clipboard;
            std::unique_ptr<WindowCloser> windows;
            GioDesktopShell shell;
            std::optional<RemoteControl> control;
        };
        auto held = std::make_shared<Held>();
        auto input = XcbInputInjector::open(nullptr);
        if (auto* error = std::get_if<std::string>(&input)) {
            return *error;
        }
        held->input = std::move(std::get<std::unique_ptr<InputInjector>>(input));
        auto clipboard = XcbClipboard::open(nullptr);
        if (auto* error = std::get_if<std::string>(&clipboard)) {
            return *error;
        }
        held->clipboard = std::move(std::get<std::unique_ptr<Pasteboard>>(clipboard));
        auto windows = XcbWindowCloser::open(nullptr);
        if (auto* error = std::get_if<std::string>(&windows)) {
            return *error;
        }
        held->windows = std::move(std::get<std::unique_ptr<WindowCloser>>(windows));
        held->control.emplace(RemoteControl::Services{.input = *held->input,
                                                      .clipboard = *held->clipboard,
                                                      .shell = held->shell,
                                                      .windows = *held->windows},
                              std::move(report));
        return std::shared_ptr<RemoteControl>(held, &*held->control);
    };
}

}  // namespace velmorand::extension
