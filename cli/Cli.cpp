#include "Cli.h"

#include <CLI/CLI.hpp>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>

#include "BroadcastCommand.h"
#include "CliContext.h"
#include "ConfigCommands.h"
#include "EncodeCommands.h"
#include "PairingCommands.h"
#include "RelayClientCommand.h"

namespace velmorand::cli {
namespace {

constexpr const char* kGlobalOptionsNote =
    "Global options, before or after the command: --data-dir DIR, --bundle-dir DIR, "
    "--service-url URL (see velmorand --help).";

// The first word that is not an option, nor an option's value, when it names no command.
std::optional<std::string> unknownCommand(const CLI::App& app, int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string_view word = argv[i];
        if (word == "--") {
            return std::nullopt;
        }
        if (word.starts_with("-")) {
            const auto* option =
                app.get_option_no_throw(std::string(word.substr(0, word.find('='))));
            if (option != nullptr && option->get_type_size() != 0 &&
                word.find('=') == std::string_view::npos) {
                ++i;  // its value
            }
            continue;
        }
        for (const CLI::App* command : app.get_subcommands({})) {
            if (command->check_name(std::string(word))) {
                return std::nullopt;
            }
        }
        return std::string(word);
    }
    return std::nullopt;
}

}  // namespace

int run(int argc, char** argv) {
    CLI::App app(
        "Velmorand Connect: pair this device with the Velmorand dashboard and manage "
        "what the screen broadcast uses.",
        "velmorand");
    app.set_version_flag("--version", std::string("velmorand ") + VELMORAND_VERSION);
    app.require_subcommand(1);

    GlobalOptions options;
    app.add_option("--data-dir", options.locations.dataDir,
                   "Where the stores live (default: $VELMORAND_DATA_DIR, else "
                   "$XDG_DATA_HOME/velmorand)")
        ->type_name("DIR");
    app.add_option("--bundle-dir", options.locations.bundleDir,
                   "The application bundle (default: $VELMORAND_BUNDLE_DIR, else the one "
                   "installed beside this program)")
        ->type_name("DIR");
    app.add_option("--service-url", options.serviceUrl,
                   "The Velmorand service to pair with (default: $VELMORAND_SERVICE_URL, else "
                   "the built-in one)")
        ->type_name("URL");

    CliContext context(options, argc, argv);
    Action action;
    addConfigCommands(app, context, action);
    addPairingCommands(app, context, action);
    addEncodeCommands(app, context, action);
    addBroadcastCommand(app, context, action);
    addRelayClientCommand(app, context, action);
    // The global options may come after the command too ("velmorand pair KEY --data-dir D"), and
    // every command's help says so.
    app.fallthrough(true);
    // A footer a command set for itself is kept, above the note.
    const auto noteGlobalOptions = [](CLI::App* command) {
        command->fallthrough(true);
        const std::string own = command->get_footer();
        command->footer(own.empty() ? kGlobalOptionsNote : own + "\n\n" + kGlobalOptionsNote);
    };
    for (CLI::App* command : app.get_subcommands({})) {
        noteGlobalOptions(command);
        for (CLI::App* inner : command->get_subcommands({})) {
            noteGlobalOptions(inner);
        }
    }
    if (const auto unknown = unknownCommand(app, argc, argv)) {
        std::cerr << "velmorand: unknown command \"" << *unknown
                  << "\" (see velmorand --help for the commands)\n";
        return kExitUsage;
    }

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& help) {
        return app.exit(help);
    } catch (const CLI::CallForAllHelp& help) {
        return app.exit(help);
    } catch (const CLI::CallForVersion& version) {
        return app.exit(version);
    } catch (const CLI::ParseError& error) {
        std::cerr << "velmorand: " << error.what() << " (see velmorand --help)\n";
        return kExitUsage;
    }
    try {
        context.resolveEndpoints();
    } catch (const InvalidServiceUrl& error) {
        std::cerr << "velmorand: " << error.what() << "\n";
        return kExitUsage;
    }
    return action ? action() : kExitUsage;
}

}  // namespace velmorand::cli
