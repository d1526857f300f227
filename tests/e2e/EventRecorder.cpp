// velmorand_event_recorder: the desktop application the end-to-end tests operate, through Qt on
// X11 and on Wayland alike. A window over the whole screen, painted in four quadrants of known
// colours, that prints what reaches it as one JSON line per event:
//   {"event":"ready"}  once it is shown over the whole screen and has the keyboard focus
//   {"event":"press","button":1,"x":…,"y":…}, "release" alike, {"event":"motion","x":…,"y":…}
//   {"event":"key","keysym":"a","text":"a","ctrl":false,"shift":false}
//   {"event":"paste","text":…}  for ctrl+v, with what the clipboard holds then
// A full-screen window's own coordinates are the screen's. Commands on standard input, one a
// line: "turn" turns the pattern a quarter, "animate on" / "animate off" move a marker along the
// top edge, so that the screen keeps changing; "clipboard" prints {"event":"clipboard","text":…}
// (null when it holds no text); "copy TEXT" puts TEXT there. It ends when standard input closes,
// or with the display server.
#include <unistd.h>
#include <xkbcommon/xkbcommon.h>

#include <QClipboard>
#include <QGuiApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <QKeyEvent>
#include <QKeySequence>
#include <QMouseEvent>
#include <QPainter>
#include <QRasterWindow>
#include <QSocketNotifier>
#include <QTimer>
#include <algorithm>
#include <array>
#include <cstdio>

namespace {

// Top left, top right, bottom left, bottom right: what the stream tests look for.
constexpr std::array<std::array<int, 3>, 4> kPalette{{
    {220, 40, 40},
    {40, 180, 70},
    {40, 80, 220},
    {235, 200, 40},
}};
constexpr int kMarkerSize = 48;
constexpr int kMarkerStep = 24;
constexpr int kAnimationMs = 33;

void emitLine(const QJsonObject& object) {
    const QByteArray line = QJsonDocument(object).toJson(QJsonDocument::Compact);
    std::fwrite(line.constData(), 1, static_cast<std::size_t>(line.size()), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

class Recorder : public QRasterWindow {
  public:
    Recorder() {
        animation_.setInterval(kAnimationMs);
        QObject::connect(&animation_, &QTimer::timeout, this, [this] {
            marker_ = (marker_ + kMarkerStep) % std::max(1, width() - kMarkerSize);
            update();
        });
    }

    void command(const QString& line) {
        if (line == QLatin1String("turn")) {
            ++turns_;
            update();
        } else if (line == QLatin1String("animate on")) {
            animation_.start();
        } else if (line == QLatin1String("animate off")) {
            animation_.stop();
            update();
        } else if (line == QLatin1String("clipboard")) {
            const QString text = QGuiApplication::clipboard()->text();
            emitLine({{"event", "clipboard"},
                      {"text", text.isNull() ? QJsonValue() : QJsonValue(text)}});
        } else if (line.startsWith(QLatin1String("copy "))) {
            QGuiApplication::clipboard()->setText(line.mid(5));
        } else {
            emitLine({{"event", "error"}, {"what", "unknown command " + line}});
        }
    }

  protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        const int halfW = width() / 2;
        const int halfH = height() / 2;
        for (int i = 0; i < 4; ++i) {
            const auto& rgb = kPalette[static_cast<std::size_t>((i + 4 - turns_ % 4) % 4)];
            painter.fillRect((i % 2) * halfW, (i / 2) * halfH, i % 2 == 0 ? halfW : width() - halfW,
                             i / 2 == 0 ? halfH : height() - halfH, QColor(rgb[0], rgb[1], rgb[2]));
        }
        if (animation_.isActive()) {
            painter.fillRect(marker_, 0, kMarkerSize, kMarkerSize, Qt::black);
        }
        announceReady();
    }

    bool event(QEvent* event) override {
        if (event->type() == QEvent::FocusIn) {
            focused_ = true;
            announceReady();
        }
        return QRasterWindow::event(event);
    }

    void mousePressEvent(QMouseEvent* event) override { pointer("press", event); }
    void mouseReleaseEvent(QMouseEvent* event) override { pointer("release", event); }
    void mouseMoveEvent(QMouseEvent* event) override {
        emitLine({{"event", "motion"},
                  {"x", static_cast<int>(event->position().x())},
                  {"y", static_cast<int>(event->position().y())}});
    }

    void keyPressEvent(QKeyEvent* event) override {
        // As a text field would: what the clipboard holds is what was typed.
        if (event->matches(QKeySequence::Paste)) {
            emitLine({{"event", "paste"}, {"text", QGuiApplication::clipboard()->text()}});
            return;
        }
        char name[64] = {};
        xkb_keysym_get_name(event->nativeVirtualKey(), name, sizeof name);
        emitLine({{"event", "key"},
                  {"keysym", QString::fromLatin1(name)},
                  {"text", event->text()},
                  {"ctrl", event->modifiers().testFlag(Qt::ControlModifier)},
                  {"shift", event->modifiers().testFlag(Qt::ShiftModifier)}});
    }

  private:
    void pointer(const char* kind, QMouseEvent* event) {
        const int button = event->button() == Qt::LeftButton     ? 1
                           : event->button() == Qt::MiddleButton ? 2
                           : event->button() == Qt::RightButton  ? 3
                                                                 : 0;
        emitLine({{"event", kind},
                  {"button", button},
                  {"x", static_cast<int>(event->position().x())},
                  {"y", static_cast<int>(event->position().y())}});
    }

    // Once: shown over the whole screen, painted, and with the keyboard.
    void announceReady() {
        if (ready_ || !focused_ || screen() == nullptr || size() != screen()->size()) {
            return;
        }
        ready_ = true;
        emitLine({{"event", "ready"}});
    }

    QTimer animation_;
    int turns_ = 0;
    int marker_ = 0;
    bool focused_ = false;
    bool ready_ = false;
};

}  // namespace

int main(int argc, char** argv) {
    // Every motion is printed, not only the last of those queued: a drag is judged by its moves.
    QCoreApplication::setAttribute(Qt::AA_CompressHighFrequencyEvents, false);
    QGuiApplication application(argc, argv);
    Recorder recorder;
    if (QGuiApplication::platformName() == QLatin1String("xcb")) {
        // No window manager runs on the tests' X server: the window places itself and takes the
        // focus, which nobody else hands out.
        recorder.setGeometry(recorder.screen()->geometry());
        recorder.show();
        recorder.requestActivate();
    } else {
        recorder.showFullScreen();
    }
    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QString pending;
    QObject::connect(&input, &QSocketNotifier::activated, [&] {
        char buffer[4096];
        const auto count = ::read(STDIN_FILENO, buffer, sizeof buffer);
        if (count <= 0) {
            QGuiApplication::quit();
            return;
        }
        pending += QString::fromUtf8(buffer, static_cast<int>(count));
        for (int end = pending.indexOf('\n'); end >= 0; end = pending.indexOf('\n')) {
            recorder.command(pending.left(end));
            pending.remove(0, end + 1);
        }
    });
    return QGuiApplication::exec();
}
