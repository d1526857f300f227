#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "velmorand/desktop/DesktopEnvironment.h"
#include "velmorand/desktop/ServiceEndpoints.h"

namespace velmorand {

class SharedConfig;
class AppGroup;
class Bundle;
class GroupContainers;
class MainQueue;
class HttpClient;
class Log;
class PairingModel;

namespace cli {

// What the global options chose.
struct GlobalOptions {
    DesktopLocations locations;
    std::optional<std::string> serviceUrl;
};

// The desktop services a command runs against, built on first use so that a command pays only
// for what it touches: `config show` never starts an event loop.
class CliContext {
  public:
    // Holds `options` by reference: parsing fills them in after the commands are set up.
    CliContext(const GlobalOptions& options, int& argc, char** argv);
    ~CliContext();
    CliContext(const CliContext&) = delete;
    CliContext& operator=(const CliContext&) = delete;

    SharedConfig& config();
    const Bundle& bundle();
    const AppGroup& appGroup();
    const GroupContainers& groupContainers();
    // Where the stores live, as the options and the environment chose it.
    std::filesystem::path dataDirectory();
    // After a save: true when the stores kept it (`kept`, what the command read back, and the
    // stores' directories can be written); otherwise says on stderr that `what` could not be saved,
    // where and why, and returns false.
    bool saved(std::string_view what, bool kept);
    Log& log();
    // Chooses the service (--service-url, else $VELMORAND_SERVICE_URL, else the build's default)
    // and the on-device automation server, once options are parsed. Throws InvalidServiceUrl.
    void resolveEndpoints();
    const ServiceEndpoints& endpoints() const { return endpoints_; }

    // The main queue on an event loop that runs only inside runEventLoop().
    MainQueue& mainQueue();
    HttpClient& http();
    // One model per command, on the event loop's main queue. The pair link it copies is
    // printed on standard output: a terminal has no pasteboard.
    PairingModel& model();
    // Runs the event loop until quit(); returns the status given to quit().
    int runEventLoop();
    void quit(int exitStatus);

  private:
    struct Stores;
    struct EventLoop;
    struct Pairing;

    const GlobalOptions& options_;
    int& argc_;
    char** argv_;
    ServiceEndpoints endpoints_;
    std::unique_ptr<Stores> stores_;
    std::unique_ptr<EventLoop> loop_;
    std::unique_ptr<Pairing> pairing_;
};

}  // namespace cli
}  // namespace velmorand
