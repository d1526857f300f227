#pragma once

#include "ConfigCommands.h"

namespace velmorand::cli {

// `encode`: sets the encode preferences as the app's encode section saves them.
// `log`: prints the tail of the upload extension's log.
void addEncodeCommands(CLI::App& app, CliContext& context, Action& action);

}  // namespace velmorand::cli
