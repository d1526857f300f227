#pragma once

#include "ConfigCommands.h"

namespace velmorand::cli {

// `broadcast`: runs the upload extension in the foreground, for devices without the application.
void addBroadcastCommand(CLI::App& app, CliContext& context, Action& action);

}  // namespace velmorand::cli
