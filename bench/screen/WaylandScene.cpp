// velmorand_bench_wayland_scene: the bench scene (ScenePicture.h, with the wall-clock time drawn
// in as TimeCode.h's block code) in a full-screen window of a Wayland desktop, for the stream
// benchmarks of the Wayland path. The time is taken as the picture is drawn into the window's
// buffer, just before the buffer is handed to the compositor.
//
//   velmorand_bench_wayland_scene [--fps N] [--still]
// Prints "ready WxH" on stdout once its picture has been on the screen for a frame. Ends on
// SIGTERM or SIGINT (their default action), or with the compositor.
#include <time.h>

#include <QElapsedTimer>
#include <QGuiApplication>
#include <QImage>
#include <QPainter>
#include <QRasterWindow>
#include <QTimer>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "SceneOptions.h"
#include "ScenePicture.h"
#include "TimeCode.h"

namespace {

using namespace velmorand::bench;

std::uint64_t realtimeUs() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000U +
           static_cast<std::uint64_t>(now.tv_nsec) / 1000U;
}

class SceneWindow : public QRasterWindow {
  public:
    SceneWindow(double fps, bool still) : still_(still) {
        timer_.setTimerType(Qt::PreciseTimer);
        timer_.setInterval(static_cast<int>(1000.0 / fps));
        QObject::connect(&timer_, &QTimer::timeout, this, [this] { update(); });
        clock_.start();
    }

  protected:
    void paintEvent(QPaintEvent*) override {
        const QSize size = this->size() * devicePixelRatio();
        if (!picture_ || image_.size() != size) {
            image_ = QImage(size, QImage::Format_RGB32);
            picture_ = std::make_unique<ScenePicture>(size.width(), size.height());
        }
        // Motion follows the clock in steps of 1/60 s, as on X11.
        picture_->paint(image_.bits(), static_cast<int>(image_.bytesPerLine()),
                        clock_.nsecsElapsed() * 60 / 1'000'000'000);
        drawTimeCode(image_.bits(), static_cast<int>(image_.bytesPerLine()), image_.width(),
                     image_.height(), realtimeUs());
        QPainter(this).drawImage(QRect(QPoint(0, 0), this->size()), image_);
        // The first picture is on the screen once the compositor asks for the next one.
        if (++painted_ == 1) {
            requestUpdate();
        } else if (painted_ == 2) {
            std::printf("ready %dx%d\n", image_.width(), image_.height());
            std::fflush(stdout);
            if (!still_) {
                timer_.start();
            }
        }
    }

  private:
    bool still_;
    QTimer timer_;
    QElapsedTimer clock_;
    QImage image_;
    std::unique_ptr<ScenePicture> picture_;
    int painted_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
    const auto parsed =
        velmorand::bench::parseSceneOptions(argc, argv, "velmorand_bench_wayland_scene");
    if (const auto* status = std::get_if<int>(&parsed)) {
        return *status;
    }
    const auto [fps, still] = std::get<velmorand::bench::SceneOptions>(parsed);
    ::setenv("QT_QPA_PLATFORM", "wayland", 1);
    QGuiApplication application(argc, argv);
    SceneWindow window(fps, still);
    window.showFullScreen();
    return QGuiApplication::exec();
}
