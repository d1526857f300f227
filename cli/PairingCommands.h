#pragma once

#include "ConfigCommands.h"

namespace velmorand::cli {

// pair, open, scan, unpair, relay, pair-url, touch and status: each drives the pairing model
// as the screen does and prints the status lines it publishes.
void addPairingCommands(CLI::App& app, CliContext& context, Action& action);

}  // namespace velmorand::cli
