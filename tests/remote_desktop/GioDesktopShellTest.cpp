#include "velmorand/gio/GioDesktopShell.h"

#include <gtest/gtest.h>

#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "ScopedEnv.h"
#include "TempDir.h"

namespace velmorand {
namespace {

using Classes = std::optional<std::vector<std::string>>;

// kill_app closes an application's windows by the classes its desktop entry declares, beside
// the entry's own name; GLib reads the data directories once, so each test sets them first.
TEST(GioDesktopShellTest, AnEntryDeclaresTheWindowClassesOfItsApplication) {
    testing::TempDir data;
    std::filesystem::create_directories(data.path() / "applications");
    const auto entry = [&](const char* id, const char* extra) {
        std::ofstream(data.path() / "applications" / id)
            << "[Desktop Entry]\nType=Application\nName=" << id << "\nExec=true\n"
            << extra;
    };
    entry("org.example.Editor.desktop", "StartupWMClass=editor-main\n");
    entry("org.example.Plain.desktop", "");
    entry("org.example.Blank.desktop", "StartupWMClass=\n");
    const testing::ScopedEnv home("XDG_DATA_HOME", data.path().c_str());
    const testing::ScopedEnv dirs("XDG_DATA_DIRS", data.path().c_str());

    const std::pair<const char*, Classes> cases[] = {
        {"org.example.Editor.desktop", std::vector<std::string>{"editor-main"}},
        {"org.example.Plain.desktop", std::vector<std::string>{}},
        {"org.example.Blank.desktop", std::vector<std::string>{}},
        {"org.example.Missing.desktop", std::nullopt},
    };
    GioDesktopShell shell;
    for (const auto& [id, classes] : cases) {
        EXPECT_EQ(shell.windowClasses(id), classes) << id;
    }
}

}  // namespace
}  // namespace velmorand
