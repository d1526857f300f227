// The real Main.qml against the real bridges, with the sandbox service in process, on the
// offscreen platform.
#include <QQmlContext>
#include <QQmlEngine>
#include <QTemporaryDir>
#include <QtQuickTest>
#include <filesystem>
#include <memory>

#include "AppServices.h"
#include "AppTestSupport.h"
#include "HoldingProxy.h"
#include "ScreenBridges.h"
#include "velmorand/sandbox/Sandbox.h"

namespace fs = std::filesystem;
using namespace velmorand;

class Setup : public QObject {
    Q_OBJECT

  public:
    Setup() {
        if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
            qputenv("QT_QPA_PLATFORM", "offscreen");
        }
    }

  public slots:
    void applicationAvailable() {
        const fs::path root = scratch_.path().toStdString();
        const auto dataDir = root / "data";
        const auto bundleDir = root / "bundle";
        fs::create_directories(bundleDir / "PlugIns");
        for (const char* name : {"Info.plist", "embedded.mobileprovision"}) {
            fs::copy_file(fs::path(VELMORAND_BUNDLE_SOURCE_DIR) / name, bundleDir / name);
        }

        sandbox::SandboxOptions options;
        options.wdaStartupTime = std::chrono::milliseconds(100);
        sandbox_ = std::make_unique<sandbox::Sandbox>(options);
        std::string error;
        if (!sandbox_->start(&error)) {
            qFatal("sandbox: %s", error.c_str());
        }
        proxy_ = std::make_unique<testing::HoldingProxy>(sandbox_->port());

        const DesktopLocations locations{dataDir, bundleDir};
        services_ = std::make_unique<app::AppServices>(
            locations,
            ServiceEndpoints{proxy_->baseUrl().toStdString(), sandbox_->wdaBaseUrl() + "/status"});
        const QStringList extensionArguments{
            QStringLiteral("--data-dir"), QString::fromStdString(dataDir.string()),
            QStringLiteral("--bundle-dir"), QString::fromStdString(bundleDir.string())};
        bridges_ = std::make_unique<app::ScreenBridges>(*services_, extensionArguments);
        support_ = std::make_unique<testing::AppTestSupport>(*services_, bridges_->scanner, *proxy_,
                                                             dataDir, bundleDir, root);
    }

    void qmlEngineAvailable(QQmlEngine* engine) {
        bridges_->exposeTo(*engine->rootContext());
        engine->rootContext()->setContextProperty(QStringLiteral("support"), support_.get());
    }

    // The services are QObjects of the application: gone before it is.
    void cleanupTestCase() {
        support_.reset();
        bridges_.reset();
        services_.reset();
        proxy_.reset();
        sandbox_.reset();
    }

  private:
    QTemporaryDir scratch_;
    std::unique_ptr<sandbox::Sandbox> sandbox_;
    std::unique_ptr<testing::HoldingProxy> proxy_;
    std::unique_ptr<app::AppServices> services_;
    std::unique_ptr<app::ScreenBridges> bridges_;
    std::unique_ptr<testing::AppTestSupport> support_;
};

QUICK_TEST_MAIN_WITH_SETUP(app_tests, Setup)

#include "main.moc"
