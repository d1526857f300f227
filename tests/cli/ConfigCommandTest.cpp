#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "CommandRunner.h"
#include "DesktopConfig.h"
#include "TempDir.h"

namespace velmorand {
namespace {

class ConfigCommandTest : public ::testing::Test {
  protected:
    testing::CommandResult velmorand(std::vector<std::string> arguments) {
        return testing::runVelmorand(data_.path(), std::move(arguments));
    }

    void store(const SharedConfig::Values& values) {
        testing::DesktopConfig(data_.path(), VELMORAND_DEV_BUNDLE).config.persist(values);
    }

    testing::TempDir data_;
};

TEST_F(ConfigCommandTest, ShowsPresentFieldsInFieldOrderAndClearErasesThem) {
    const SharedConfig::Values values{
        "K1", {}, "tok", "wss://relay.example/r", {}, "", " H264 ", {}, 240, 0.25, {}, {}, {}, {}};
    store(values);

    const auto text = velmorand({"config", "show", "--show-secrets"});
    EXPECT_EQ(text.exitCode, 0) << text.err;
    EXPECT_EQ(text.out,
              "accessKey: K1\n"
              "deviceToken: tok\n"
              "relayWsUrl: wss://relay.example/r\n"
              "deviceName: \"\"\n"
              "codec: \" H264 \"\n"
              "fps: 240\n"
              "quality: 0.25\n"
              "isPaired: true\n"
              "encode: h264, 60 fps, quality 0.25, scale 0.5\n");

    // Unless asked for, the secrets are shown only to be there.
    const auto shown = velmorand({"config", "show"}).out;
    EXPECT_EQ(shown.substr(0, shown.find("relayWsUrl")),
              "accessKey: (hidden; --show-secrets shows it)\n"
              "deviceToken: (hidden; --show-secrets shows it)\n");
    const auto json = nlohmann::json::parse(velmorand({"config", "show", "--json"}).out);
    EXPECT_EQ(json["deviceToken"], "(hidden; --show-secrets shows it)");
    EXPECT_TRUE(json["fps"].is_number_integer());
    EXPECT_EQ(json["deviceName"], "");
    EXPECT_TRUE(json.at("appURL").is_null());
    EXPECT_EQ(json["isPaired"], true);
    EXPECT_EQ(json["encode"]["fps"], 60);

    const auto cleared = velmorand({"config", "clear"});
    EXPECT_EQ(cleared.exitCode, 0) << cleared.err;
    // Scripts find the same keys whatever was saved.
    const auto empty = nlohmann::json::parse(velmorand({"config", "show", "--json"}).out);
    EXPECT_EQ(empty.size(), json.size());
    for (const auto& [name, value] : json.items()) {
        EXPECT_TRUE(empty.contains(name)) << name;
    }
    EXPECT_EQ(velmorand({"config", "show"}).out,
              "isPaired: false\nencode: jpeg, 20 fps, quality 0.4, scale 0.5\n");
}

TEST_F(ConfigCommandTest, UsageErrorsExitTwoWithOneLineSayingWhatIsWrong) {
    const auto emptyFile = (data_.path() / "empty").string();
    std::ofstream(emptyFile) << "\n";
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"config"}, ""},
        {{"config", "show", "--yaml"}, ""},
        {{"frobnicate"}, "unknown command \"frobnicate\""},
        {{"encode", "--codec", "vp9"}, "--codec: vp9 not in {jpeg,h264}"},
        {{}, ""},
        {{"--service-url", "ftp://x.example", "pair-url"}, ""},
        // The relay client, unpaired, or given too little or too much.
        {{"relay-client"}, "not paired: no relay URL and no device token stored"},
        {{"relay-client", "--base", "ws://127.0.0.1:1/relay"}, "no device token stored"},
        {{"relay-client", "--token", "t"}, "no relay URL stored; pair this device first"},
        {{"relay-client", "--base", "ws://h/r", "--token-file", emptyFile}, "holds no token"},
        {{"relay-client", "--base", "ws://h/r", "--token-file", "/nonexistent/token"},
         "cannot read the token file /nonexistent/token"},
        {{"relay-client", "--token", "t", "--jitter", "0"}, "--jitter must be a positive"},
        {{"relay-client", "--token", "t", "--min-delay", "5", "--max-delay", "1"},
         "--min-delay (5) must not exceed --max-delay (1)"},
        {{"relay-client", "--token", "t", "--token-file", emptyFile}, "excludes"},
    };
    for (const auto& [arguments, message] : cases) {
        const auto result = velmorand(arguments);
        EXPECT_EQ(result.exitCode, 2) << message;
        EXPECT_TRUE(result.out.empty()) << result.out;
        ASSERT_FALSE(result.err.empty());
        EXPECT_EQ(result.err.find('\n'), result.err.size() - 1) << result.err;
        EXPECT_NE(result.err.find(message), std::string::npos) << result.err;
    }
    const auto help = velmorand({"--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_NE(help.out.find("config"), std::string::npos);
}

TEST_F(ConfigCommandTest, EncodeClampsWhatItSavesAndKeepsWhatIsNotGiven) {
    const std::string saved = "Saved — applies on next Start Broadcast.\ncodec: h264\n";
    const auto first =
        velmorand({"encode", "--codec", " H264 ", "--fps", "90", "--quality", "0.05"});
    EXPECT_EQ(first.exitCode, 0) << first.err;
    EXPECT_EQ(first.out, saved + "fps: 60\nquality: 0.1\nscale: 0.5\n");
    EXPECT_EQ(velmorand({"encode", "--scale", "0.75"}).out,
              saved + "fps: 60\nquality: 0.1\nscale: 0.75\n");
    // The store's bounds, not the app's sliders' (5 fps, quality 0.2, scale 0.25 at the least).
    EXPECT_EQ(velmorand({"encode", "--fps", "0", "--quality", "0.15", "--scale", "2"}).out,
              saved + "fps: 1\nquality: 0.15\nscale: 1.0\n");
    EXPECT_EQ(velmorand({"encode", "--fps", "abc"}).exitCode, 2);
}

// The app keeps its stores open while the program saves: it reads what was saved, and what it
// saves afterwards keeps it.
TEST_F(ConfigCommandTest, AnOpenStoreSeesAndKeepsWhatAnotherProcessSaved) {
    store({"K1", {}, "tok", "wss://relay.example/r", {}, {}, {}, {}, {}, {}, {}, {}, {}, {}});
    testing::DesktopConfig app(data_.path(), VELMORAND_DEV_BUNDLE);
    ASSERT_EQ(app.config.load().codec, std::nullopt);

    ASSERT_EQ(velmorand({"encode", "--codec", "h264"}).exitCode, 0);
    auto values = app.config.load();
    EXPECT_EQ(values.codec, "h264");
    values.relayRegion = "eu";  // a relay preference, saved as the app saves it
    app.config.persist(values);

    const auto stored = nlohmann::json::parse(velmorand({"config", "show", "--json"}).out);
    EXPECT_EQ(stored["codec"], "h264");
    EXPECT_EQ(stored["relayRegion"], "eu");
}

TEST_F(ConfigCommandTest, LogPrintsTheExtensionLogOrSaysItIsEmpty) {
    const auto empty = velmorand({"log"});
    EXPECT_EQ(empty.out, "");
    EXPECT_EQ(empty.err, "(empty — start a broadcast first)\n");
    const auto container = data_.path() / "Group Containers" / "group.co.velmorand.connect";
    std::filesystem::create_directories(container);
    // Whole, or its last 4,000 characters, or nothing when any of it is not UTF-8.
    const std::string tail = std::string(3999, 'b') + "\n";
    const std::pair<std::string, std::string> cases[] = {
        {"started\ncontrol: tap x=1 y=2\n", "started\ncontrol: tap x=1 y=2\n"},
        {std::string(5000, 'a') + tail, tail},
        {"good line\nbad \xc3\x28 byte\n", ""},
    };
    for (const auto& [log, shown] : cases) {
        std::ofstream(container / "extension.log", std::ios::binary) << log;
        EXPECT_EQ(velmorand({"log"}).out, shown) << log.size();
    }
}

// A directory, or a pipe nobody writes to, where a file belongs reads as if it were absent.
TEST_F(ConfigCommandTest, PathsThatCannotBeReadReadAsAbsent) {
    const auto container = data_.path() / "Group Containers" / "group.co.velmorand.connect";
    const std::string empty = "(empty — start a broadcast first)\n";
    const std::string group = "data/Group Containers/group.co.velmorand.connect/";
    // The path, under the data root or the bundle; the command; what it prints.
    const std::tuple<std::string, std::vector<std::string>, std::string> cases[] = {
        {group + "extension.log", {"log"}, empty},
        {"bundle/embedded.mobileprovision", {"log"}, empty},  // no group, so no log
        {"data/Keychain/keychain.plist", {"config", "show"}, "isPaired: false\n"},
        {"bundle/PlugIns/VelmorandBroadcast.appex/Info.plist",
         {"status"},
         "Broadcast extension: co.velmorand.connect.broadcast\n"},
        {group + "broadcast.lock", {"status"}, "Broadcast: Not running\n"},
        {group + "broadcast.json", {"status"}, "Broadcast: Not running\n"},
        {group + "broadcast.lock", {"broadcast", "--stop"}, "No broadcast is running.\n"},
    };
    for (const bool pipe : {false, true}) {
        for (const auto& [path, command, expected] : cases) {
            SCOPED_TRACE(path + (pipe ? " (pipe)" : ""));
            testing::TempDir bundle;
            std::filesystem::copy(VELMORAND_DEV_BUNDLE, bundle.path(),
                                  std::filesystem::copy_options::recursive);
            std::filesystem::remove_all(data_.path());
            std::filesystem::create_directories(container);
            std::ofstream(container / "extension.log") << "started\n";
            const auto blocked = (path.starts_with("data/") ? data_.path() : bundle.path()) /
                                 path.substr(path.find('/') + 1);
            std::filesystem::remove(blocked);
            std::filesystem::create_directories(blocked.parent_path());
            ASSERT_TRUE(pipe ? ::mkfifo(blocked.c_str(), 0600) == 0
                             : std::filesystem::create_directory(blocked));
            const auto result =
                testing::runVelmorand(data_.path(), command, "http://127.0.0.1:1", bundle.path());
            EXPECT_EQ(result.exitCode, 0) << result.err;
            // The empty log's note goes to stderr.
            EXPECT_NE((result.out + result.err).find(expected), std::string::npos) << result.out;
        }
    }
}

// Help and the version are plain text: every program answers them where there is no display
// (a terminal over ssh, a build machine), exiting 0.
TEST(ProgramText, HelpAndVersionNeedNoDisplay) {
    const std::vector<std::string> noDisplay = {"DISPLAY=", "WAYLAND_DISPLAY=", "QT_QPA_PLATFORM="};
    const std::tuple<std::string, std::vector<std::string>, std::string> cases[] = {
        {VELMORAND_APP, {"--help"}, "--service-url <URL>"},
        {VELMORAND_APP, {"--version"}, "velmorand-connect " VELMORAND_VERSION},
        // Qt's own options, which only the full help lists.
        {VELMORAND_APP, {"--help-all"}, "--qmljsdebugger <value>"},
        {VELMORAND_SANDBOX, {"--version"}, "velmorand-sandbox " VELMORAND_VERSION},
        // The sandbox's help tells what runs when an option is left out.
        {VELMORAND_SANDBOX, {"--help"}, "(default: 127.0.0.1)"},
        {VELMORAND_CLI, {"--version"}, "velmorand " VELMORAND_VERSION},
        {VELMORAND_BROADCAST, {"--version"}, "velmorand-broadcast " VELMORAND_VERSION},
        // A command's own footer, and the note every command carries.
        {VELMORAND_CLI, {"relay-client", "--help"}, "webrtc_signal and auth_rejected"},
        {VELMORAND_CLI, {"relay-client", "--help"}, "Global options, before or after the command"},
    };
    for (const auto& [program, arguments, shown] : cases) {
        SCOPED_TRACE(program + " " + arguments.front());
        const auto result = testing::runCommand(program, arguments, noDisplay);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        EXPECT_NE(result.out.find(shown), std::string::npos) << result.out;
    }
}

}  // namespace
}  // namespace velmorand
