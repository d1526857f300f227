#pragma once

#include <functional>

namespace CLI {
class App;
}

namespace velmorand::cli {

class CliContext;

// A command's work, run after the whole command line has parsed; returns the exit status.
using Action = std::function<int()>;

void addConfigCommands(CLI::App& app, CliContext& context, Action& action);

}  // namespace velmorand::cli
