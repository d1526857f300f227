#include "DesktopStream.h"

#include <memory>
#include <utility>

#include "velmorand/codec/LibyuvPictureConverter.h"
#include "velmorand/codec/TurboJpegCompressor.h"
#include "velmorand/codec/X264CompressionSession.h"
#include "velmorand/x11/XcbScreenCapture.h"

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

}  // namespace velmorand::extension
