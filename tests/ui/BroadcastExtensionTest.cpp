#include "velmorand/ui/BroadcastExtension.h"

#include <gtest/gtest.h>

#include <fstream>

#include "FakeBundle.h"
#include "TempDir.h"

namespace velmorand {
namespace {

using Text = std::optional<std::string>;
const std::string kUpload = "com.apple.broadcast-services-upload";

std::string plist(const std::string& body) {
    return R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict>)" + body +
           "</dict></plist>";
}

std::string entry(const char* key, const Text& value) {
    return value ? std::string("<key>") + key + "</key><string>" + *value + "</string>" : "";
}

// An extension's Info.plist; an empty point leaves out the NSExtension dictionary.
std::string info(const std::string& point, Text id, Text program = std::nullopt) {
    const auto extension = point.empty()
                               ? ""
                               : "<key>NSExtension</key><dict>" +
                                     entry("NSExtensionPointIdentifier", point) + "</dict>";
    return plist(entry("CFBundleIdentifier", id) + entry("CFBundleExecutable", program) +
                 extension);
}

// A folder with this Info.plist, a folder without one (absent), or a plain file.
struct Entry {
    std::string name;
    Text infoPlist;
    bool isFile = false;
};

TEST(BroadcastExtensionTest, FindsTheUploadExtensionAndItsProgram) {
    // Label, entries, the identifier found and its program (relative to PlugIns).
    const std::tuple<const char*, std::vector<Entry>, Text, Text> cases[] = {
        {"no PlugIns directory", {}, {}, {}},
        {"other point skipped, no program key",
         {{"A.appex", info("com.apple.widgetkit-extension", "a.w", "a")},
          {"B.appex", info(kUpload, "b.up")}},
         "b.up",
         {}},
        {"names and point compared exactly",
         {{"0.appex", info("com.apple.Broadcast-services-upload", "zero", "z")},
          {"A.APPEX", info(kUpload, "a")},
          {"B.appexx", info(kUpload, "b")},
          {"C", info(kUpload, "c")},
          {"D.appex", info(kUpload, "d.up", "d")}},
         "d.up",
         "D.appex/d"},
        {"unreadable entries skipped",
         {{"A.appex", {}},
          {"B.appex", {}, true},
          {"C.appex", "garbage"},
          {"D.appex", info("", "d.none")},
          {"E.appex", plist("<key>NSExtension</key><string>" + kUpload + "</string>")},
          {"F.appex", R"(<?xml version="1.0"?><plist><array/></plist>)"},
          {"G.appex", info(kUpload, "g.up", "g")}},
         "g.up",
         "G.appex/g"},
        {"path as program", {{"A.appex", info(kUpload, "a.up", "../../bin/sh")}}, "a.up", {}},
        {"parent as program", {{"A.appex", info(kUpload, "a.up", "..")}}, "a.up", {}},
        {"empty program", {{"A.appex", info(kUpload, "a.up", "")}}, "a.up", {}},
    };
    for (const auto& [label, entries, identifier, program] : cases) {
        SCOPED_TRACE(label);
        testing::TempDir dir;
        const auto plugIns = dir.path() / "PlugIns";
        for (const auto& [name, infoPlist, isFile] : entries) {
            const auto path = isFile ? plugIns / name : plugIns / name / "Info.plist";
            std::filesystem::create_directories(path.parent_path());
            if (isFile || infoPlist) {
                std::ofstream(path) << infoPlist.value_or("not a bundle");
            }
        }
        const testing::FakeBundle bundle(dir.path());
        EXPECT_EQ(BroadcastExtension::bundleIdentifier(bundle), identifier);
        EXPECT_EQ(BroadcastExtension::executable(bundle),
                  program ? std::optional(plugIns / *program) : std::nullopt);
    }
}

}  // namespace
}  // namespace velmorand
