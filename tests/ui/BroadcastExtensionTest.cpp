#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "FakeBundle.h"
#include "TempDir.h"
#include "velmorand/ui/BroadcastExtension.h"

namespace velmorand {
namespace {

namespace fs = std::filesystem;

constexpr const char* kUpload = "com.apple.broadcast-services-upload";

std::string infoPlist(const std::string& extension, std::optional<std::string> identifier) {
    std::string text =
        R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict>)" + extension;
    if (identifier) {
        text += "<key>CFBundleIdentifier</key><string>" + *identifier + "</string>";
    }
    return text + "</dict></plist>";
}

std::string extensionOf(const std::string& point, std::optional<std::string> identifier) {
    return infoPlist("<key>NSExtension</key><dict><key>NSExtensionPointIdentifier</key><string>" +
                         point + "</string></dict>",
                     std::move(identifier));
}

// One entry of the plug-ins directory: a folder with this Info.plist, a folder without one
// (infoPlist absent), or a plain file.
struct Entry {
    std::string name;
    std::optional<std::string> infoPlist;
    bool isFile = false;
};

struct LookupCase {
    const char* name;
    std::vector<Entry> entries;
    std::optional<std::string> expected;
};

class BroadcastExtensionLookup : public ::testing::TestWithParam<LookupCase> {
  protected:
    testing::TempDir dir;
    testing::FakeBundle bundle{dir.path()};
};

TEST_P(BroadcastExtensionLookup, FindsTheFirstUploadExtensionInNameOrder) {
    const auto plugIns = dir.path() / "PlugIns";
    fs::create_directories(plugIns);
    for (const auto& entry : GetParam().entries) {
        if (entry.isFile) {
            std::ofstream(plugIns / entry.name) << "not a bundle";
            continue;
        }
        fs::create_directories(plugIns / entry.name);
        if (entry.infoPlist) {
            std::ofstream(plugIns / entry.name / "Info.plist") << *entry.infoPlist;
        }
    }
    EXPECT_EQ(BroadcastExtension::bundleIdentifier(bundle), GetParam().expected);
}

Entry upload(std::string name, std::optional<std::string> identifier) {
    return Entry{std::move(name), extensionOf(kUpload, std::move(identifier)), false};
}

INSTANTIATE_TEST_SUITE_P(
    Layouts, BroadcastExtensionLookup,
    ::testing::Values(
        LookupCase{"empty", {}, std::nullopt},
        LookupCase{"one", {upload("Upload.appex", "co.app.upload")}, "co.app.upload"},
        LookupCase{"twoUploadsFirstByName",
                   {upload("B.appex", "b.upload"), upload("A.appex", "a.upload")},
                   "a.upload"},
        LookupCase{"otherPointSkipped",
                   {Entry{"A.appex", extensionOf("com.apple.widgetkit-extension", "a.widget")},
                    upload("B.appex", "b.upload")},
                   "b.upload"},
        LookupCase{"capitalsSkipped",
                   {upload("A.APPEX", "a.upload"), upload("B.appexx", "b.upload"),
                    upload("C", "c.upload"), upload("D.appex", "d.upload")},
                   "d.upload"},
        LookupCase{"matchWithoutIdentifierEndsTheWalk",
                   {upload("A.appex", std::nullopt), upload("B.appex", "b.upload")},
                   std::nullopt},
        LookupCase{"unreadableEntriesSkipped",
                   {Entry{"A.appex", std::nullopt}, Entry{"B.appex", std::nullopt, true},
                    Entry{"C.appex", "garbage"}, Entry{"D.appex", infoPlist("", "d.none")},
                    Entry{"E.appex", infoPlist("<key>NSExtension</key><string>" +
                                                   std::string(kUpload) + "</string>",
                                               "e.flat")},
                    Entry{"F.appex", R"(<?xml version="1.0"?><plist><array/></plist>)"},
                    upload("G.appex", "g.upload")},
                   "g.upload"},
        LookupCase{"pointIsCaseSensitive",
                   {upload("A.appex", "a.upload"),
                    Entry{"0.appex", extensionOf("com.apple.Broadcast-services-upload", "zero")}},
                   "a.upload"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(BroadcastExtension, AMissingPlugInsDirectoryFindsNothing) {
    testing::TempDir dir;
    EXPECT_EQ(BroadcastExtension::bundleIdentifier(testing::FakeBundle(dir.path())), std::nullopt);
}

struct ExecutableCase {
    const char* name;
    std::vector<Entry> entries;
    std::optional<std::string> expected;  // relative to PlugIns
};

class BroadcastExtensionExecutable : public ::testing::TestWithParam<ExecutableCase> {
  protected:
    testing::TempDir dir;
    testing::FakeBundle bundle{dir.path()};
};

TEST_P(BroadcastExtensionExecutable, NamesTheProgramOfTheExtensionFound) {
    const auto plugIns = dir.path() / "PlugIns";
    for (const auto& entry : GetParam().entries) {
        fs::create_directories(plugIns / entry.name);
        std::ofstream(plugIns / entry.name / "Info.plist") << *entry.infoPlist;
    }
    const auto expected = GetParam().expected;
    EXPECT_EQ(BroadcastExtension::executable(bundle),
              expected ? std::optional(plugIns / *expected) : std::nullopt);
}

Entry uploadRunning(std::string name, std::optional<std::string> identifier,
                    const std::string& executable) {
    return Entry{std::move(name),
                 infoPlist("<key>CFBundleExecutable</key><string>" + executable +
                               "</string><key>NSExtension</key><dict>"
                               "<key>NSExtensionPointIdentifier</key><string>" +
                               std::string(kUpload) + "</string></dict>",
                           std::move(identifier)),
                 false};
}

INSTANTIATE_TEST_SUITE_P(
    Layouts, BroadcastExtensionExecutable,
    ::testing::Values(
        ExecutableCase{"found", {uploadRunning("Up.appex", "a.up", "upload")}, "Up.appex/upload"},
        ExecutableCase{
            "sameExtensionAsTheLookup",
            {uploadRunning("B.appex", "b.up", "b"), uploadRunning("A.appex", "a.up", "a")},
            "A.appex/a"},
        ExecutableCase{"noExecutableKey", {upload("A.appex", "a.up")}, std::nullopt},
        ExecutableCase{"noIdentifier", {uploadRunning("A.appex", std::nullopt, "a")}, std::nullopt},
        ExecutableCase{
            "pathsRefused", {uploadRunning("A.appex", "a.up", "../../bin/sh")}, std::nullopt},
        ExecutableCase{"parentRefused", {uploadRunning("A.appex", "a.up", "..")}, std::nullopt},
        ExecutableCase{"emptyRefused", {uploadRunning("A.appex", "a.up", "")}, std::nullopt},
        ExecutableCase{"noExtension", {}, std::nullopt}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace velmorand
