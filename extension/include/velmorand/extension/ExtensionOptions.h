#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "velmorand/relay/RelayClient.h"

namespace velmorand::extension {

// The command line of velmorand-broadcast.
struct ExtensionOptions {
    std::optional<std::filesystem::path> dataDir;
    std::optional<std::filesystem::path> bundleDir;
    RelayClient::ReconnectPolicy reconnect;
    // Stream, but carry out no viewer's command.
    bool viewOnly = false;
    // x11, gnome, portal or auto; absent: VELMORAND_DESKTOP, else auto.
    std::optional<std::string> desktop;

    // What to print instead of running: help or version (status 0, standard output) or a usage
    // error (status 2, standard error).
    struct Exit {
        int status = 0;
        std::string text;
    };

    // `arguments` without the program name.
    static std::variant<ExtensionOptions, Exit> parse(const std::vector<std::string>& arguments,
                                                      const std::string& version);
};

}  // namespace velmorand::extension
