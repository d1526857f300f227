// The device token and the access key stay out of logs and URLs, and the files holding them are
// private to their owner.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "FakeWebSocket.h"
#include "ManualMainQueue.h"
#include "PairingHarness.h"
#include "velmorand/desktop/DesktopEnvironment.h"
#include "velmorand/relay/RelayClient.h"

namespace velmorand::testing {
namespace {

constexpr const char* kAccessKey = "KEY-SECRET-4711";
constexpr const char* kDeviceToken = "TOKEN-SECRET-0815";

// The secrets as they may appear in a line or a URL, plain or percent-encoded.
bool mentionsSecret(const std::string& text) {
    for (const char* secret : {kAccessKey, kDeviceToken, "KEY%2DSECRET", "TOKEN%2DSECRET"}) {
        if (text.find(secret) != std::string::npos) {
            return true;
        }
    }
    return false;
}

// Pairs, starts touch control and checks its status once, with every answer a success.
struct PairedDevice : PairingHarness {
    PairedDevice() {
        const std::string base = kDefaultAppURL;
        http.route("POST", base + "/api/agent-handshake",
                   answer(200, std::string(R"({"deviceToken":")") + kDeviceToken +
                                   R"(","relayWsUrl":"wss://relay.test","deviceId":"d"})"));
        http.route("POST", base + "/api/agent/wda", answer(200, R"({"message":"Queued"})"));
        http.route("GET", base + "/api/agent/wda", answer(200, R"({"wdaStatus":"active"})"));
        http.route("GET", "http://127.0.0.1:8100/status",
                   answer(200, R"({"value":{"ready":true}})"));
        // A stale marker makes the capability probe write its log lines.
        config.standardStore().setBool("p2p_load_pending", true);
        model->pair(kAccessKey);
        EXPECT_TRUE(queue.waitAndRun());
        EXPECT_EQ(model->status(), "Paired as iPhone");
        model->startWda();
        queue.advance(std::chrono::seconds(9));
        model->refreshWdaStatus();
        queue.runReady();
        EXPECT_EQ(model->wdaStatus(), "Touch control: active");
    }
};

TEST(Secrets, UrlsCarryTheAccessKeyOnlyInTheStatusQueryItem) {
    PairedDevice device;
    const auto statusQuery = std::string(kDefaultAppURL) + "/api/agent/wda?accessKey=" + kAccessKey;
    int statusQueries = 0;
    for (const auto& request : device.http.requests()) {
        if (request.method == "GET" && request.url == statusQuery) {
            ++statusQueries;
        } else {
            EXPECT_FALSE(mentionsSecret(request.url)) << request.method << " " << request.url;
        }
    }
    // Status checks after pairing, after the start and on their own: none of it vacuous.
    EXPECT_GE(device.http.requests().size(), 6u);
    EXPECT_EQ(statusQueries, 3);
}

TEST(Secrets, LogLinesNeverCarryTheTokenOrTheAccessKey) {
    PairedDevice device;
    ASSERT_EQ(device.config.load().deviceToken, kDeviceToken);
    // The paired device's relay client, through its connection's ups and downs.
    ManualMainQueue queue;
    FakeWebSockets sockets;
    auto client = RelayClient::make(*device.config.load().relayWsUrl, kDeviceToken,
                                    {queue, device.log, sockets.factory(), [] { return 0.5; }});
    client->connect();
    auto first = sockets.tasks.back();
    EXPECT_EQ(first->request.headers,
              (decltype(first->request.headers){{"x-device-token", kDeviceToken}}));
    EXPECT_FALSE(mentionsSecret(first->request.url));
    sockets.open(first);
    first->deliverText(R"({"type":"ping"})");
    first->deliverText(std::string(R"({"type":"tap","x":1,"y":2,"echo":")") + kDeviceToken + "\"}");
    // Reasons and errors are logged as the peer gave them; these name no secret.
    sockets.close(first, 4401, std::string("token rejected"));
    queue.advance(std::chrono::seconds(60));
    sockets.tasks.back()->fail("Connection reset by peer");
    queue.advance(std::chrono::seconds(60));

    const auto lines = device.log.lines();
    for (const auto& line : lines) {
        EXPECT_FALSE(mentionsSecret(line)) << line;
    }
    EXPECT_NE(std::ranges::find(lines, "[relay-client] closed code=4401 token rejected"),
              lines.end());
    EXPECT_NE(std::ranges::find(
                  lines, "[relay-client] recv error: Connection reset by peer — reconnecting"),
              lines.end());
}

unsigned modeOf(const std::filesystem::path& path) {
    struct stat info {};
    EXPECT_EQ(::lstat(path.c_str(), &info), 0) << path;
    return info.st_mode & 07777;
}

TEST(Secrets, StoreAndKeychainFilesArePrivateWhateverTheUmask) {
    TempDir dir;
    const auto data = dir.path() / "data";
    const auto previousMask = ::umask(0);
    {
        DesktopEnvironment env(DesktopLocations{data, VELMORAND_SOURCE_BUNDLE});
        AppGroup appGroup(env.bundle);
        HandshakeResult result;
        result.deviceToken = kDeviceToken;
        result.relayWsUrl = "wss://relay.test";
        SharedConfig(env.settings, env.keychain, appGroup).save(kAccessKey, kDefaultAppURL, result);
    }
    ::umask(previousMask);

    int files = 0;
    EXPECT_EQ(modeOf(data), 0700u);
    for (const auto& entry : std::filesystem::recursive_directory_iterator(data)) {
        files += !entry.is_directory();
        EXPECT_EQ(modeOf(entry.path()), entry.is_directory() ? 0700u : 0600u) << entry.path();
    }
    // The keychain, the group store and the standard store, with their lock files.
    EXPECT_GE(files, 3);
    EXPECT_TRUE(std::filesystem::exists(DataRoot(data).keychainFile()));
}

}  // namespace
}  // namespace velmorand::testing
