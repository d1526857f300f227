#include "CliContext.h"

#include "velmorand/config/AppGroup.h"
#include "velmorand/config/SharedConfig.h"
#include "velmorand/desktop/DataRoot.h"
#include "velmorand/desktop/DesktopBundle.h"
#include "velmorand/desktop/DesktopSettingsStores.h"
#include "velmorand/desktop/PlistKeychain.h"

namespace velmorand::cli {
namespace {

// Installed or built, the bundle sits at ../share/velmorand/bundle from the program.
std::filesystem::path bundleBesideProgram() {
    std::error_code error;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
    if (error) {
        return "share/velmorand/bundle";
    }
    return program.parent_path().parent_path() / "share" / "velmorand" / "bundle";
}

}  // namespace

struct CliContext::Stores {
    explicit Stores(const GlobalOptions& options)
        : root(DataRoot::resolve(options.dataDir)),
          bundle(DesktopBundle::resolveDirectory(options.bundleDir, bundleBesideProgram())),
          settings(root),
          keychain(root.keychainFile(), bundle.resource("embedded", "mobileprovision")),
          appGroup(bundle),
          config(settings, keychain, appGroup) {}

    DataRoot root;
    DesktopBundle bundle;
    DesktopSettingsStores settings;
    PlistKeychain keychain;
    AppGroup appGroup;
    SharedConfig config;
};

CliContext::CliContext(const GlobalOptions& options) : options_(options) {}

CliContext::~CliContext() = default;

SharedConfig& CliContext::config() {
    if (!stores_) {
        stores_ = std::make_unique<Stores>(options_);
    }
    return stores_->config;
}

}  // namespace velmorand::cli
