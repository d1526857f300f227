#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "ConfigCommands.h"

namespace velmorand::cli {

// The broadcast as `status` shows it: a line for people, an object for scripts.
struct BroadcastReport {
    std::string line;
    nlohmann::ordered_json json;
};
BroadcastReport reportBroadcast(CliContext& context);

// `broadcast`: runs the upload extension in the foreground, for devices without the application;
// `broadcast --stop` stops the running one, whoever started it.
void addBroadcastCommand(CLI::App& app, CliContext& context, Action& action);

}  // namespace velmorand::cli
