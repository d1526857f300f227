#include "velmorand/extension/ExtensionOptions.h"

#include <CLI/CLI.hpp>
#include <cmath>

namespace velmorand::extension {
namespace {

// CLI11 reads "inf" and "nan" as numbers; a delay must be an actual duration.
std::string positiveSeconds(const std::string& text) {
    double value = 0;
    if (!CLI::detail::lexical_cast(text, value) || !std::isfinite(value) || value <= 0) {
        return "must be a positive number of seconds";
    }
    return {};
}

}  // namespace

std::variant<ExtensionOptions, ExtensionOptions::Exit> ExtensionOptions::parse(
    const std::vector<std::string>& arguments, const std::string& version) {
    ExtensionOptions options;
    std::optional<std::string> dataDir;
    std::optional<std::string> bundleDir;

    CLI::App app(
        "The screen-broadcast upload extension: connects this device to the relay, streams the "
        "screen (X11, or Wayland through GNOME's compositor or the desktop portals) to the "
        "viewers that ask for it, and "
        "carries out their remote-control commands, logging each.",
        "velmorand-broadcast");
    app.set_version_flag("--version", "velmorand-broadcast " + version);
    app.add_option("--data-dir", dataDir,
                   "Where the settings, keychain and group container live (default: "
                   "$VELMORAND_DATA_DIR, else $XDG_DATA_HOME/velmorand)")
        ->type_name("DIR");
    app.add_option("--bundle-dir", bundleDir,
                   "The application bundle (default: $VELMORAND_BUNDLE_DIR, else the one holding "
                   "this extension)")
        ->type_name("DIR");
    app.add_flag("--view-only", options.viewOnly,
                 "Stream the screen but carry out none of the viewers' commands");
    app.add_option("--desktop", options.desktop,
                   "How to reach the desktop: x11, gnome (GNOME's own remote-desktop interfaces), "
                   "portal (the desktop portals) or auto, which picks from the session "
                   "(default: $VELMORAND_DESKTOP, else auto)")
        ->check(CLI::IsMember({"x11", "gnome", "portal", "auto"}));
    const CLI::Validator positive(positiveSeconds, "SECONDS", "positive");
    app.add_option("--min-delay", options.reconnect.minDelay, "Shortest reconnect delay")
        ->check(positive)
        ->capture_default_str();
    app.add_option("--max-delay", options.reconnect.maxDelay, "Longest reconnect delay")
        ->check(positive)
        ->capture_default_str();
    app.add_option("--jitter", options.reconnect.jitter, "Largest random addition to a delay")
        ->check(positive)
        ->capture_default_str();

    // CLI11 wants the arguments last first.
    std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());
    try {
        app.parse(reversed);
    } catch (const CLI::CallForHelp&) {
        return Exit{0, app.help()};
    } catch (const CLI::CallForVersion&) {
        return Exit{0, app.version() + "\n"};
    } catch (const CLI::ParseError& error) {
        return Exit{2, "velmorand-broadcast: " + std::string(error.what()) + "\n"};
    }
    if (options.reconnect.minDelay > options.reconnect.maxDelay) {
        return Exit{2, "velmorand-broadcast: --min-delay must not exceed --max-delay\n"};
    }
    if (dataDir) {
        options.dataDir = *dataDir;
    }
    if (bundleDir) {
        options.bundleDir = *bundleDir;
    }
    return options;
}

}  // namespace velmorand::extension
