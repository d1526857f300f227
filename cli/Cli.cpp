#include "Cli.h"

#include <CLI/CLI.hpp>
#include <iostream>

#include "BroadcastCommand.h"
#include "CliContext.h"
#include "ConfigCommands.h"
#include "EncodeCommands.h"
#include "PairingCommands.h"
#include "RelayClientCommand.h"

namespace velmorand::cli {

int run(int argc, char** argv) {
    CLI::App app(
        "Velmorand Connect: pair this device with the Velmorand dashboard and manage "
        "what the screen broadcast uses.",
        "velmorand");
    app.set_version_flag("--version", VELMORAND_VERSION);
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
