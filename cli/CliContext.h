#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

namespace velmorand {

class SharedConfig;

namespace cli {

// What the global options chose.
struct GlobalOptions {
    std::optional<std::filesystem::path> dataDir;
    std::optional<std::filesystem::path> bundleDir;
    std::optional<std::string> serviceUrl;
};

// The desktop services a command runs against, built on first use so that a command pays only
// for what it touches (`config show` never starts an event loop).
class CliContext {
  public:
    // Holds `options` by reference: they are filled in by parsing after the commands are set up.
    explicit CliContext(const GlobalOptions& options);
    ~CliContext();
    CliContext(const CliContext&) = delete;
    CliContext& operator=(const CliContext&) = delete;

    const GlobalOptions& options() const { return options_; }
    SharedConfig& config();

  private:
    struct Stores;

    const GlobalOptions& options_;
    std::unique_ptr<Stores> stores_;
};

}  // namespace cli
}  // namespace velmorand
