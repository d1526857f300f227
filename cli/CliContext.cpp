#include "CliContext.h"

#include <QCoreApplication>
#include <iostream>

#include "velmorand/config/AppGroup.h"
#include "velmorand/config/SharedConfig.h"
#include "velmorand/desktop/StderrLog.h"
#include "velmorand/pairing/PairingModel.h"
#include "velmorand/pairing/WebRtcCapability.h"
#include "velmorand/platform/Pasteboard.h"
#include "velmorand/qt/QtHttpClient.h"
#include "velmorand/qt/QtMainQueue.h"
#include "velmorand/ui/BroadcastExtension.h"

namespace velmorand::cli {
namespace {

class StdoutPasteboard : public Pasteboard {
  public:
    void setString(std::string_view text) override { std::cout << text << std::endl; }
};

}  // namespace
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

struct CliContext::Pairing {
    Pairing(CliContext& context)
        : webRtc(context.stores_->environment.classLookup, context.config(), context.log()),
          model(PairingModel::create(PairingServices{
              .config = context.config(),
              .http = context.http(),
              .mainQueue = context.mainQueue(),
              .webRtc = webRtc,
              .pasteboard = pasteboard,
              .bundle = context.bundle(),
              .broadcastExtensionLookup =
                  [&bundle = context.bundle()] {
                      return BroadcastExtension::bundleIdentifier(bundle);
                  },
              .appURL = context.endpoints().appURL,
              .wdaStatusURL = context.endpoints().wdaStatusURL,
          })) {}

    WebRtcCapability webRtc;
    StdoutPasteboard pasteboard;
    std::shared_ptr<PairingModel> model;
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

bool CliContext::saved(std::string_view what, bool kept) {
    // The stores keep what they were given in memory, so reading it back cannot tell alone.
    const auto unwritable = stores_ ? stores_->environment.root.unwritable() : std::nullopt;
    if (kept && !unwritable) {
        return true;
    }
    std::cerr << "velmorand: could not save " << what << ": "
              << unwritable.value_or("the stores under " + dataDirectory().string() +
                                     " did not keep it")
              << std::endl;
    return false;
}

std::filesystem::path CliContext::dataDirectory() {
    config();
    return stores_->environment.root.root();
}

const AppGroup& CliContext::appGroup() {
    config();
    return stores_->appGroup;
}

const GroupContainers& CliContext::groupContainers() {
    config();
    return stores_->environment.groupContainers;
}

Log& CliContext::log() {
    static StderrLog log;
    return log;
}

void CliContext::resolveEndpoints() {
    endpoints_ = ServiceEndpoints::resolve(options_.serviceUrl);
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

PairingModel& CliContext::model() {
    if (!pairing_) {
        config();
        pairing_ = std::make_unique<Pairing>(*this);
    }
    return *pairing_->model;
}

int CliContext::runEventLoop() {
    mainQueue();
    return QCoreApplication::exec();
}

void CliContext::quit(int exitStatus) {
    QCoreApplication::exit(exitStatus);
}

}  // namespace velmorand::cli
