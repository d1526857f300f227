#include "CliContext.h"

#include <QCoreApplication>
#include <cstdlib>

#include "velmorand/config/AppGroup.h"
#include "velmorand/config/SharedConfig.h"
#include "velmorand/desktop/StderrLog.h"
#include "velmorand/qt/QtHttpClient.h"
#include "velmorand/qt/QtMainQueue.h"

namespace velmorand::cli {
struct CliContext::Stores {
    explicit Stores(const DesktopLocations& locations)
        : environment(locations),
          appGroup(environment.bundle),
          config(environment.settings, environment.keychain, appGroup) {}

    DesktopEnvironment environment;
    AppGroup appGroup;
    SharedConfig config;
};

struct CliContext::EventLoop {
    EventLoop(int& argc, char** argv) : application(argc, argv), http(mainQueue) {}

    QCoreApplication application;
    QtMainQueue mainQueue;
    QtHttpClient http;
};

CliContext::CliContext(const GlobalOptions& options, int& argc, char** argv)
    : options_(options), argc_(argc), argv_(argv) {}

CliContext::~CliContext() = default;

SharedConfig& CliContext::config() {
    if (!stores_) {
        stores_ = std::make_unique<Stores>(options_.locations);
    }
    return stores_->config;
}

const Bundle& CliContext::bundle() {
    config();
    return stores_->environment.bundle;
}

Log& CliContext::log() {
    static StderrLog log;
    return log;
}

std::string CliContext::serviceUrl() const {
    if (options_.serviceUrl) {
        return *options_.serviceUrl;
    }
    if (const char* fromEnvironment = std::getenv("VELMORAND_SERVICE_URL");
        fromEnvironment && *fromEnvironment) {
        return fromEnvironment;
    }
    return VELMORAND_SERVICE_URL;
}

MainQueue& CliContext::mainQueue() {
    if (!loop_) {
        loop_ = std::make_unique<EventLoop>(argc_, argv_);
    }
    return loop_->mainQueue;
}

HttpClient& CliContext::http() {
    mainQueue();
    return loop_->http;
}

int CliContext::runEventLoop() {
    mainQueue();
    return QCoreApplication::exec();
}

void CliContext::quit(int exitStatus) {
    QCoreApplication::exit(exitStatus);
}

}  // namespace velmorand::cli
