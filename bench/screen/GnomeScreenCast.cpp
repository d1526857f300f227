#include "GnomeScreenCast.h"

#include "velmorand/dbus/DBusSession.h"
#include "velmorand/gnome/GnomeRemoteDesktop.h"
#include "velmorand/pipewire/PipeWireScreenCapture.h"

namespace velmorand::bench {
namespace {

// The screen cast goes with its session: the capture holds both.
class HeldScreenCast : public ScreenCapture {
  public:
    HeldScreenCast(std::shared_ptr<void> session, std::unique_ptr<ScreenCapture> capture)
        : session_(std::move(session)), capture_(std::move(capture)) {}
    ~HeldScreenCast() override { capture_.reset(); }

    bool waitForChange(Clock::time_point deadline) override {
        return capture_->waitForChange(deadline);
    }
    void wake() override { capture_->wake(); }
    ScreenSize size() override { return capture_->size(); }
    std::variant<ScreenImage, CaptureError> grab() override { return capture_->grab(); }

  private:
    std::shared_ptr<void> session_;
    std::unique_ptr<ScreenCapture> capture_;
};

}  // namespace

std::variant<GnomeScreenCastNode, std::string> openGnomeScreenCastNode() {
    auto bus = DBusSession::connect();
    if (const auto* error = std::get_if<std::string>(&bus)) {
        return "session bus: " + *error;
    }
    auto session = GnomeRemoteDesktop::open(std::get<std::shared_ptr<DBusSession>>(bus));
    if (const auto* error = std::get_if<std::string>(&session)) {
        return "GNOME: " + *error;
    }
    auto& open = std::get<std::shared_ptr<GnomeRemoteDesktop>>(session);
    return GnomeScreenCastNode{open, open->pipeWireNode()};
}

std::variant<std::unique_ptr<ScreenCapture>, std::string> openGnomeScreenCast() {
    auto cast = openGnomeScreenCastNode();
    if (const auto* error = std::get_if<std::string>(&cast)) {
        return *error;
    }
    auto& open = std::get<GnomeScreenCastNode>(cast);
    auto capture = PipeWireScreenCapture::open(-1, open.node);
    if (const auto* error = std::get_if<CaptureError>(&capture)) {
        return "PipeWire: " + error->description;
    }
    return std::make_unique<HeldScreenCast>(
        open.session, std::move(std::get<std::unique_ptr<ScreenCapture>>(capture)));
}

}  // namespace velmorand::bench
