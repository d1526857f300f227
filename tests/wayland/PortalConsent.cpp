// velmorand_portal_consent: the person at the device, for the portal's tests. Watches the screen
// of the headless GNOME session (through the compositor's own remote desktop) until the portal's
// dialog is there, then answers it as a person would with the pointer: picks the monitor when
// none is picked, switches remote interaction on when asked to, and presses Share.
//
//   velmorand_portal_consent [--remote-interaction] [--timeout SECONDS] [--dump PPM]
//
// Prints "shared" and exits 0, or says what it saw (and, with --dump, leaves the screen as it saw
// it) and exits 1. The dialog is the GNOME portal's
// (xdg-desktop-portal-gnome 43): 520x300, centred, Share at its top right.
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include "velmorand/dbus/DBusSession.h"
#include "velmorand/gnome/GnomeRemoteDesktop.h"
#include "velmorand/pipewire/PipeWireScreenCapture.h"

namespace {

using namespace velmorand;
using namespace std::chrono_literals;

struct Rgb {
    int r = 0;
    int g = 0;
    int b = 0;
};

// The dialog's places, from the screen's centre: the Share button (and a point on it off its
// label, to see its colour), the first monitor, the remote interaction switch.
constexpr int kShareX = 213;
constexpr int kShareY = -127;
constexpr int kShareColourX = 180;
constexpr int kShareColourY = -117;
constexpr int kMonitorRowY = 26;
constexpr int kInteractionX = 189;
constexpr int kInteractionY = 72;

class Person {
  public:
    Person(std::shared_ptr<GnomeRemoteDesktop> desktop, std::unique_ptr<ScreenCapture> screen)
        : desktop_(std::move(desktop)), screen_(std::move(screen)) {}

    Rgb at(int dx, int dy) {
        screen_->waitForChange(ScreenCapture::Clock::now() + 200ms);
        const auto grabbed = screen_->grab();
        const auto* image = std::get_if<ScreenImage>(&grabbed);
        if (image == nullptr || image->width == 0) {
            return {};
        }
        const int x = image->width / 2 + dx;
        const int y = image->height / 2 + dy;
        const std::uint8_t* pixel = image->pixels + y * image->stride + x * 4;
        return {pixel[2], pixel[1], pixel[0]};
    }

    // Whether the point at (dx, dy) turns blue within `patience`: the dialog animates its
    // switches, and a loaded machine's compositor draws late.
    bool turnsBlue(int dx, int dy, std::chrono::milliseconds patience) {
        const auto until = std::chrono::steady_clock::now() + patience;
        while (!blue(at(dx, dy))) {
            if (std::chrono::steady_clock::now() > until) {
                return false;
            }
        }
        return true;
    }

    // The screen as a PPM file, for a look after a failure.
    void dump(const std::string& path) {
        const auto grabbed = screen_->grab();
        const auto* image = std::get_if<ScreenImage>(&grabbed);
        std::FILE* file = std::fopen(path.c_str(), "wb");
        if (image == nullptr || file == nullptr) {
            return;
        }
        std::fprintf(file, "P6 %d %d 255\n", image->width, image->height);
        for (int y = 0; y < image->height; ++y) {
            for (int x = 0; x < image->width; ++x) {
                const std::uint8_t* pixel = image->pixels + y * image->stride + x * 4;
                std::fputc(pixel[2], file);
                std::fputc(pixel[1], file);
                std::fputc(pixel[0], file);
            }
        }
        std::fclose(file);
    }

    // A saturated blue: the Share button (pale while it cannot be pressed), a switch that is on.
    static bool blue(Rgb c) { return c.b > 200 && c.b - c.r > 60; }
    static bool pale(Rgb c) { return c.r > 120; }

    void click(int dx, int dy) {
        const auto size = desktop_->screenSize();
        desktop_->movePointer(size.width / 2 + dx + 0.5, size.height / 2 + dy + 0.5);
        desktop_->sync();
        std::this_thread::sleep_for(100ms);
        desktop_->setButton(0x110, true);
        desktop_->setButton(0x110, false);
        desktop_->sync();
        std::this_thread::sleep_for(300ms);
    }

  private:
    std::shared_ptr<GnomeRemoteDesktop> desktop_;
    std::unique_ptr<ScreenCapture> screen_;
};

}  // namespace

int main(int argc, char** argv) {
    bool interaction = false;
    std::string dumpPath;
    auto timeout = 30s;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--remote-interaction") == 0) {
            interaction = true;
        } else if (std::strcmp(argv[i], "--dump") == 0 && i + 1 < argc) {
            dumpPath = argv[++i];
        } else if (std::strcmp(argv[i], "--timeout") == 0 && i + 1 < argc) {
            timeout = std::chrono::seconds(std::stoi(argv[++i]));
        } else {
            std::fprintf(stderr,
                         "usage: velmorand_portal_consent [--remote-interaction] [--timeout S] "
                         "[--dump PPM]\n");
            return 2;
        }
    }
    auto bus = DBusSession::connect();
    if (auto* error = std::get_if<std::string>(&bus)) {
        std::fprintf(stderr, "portal consent: %s\n", error->c_str());
        return 1;
    }
    // A loaded machine's compositor may be slow to send a first picture: another try then.
    std::shared_ptr<GnomeRemoteDesktop> session;
    std::unique_ptr<ScreenCapture> screen;
    for (int tries = 0; !screen; ++tries) {
        auto desktop = GnomeRemoteDesktop::open(std::get<std::shared_ptr<DBusSession>>(bus));
        if (auto* error = std::get_if<std::string>(&desktop)) {
            std::fprintf(stderr, "portal consent: %s\n", error->c_str());
            return 1;
        }
        session = std::get<std::shared_ptr<GnomeRemoteDesktop>>(desktop);
        auto opened = PipeWireScreenCapture::open(-1, session->pipeWireNode());
        if (auto* error = std::get_if<CaptureError>(&opened)) {
            if (tries == 2) {
                std::fprintf(stderr, "portal consent: %s\n", error->description.c_str());
                return 1;
            }
            continue;
        }
        screen = std::get<std::unique_ptr<ScreenCapture>>(std::move(opened));
    }
    Person person(session, std::move(screen));
    // The compositor drops input that comes right after a session started.
    std::this_thread::sleep_for(1s);
    if (!person.turnsBlue(kShareColourX, kShareColourY, timeout)) {
        std::fprintf(stderr, "portal consent: no dialog with a Share button came\n");
        return 1;
    }
    // Once it has finished appearing.
    std::this_thread::sleep_for(500ms);
    for (int tries = 0; tries < 3 && Person::pale(person.at(kShareColourX, kShareColourY));
         ++tries) {
        person.click(0, kMonitorRowY);
    }

    if (interaction) {
        // On, the switch's track is blue where its knob was. Clicked again only once it has
        // surely not switched: a second click on a switch that is on would turn it off.
        bool on = false;
        for (int tries = 0; tries < 2 && !on; ++tries) {
            person.click(kInteractionX, kInteractionY);
            on = person.turnsBlue(kInteractionX - 12, kInteractionY, 3s);
        }
        // A first click drawn late and a second click both landing would leave it off again.
        std::this_thread::sleep_for(500ms);
        on = on && Person::blue(person.at(kInteractionX - 12, kInteractionY));
        if (!on) {
            std::fprintf(stderr, "portal consent: remote interaction did not switch on\n");
            if (!dumpPath.empty()) {
                person.dump(dumpPath);
            }
            return 1;
        }
    }
    const Rgb share = person.at(kShareColourX, kShareColourY);
    if (!Person::blue(share) || Person::pale(share)) {
        std::fprintf(stderr, "portal consent: Share cannot be pressed (%d,%d,%d)\n", share.r,
                     share.g, share.b);
        if (!dumpPath.empty()) {
            person.dump(dumpPath);
        }
        return 1;
    }
    person.click(kShareX, kShareY);
    // Said before the capture and the session are taken down, so that a fault there cannot hide it.
    std::puts("shared");
    std::fflush(stdout);
    return 0;
}
