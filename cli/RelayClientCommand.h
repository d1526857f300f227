#pragma once

#include "ConfigCommands.h"

namespace velmorand::cli {

// `velmorand relay-client`: keeps the device's relay link up and prints one JSON line per event
// on standard output until SIGINT or SIGTERM.
void addRelayClientCommand(CLI::App& app, CliContext& context, Action& action);

}  // namespace velmorand::cli
