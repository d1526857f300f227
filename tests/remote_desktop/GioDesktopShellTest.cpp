#include "velmorand/gio/GioDesktopShell.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "TempDir.h"

namespace velmorand {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

void write(const fs::path& path, const std::string& contents) {
    fs::create_directories(path.parent_path());
    std::ofstream(path) << contents;
}

// XDG directories of the test's own, with a probe application that notes each start, and what
// it was given, in a file. GLib reads the XDG variables once per process, so they are set
// before its first use and stay for the rest of it.
class DesktopHome {
  public:
    DesktopHome() {
        const fs::path& root = directory_.path();
        const fs::path probe = root / "probe.sh";
        write(probe, "#!/bin/sh\nprintf '%s\\n' \"$*\" >> '" + started().string() + "'\n");
        fs::permissions(probe, fs::perms::owner_all);
        write(root / "data/applications/velmorand-probe.desktop",
              "[Desktop Entry]\nType=Application\nName=Velmorand Probe\nExec=" + probe.string() +
                  " %u\nMimeType=x-scheme-handler/https;\nStartupWMClass=VelmorandProbe\n");
        write(root / "data/applications/velmorand-plain.desktop",
              "[Desktop Entry]\nType=Application\nName=Velmorand Plain\nExec=true\n");
        write(root / "config/mimeapps.list",
              "[Default Applications]\nx-scheme-handler/https=velmorand-probe.desktop\n");
        write(root / "config/user-dirs.dirs",
              "XDG_DOWNLOAD_DIR=\"" + (root / "Incoming").string() + "\"\n");
        ::setenv("XDG_DATA_HOME", (root / "data").c_str(), 1);
        ::setenv("XDG_CONFIG_HOME", (root / "config").c_str(), 1);
        // No session bus: GIO starts the program itself rather than asking one to.
        ::setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + (root / "no-bus").string()).c_str(),
                 1);
    }

    const fs::path& root() const { return directory_.path(); }
    fs::path started() const { return directory_.path() / "started"; }

  private:
    testing::TempDir directory_;
};

const DesktopHome& desktopHome() {
    static const DesktopHome home;
    return home;
}

std::vector<std::string> lines(const fs::path& path) {
    std::ifstream file(path);
    std::vector<std::string> read;
    for (std::string line; std::getline(file, line);) {
        read.push_back(line);
    }
    return read;
}

// This process's children, running or not yet waited for.
std::vector<std::string> children() {
    const std::string parent = std::to_string(::getpid());
    std::vector<std::string> found;
    for (const auto& entry : fs::directory_iterator("/proc")) {
        std::ifstream stat(entry.path() / "stat");
        std::string line;
        if (!std::getline(stat, line)) {
            continue;
        }
        // "pid (command) state ppid ...", where the command may hold anything.
        const auto afterCommand = line.rfind(')');
        std::istringstream fields(line.substr(afterCommand + 1));
        std::string state;
        std::string ppid;
        fields >> state >> ppid;
        if (ppid == parent) {
            found.push_back(line.substr(0, afterCommand + 1) + " " + state);
        }
    }
    return found;
}

TEST(GioDesktopShellTest, StartsAndDescribesInstalledApplications) {
    const auto& home = desktopHome();
    GioDesktopShell shell;
    fs::remove(home.started());

    EXPECT_EQ(shell.launch("velmorand-probe.desktop"), std::nullopt);
    EXPECT_EQ(shell.launch("velmorand-probe.desktop"), std::nullopt);
    EXPECT_EQ(shell.openUrl("https://example.com/a?b=c"), std::nullopt);
    const auto until = std::chrono::steady_clock::now() + 5s;
    while (lines(home.started()).size() < 3 && std::chrono::steady_clock::now() < until) {
        std::this_thread::sleep_for(10ms);
    }
    auto started = lines(home.started());
    std::sort(started.begin(), started.end());
    EXPECT_EQ(started, (std::vector<std::string>{"", "", "https://example.com/a?b=c"}));
    // Nothing started is left for this process to reap.
    while (!children().empty() && std::chrono::steady_clock::now() < until) {
        std::this_thread::sleep_for(10ms);
    }
    EXPECT_EQ(children(), std::vector<std::string>());

    EXPECT_EQ(shell.launch("velmorand-missing.desktop"),
              "no installed application has the id velmorand-missing.desktop");
    struct Case {
        const char* id;
        std::optional<std::vector<std::string>> classes;
    };
    const Case cases[] = {
        {"velmorand-probe.desktop", std::vector<std::string>{"VelmorandProbe"}},
        {"velmorand-plain.desktop", std::vector<std::string>()},
        {"velmorand-missing.desktop", std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(shell.windowClasses(c.id), c.classes) << c.id;
    }
    EXPECT_EQ(shell.downloadsDirectory(), home.root() / "Incoming");
}

}  // namespace
}  // namespace velmorand
